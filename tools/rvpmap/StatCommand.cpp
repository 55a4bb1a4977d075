#include "FileTime.h"
#include "Json.h"
#include "Messages.h"
#include "Path.h"
#include "Session.h"
#include "Text.h"

#include <sys/stat.h>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

std::optional<std::string> targetOf(FoundFile& found) {
    if (found.file.typeBits() != S_IFLNK) {
        return std::nullopt;
    }
    try {
        return found.file.linkTarget();
    } catch (const ToolError& error) {
        throw about(found.path, error);
    }
}

std::string sizeText(uint64_t bytes) {
    return bytes < 1024 ? fmt::format("{}", bytes)
                        : fmt::format("{} ({})", bytes, humanSize(bytes));
}

Pairs describe(const FoundFile& found, const std::optional<std::string>& target) {
    const kmp_file& attributes = found.file.attributes();
    const uint32_t type = found.file.typeBits();
    Pairs pairs = {
        {"path", printable(found.path)},
        {"type", std::string(typeName(type))},
        {"index", fmt::format("{}", found.file.index())},
        {"mode", fmt::format("{} ({:04o})", modeText(attributes.mode), attributes.mode & 07777)},
        {"links", fmt::format("{}", attributes.linkCount)},
        {"user", fmt::format("{}", attributes.owner & UINT32_MAX)},
        {"group", fmt::format("{}", attributes.owner >> 32)},
        {"size", sizeText(attributes.size)},
        {"allocated", humanSize(attributes.blocks * 512)},
        {"accessed", localTime(attributes.accessTime)},
        {"modified", localTime(attributes.modifyTime)},
        {"changed", localTime(attributes.changeTime)}};
    if (isKept(attributes.createTime)) {
        pairs.emplace_back("created", localTime(attributes.createTime));
    }
    if (type == S_IFCHR || type == S_IFBLK) {
        pairs.emplace_back("device", fmt::format("{}, {}", attributes.device >> 32,
                                                 attributes.device & UINT32_MAX));
    }
    if (target) {
        pairs.emplace_back("target", printable(*target));
    }
    return pairs;
}

} // namespace

ExitStatus runStat(Session& session) {
    FoundFile found = findFile(session.volume, session.options.path);
    const std::optional<std::string> target = targetOf(found);
    TextBuffer& out = session.output.buffer();
    if (session.options.json) {
        out.push_back('{');
        appendJsonStat(out, found.path, found.file, target);
        append(out, "}\n");
    } else {
        session.table.appendPairs(out, describe(found, target));
    }
    return ExitStatus::DONE;
}
