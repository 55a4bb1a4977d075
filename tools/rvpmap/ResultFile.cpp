#include "ResultFile.h"

#include "ExitStatus.h"
#include "Text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <system_error>

namespace {

mode_t usualPermissions() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

} // namespace

ResultFile::ResultFile(const std::string& path, AtomicFile::Until until) : m_path(path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw WriteError(fmt::format("cannot write to {}: it exists and is not a regular file",
                                     printable(path)));
    }
    const std::filesystem::path parts(path);
    m_folder = parts.has_parent_path() ? parts.parent_path().string() : ".";
    m_directory = UniqueFd(::open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_directory.valid()) {
        fail(errno);
    }
    try {
        m_file.emplace(m_directory.get(), parts.filename().string(), until);
    } catch (const std::system_error& error) {
        fail(error.code().value());
    }
}

std::string ResultFile::temporaryPath() const {
    return m_folder + "/" + m_file->temporaryName();
}

void ResultFile::commit() {
    if (::fsync(descriptor()) != 0) {
        fail(errno);
    }
    commit(usualPermissions());
    // The new name is safe once the folder is; some file systems cannot do that, and need not.
    ::fsync(m_directory.get());
}

void ResultFile::commit(mode_t permissions) {
    if (::fchmod(descriptor(), permissions) != 0) {
        fail(errno);
    }
    try {
        m_file->commit(AtomicFile::Existing::REPLACE);
    } catch (const std::system_error& error) {
        fail(error.code().value());
    }
}

void ResultFile::fail(int error) const {
    throw WriteError(fmt::format("cannot write to {}: {}; nothing is left there", printable(m_path),
                                 std::strerror(error)));
}
