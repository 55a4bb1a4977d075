#include "FileSystemText.h"
#include "Json.h"
#include "Session.h"
#include "Text.h"

#include "fso/IFileSystemObjectV1.h"

#include <nlohmann/json.hpp>

namespace {

nlohmann::ordered_json document(Session& session) {
    Volume& volume = session.volume;
    nlohmann::ordered_json result;
    putName(result, "volume", session.options.volume);
    putName(result, "name", volume.label());
    result["uuid"] = uuidText(volume.uuid());
    result["block_size"] = volume.statistics().blockSize;
    result["block_count"] = volume.statistics().blockCount;
    result["root_index"] = volume.rootIndex();
    result["filesystem"] = fileSystemName(volume.statistics().type);
    return result;
}

std::string sizeText(uint64_t blocks, uint64_t blockSize) {
    return fmt::format("{}B ({} blocks)", humanSize(blocks * blockSize), blocks);
}

std::string stateText(uint64_t state) {
    if (state == 0) {
        return "clean";
    }
    std::string text;
    if ((state & FSO_FS_NEEDS_RECOVERY) != 0) {
        text = "journal not played back";
    }
    if ((state & FSO_FS_HAS_ERRORS) != 0) {
        text += text.empty() ? "marked as damaged" : ", marked as damaged";
    }
    return text.empty() ? fmt::format("{:#x}", state) : text;
}

} // namespace

ExitStatus runInfo(Session& session) {
    TextBuffer& out = session.output.buffer();
    if (session.options.json) {
        appendLine(out, document(session));
        return ExitStatus::DONE;
    }
    Volume& volume = session.volume;
    const kmp_fs& fs = volume.statistics();
    session.table.appendPairs(out, {{"volume", printable(session.options.volume)},
                                    {"file system", fileSystemName(fs.type)},
                                    {"name", printable(volume.label())},
                                    {"UUID", uuidText(volume.uuid())},
                                    {"state", stateText(fs.state)},
                                    {"block size", fmt::format("{}", fs.blockSize)},
                                    {"size", sizeText(fs.blockCount, fs.blockSize)},
                                    {"used", sizeText(fs.usedBlocks, fs.blockSize)},
                                    {"free", sizeText(fs.freeBlocks, fs.blockSize)},
                                    {"free files", fmt::format("{}", fs.freeFiles)},
                                    {"root index", fmt::format("{}", volume.rootIndex())}});
    return ExitStatus::DONE;
}
