#include "FileSystemText.h"
#include "FileVisit.h"
#include "Json.h"
#include "ResultFile.h"
#include "Session.h"
#include "Signals.h"
#include "SvgPicture.h"
#include "Text.h"

#include <nlohmann/json.hpp>

namespace {

// More colours than this nobody can tell apart.
constexpr std::size_t MOST_PATHS = 32;

std::vector<std::string> shownPaths(Session& session) {
    if (session.options.paths.size() > MOST_PATHS) {
        throw ToolError(ExitStatus::USAGE,
                        fmt::format("no more than {} paths can be coloured", MOST_PATHS));
    }
    std::vector<std::string> paths;
    for (const std::string& path : session.options.paths) {
        paths.push_back(findFile(session.volume, path).path);
    }
    return paths;
}

PictureHeading headingOf(Session& session) {
    Volume& volume = session.volume;
    const kmp_fs& fs = volume.statistics();
    const std::string label = volume.label();
    return {volume.name(),
            fileSystemName(fs.type) +
                (label.empty() ? "" : fmt::format(" \u201c{}\u201d", toUtf8(label))),
            uuidText(volume.uuid()),
            fs.blockSize,
            volume.fileSystemBytes(),
            fs.freeBlocks * fs.blockSize};
}

void printSummary(Session& session, const VolumePicture& picture, std::size_t failures) {
    const PictureTotals& totals = picture.totals();
    nlohmann::ordered_json result;
    putName(result, "volume", session.options.volume);
    putName(result, "output", session.options.output);
    result["files"] = totals.files;
    result["directories"] = totals.directories;
    result["file_bytes"] = totals.fileBytes;
    result["directory_bytes"] = totals.directoryBytes;
    result["fragments"] = totals.fragments;
    result["fragmented_files"] = totals.fragmentedFiles;
    result["gaps"] = totals.gaps;
    result["largest_gap"] = totals.largestGap;
    result["failed"] = failures;
    auto& shown = result["shown"] = nlohmann::ordered_json::array();
    for (const ShownFile& file : picture.shown()) {
        nlohmann::ordered_json& entry = shown.emplace_back();
        putName(entry, "path", file.path);
        entry["files"] = file.files;
        entry["bytes"] = file.bytes;
        entry["fragments"] = file.fragments;
    }
    appendLine(session.output.buffer(), result);
}

void writePicture(Session& session, const TextBuffer& svg) {
    const std::string& output = session.options.output;
    if (output == "-") {
        append(session.output.buffer(), {svg.data(), svg.size()});
        return;
    }
    noteSignals();
    ResultFile file(output, AtomicFile::Until::NAMELESS);
    writeAll(file.descriptor(), svg.data(), svg.size(), printable(output));
    checkSignals();
    file.commit();
}

} // namespace

ExitStatus runMap(Session& session) {
    const PhysicalMap map(session.volume.source(), session.stack);
    VolumePicture picture(session.volume, map, shownPaths(session));
    Failures failures(session.options.volume, Failures::When::AT_ONCE);
    visitEveryFile(session.volume, "map", failures,
                   [&](const std::string& path, File& file) { picture.add(path, file); });
    picture.finish();
    TextBuffer svg;
    appendSvg(svg, picture, headingOf(session));
    writePicture(session, svg);
    if (session.options.json && session.options.output != "-") {
        printSummary(session, picture, failures.count());
    }
    return failures.count() == 0 ? ExitStatus::DONE : ExitStatus::FAILED;
}
