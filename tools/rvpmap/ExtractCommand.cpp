// The extraction of one file; a tree is TreeRestorer's work.
#include "Content.h"
#include "FileTime.h"
#include "Json.h"
#include "Messages.h"
#include "Path.h"
#include "ResultFile.h"
#include "Session.h"
#include "Signals.h"
#include "Text.h"
#include "TreeRestorer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <system_error>

namespace {

const std::string STANDARD_OUTPUT = "-";

void requireRegular(const FoundFile& found) {
    const uint32_t type = found.file.typeBits();
    if (type != S_IFREG) {
        throw ToolError(ExitStatus::NOT_FOUND,
                        fmt::format("{}: is not a file but a {}{}", printable(found.path),
                                    typeName(type), type == S_IFDIR ? " (-r restores it)" : ""));
    }
}

ToolError cannotWrite(const std::string& output, int error) {
    return {ExitStatus::FAILED,
            fmt::format("cannot write to {}: {}", printable(output), std::strerror(error))};
}

void extractToStream(File& file, int descriptor, const std::string& name, Progress& progress) {
    copyToStream(file, descriptor, name, progress);
}

// A pipe or device that stands where the output is to go.
void extractToDevice(File& file, const std::string& output, Progress& progress) {
    UniqueFd device(::open(output.c_str(), O_WRONLY | O_CLOEXEC));
    if (!device.valid()) {
        throw cannotWrite(output, errno);
    }
    extractToStream(file, device.get(), output, progress);
    if (device.reset() != 0) {
        throw cannotWrite(output, errno);
    }
}

void extractToFile(File& file, const std::string& output, Progress& progress) {
    const kmp_file& attributes = file.attributes();
    ResultFile target(output, AtomicFile::Until::NAMELESS);
    try {
        copyToFile(file, target.descriptor(), progress);
    } catch (const std::system_error& error) {
        throw cannotWrite(output, error.code().value());
    }
    const timespec times[] = {toTimespec(attributes.accessTime), toTimespec(attributes.modifyTime)};
    if (::futimens(target.descriptor(), times) != 0) {
        throw cannotWrite(output, errno);
    }
    checkSignals();
    target.commit(static_cast<mode_t>(attributes.mode & 0777));
}

void extractOne(FoundFile& found, const std::string& output) {
    const kmp_file& attributes = found.file.attributes();
    Progress progress("extract", Progress::Unit::BYTES,
                      std::min(attributes.size, attributes.blocks * 512));
    struct stat status = {};
    if (output == STANDARD_OUTPUT) {
        extractToStream(found.file, STDOUT_FILENO, "standard output", progress);
    } else if (::stat(output.c_str(), &status) != 0 || S_ISREG(status.st_mode)) {
        extractToFile(found.file, output, progress);
    } else if (S_ISDIR(status.st_mode)) {
        throw cannotWrite(output, EISDIR);
    } else {
        extractToDevice(found.file, output, progress);
    }
}

void printSummary(Session& session, const std::string& path, uint64_t restored, uint64_t failed) {
    const std::string& output = session.options.output;
    if (!session.options.json || output == STANDARD_OUTPUT) {
        return;
    }
    nlohmann::ordered_json result;
    putName(result, "path", path);
    putName(result, "output", output);
    result["restored"] = restored;
    result["failed"] = failed;
    appendLine(session.output.buffer(), result);
}

ExitStatus extractTree(Session& session, FoundFile& found) {
    TreeRestorer restorer(session);
    const std::string path = found.path;
    restorer.restore(found);
    printSummary(session, path, restorer.restored(), restorer.failed());
    return restorer.failed() == 0 ? ExitStatus::DONE : ExitStatus::FAILED;
}

} // namespace

ExitStatus runExtract(Session& session) {
    noteSignals();
    FoundFile found = findFile(session.volume, session.options.path);
    if (session.options.recursive) {
        return extractTree(session, found);
    }
    requireRegular(found);
    try {
        extractOne(found, session.options.output);
    } catch (const ToolError& error) {
        throw about(found.path, error);
    }
    printSummary(session, found.path, 1, 0);
    return ExitStatus::DONE;
}
