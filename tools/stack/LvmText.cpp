#include "LvmText.h"

#include "LvmConfig.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <map>
#include <optional>

namespace {

using Node = LvmConfig::Node;

// Sizes in sectors have to fit with room to multiply and add.
constexpr uint64_t LARGEST_NUMBER = UINT64_C(1) << 53;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The end of the string that begins at `at`.
std::size_t stringEnd(const std::string& text, std::size_t at) {
    for (++at; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] == '\\') {
            ++at;
        }
    }
    return std::min(at + 1, text.size());
}

// A minus sign starts a number where a value may start.
bool startsNegative(const std::string& text, std::size_t at, char before) {
    return text[at] == '-' && at + 1 < text.size() && isDigit(text[at + 1]) &&
           (before == '=' || before == '[' || before == ',');
}

const Node* child(const Node& node, const std::string& name) {
    const auto found = std::find_if(node.children.begin(), node.children.end(),
                                    [&](const Node& one) { return one.name == name; });
    return node.type == Node::SET && found != node.children.end() ? &*found : nullptr;
}

const Node& section(const Node& node, const std::string& name) {
    const Node* found = child(node, name);
    if (found == nullptr || found->type != Node::SET) {
        throw LvmTextError(fmt::format("{} has no section {}", node.name, name));
    }
    return *found;
}

uint64_t numberOf(const Node& value, const std::string& what) {
    uint64_t number = 0;
    const char* end = value.name.data() + value.name.size();
    const auto result = std::from_chars(value.name.data(), end, number);
    if (value.type != Node::NUMBER || result.ec != std::errc() || result.ptr != end ||
        number > LARGEST_NUMBER) {
        throw LvmTextError(fmt::format("{} is no number that makes sense", what));
    }
    return number;
}

std::optional<uint64_t> optionalNumber(const Node& node, const std::string& name) {
    const Node* found = child(node, name);
    if (found == nullptr) {
        return std::nullopt;
    }
    const std::string what = fmt::format("{} of {}", name, node.name);
    if (found->type != Node::SCALAR || found->children.empty()) {
        throw LvmTextError(fmt::format("{} is no number that makes sense", what));
    }
    return numberOf(found->children.front(), what);
}

uint64_t number(const Node& node, const std::string& name) {
    const auto found = optionalNumber(node, name);
    if (!found) {
        throw LvmTextError(fmt::format("{} has no {}", node.name, name));
    }
    return *found;
}

std::string unquoted(const Node& value) {
    const std::string& text = value.name;
    return value.type == Node::STRING && text.size() >= 2 ? text.substr(1, text.size() - 2) : "";
}

std::string string(const Node& node, const std::string& name) {
    const Node* found = child(node, name);
    if (found == nullptr || found->type != Node::SCALAR || found->children.empty()) {
        throw LvmTextError(fmt::format("{} has no {}", node.name, name));
    }
    return unquoted(found->children.front());
}

bool lists(const Node& node, const std::string& name, const std::string& word) {
    const Node* found = child(node, name);
    return found != nullptr && std::any_of(found->children.begin(), found->children.end(),
                                           [&](const Node& one) { return unquoted(one) == word; });
}

std::string uuid(const Node& node) {
    std::string text = string(node, "id");
    std::erase(text, '-');
    return text;
}

// Pairs of a name and an extent: stripes, and legs of a mirror.
std::vector<std::pair<std::string, uint64_t>> areaPairs(const Node& list) {
    if (list.children.size() % 2 != 0) {
        throw LvmTextError(fmt::format("{} is not made of pairs", list.name));
    }
    std::vector<std::pair<std::string, uint64_t>> areas;
    for (auto at = list.children.begin(); at != list.children.end(); ++at) {
        const std::string name = unquoted(*at);
        ++at;
        areas.emplace_back(name, numberOf(*at, list.name));
    }
    return areas;
}

// The legs of a raid segment come in pairs of a metadata and a data volume.
std::vector<std::pair<std::string, uint64_t>> raidAreas(const Node& list) {
    std::vector<std::pair<std::string, uint64_t>> areas;
    bool data = false;
    for (const Node& one : list.children) {
        if (data) {
            areas.emplace_back(unquoted(one), 0);
        }
        data = !data;
    }
    return areas;
}

LvmSegment readSegment(const Node& node) {
    LvmSegment segment{
        number(node, "start_extent"), number(node, "extent_count"), string(node, "type"), 0, {}};
    if (const Node* stripes = child(node, "stripes")) {
        segment.areas = areaPairs(*stripes);
        segment.stripeSize = optionalNumber(node, "stripe_size").value_or(0);
    } else if (const Node* mirrors = child(node, "mirrors")) {
        segment.areas = areaPairs(*mirrors);
    } else if (const Node* raids = child(node, "raids")) {
        segment.areas = raidAreas(*raids);
    }
    return segment;
}

LvmVolume readVolume(const Node& node) {
    LvmVolume volume{node.name, lists(node, "status", "VISIBLE"), "", {}};
    if (lists(node, "status", "REBUILD")) {
        volume.cannotBeRead = "is not rebuilt to its end yet";
    }
    for (const Node& one : node.children) {
        if (one.type == Node::SET && one.name.starts_with("segment")) {
            volume.segments.push_back(readSegment(one));
        }
    }
    std::sort(volume.segments.begin(), volume.segments.end(),
              [](const LvmSegment& a, const LvmSegment& b) { return a.start < b.start; });
    return volume;
}

// Why volumes that snapshots consist of do not hold what their own segments say.
std::map<std::string, std::string> snapshotParts(const Node& volumes) {
    constexpr const char* SNAPSHOT = "is a snapshot, which is not supported";
    std::map<std::string, std::string> parts;
    for (const Node& volume : volumes.children) {
        for (const Node& segment : volume.children) {
            if (segment.type != Node::SET) {
                continue;
            }
            if (child(segment, "cow_store") != nullptr) {
                parts[string(segment, "cow_store")] = SNAPSHOT;
            }
            if (child(segment, "merging_store") != nullptr) {
                parts[string(segment, "merging_store")] = SNAPSHOT;
                parts[string(segment, "origin")] =
                    "is being merged with a snapshot, which is not supported";
            }
        }
    }
    return parts;
}

void readVolumes(const Node& volumes, LvmGroupText& group) {
    const std::map<std::string, std::string> parts = snapshotParts(volumes);
    for (const Node& one : volumes.children) {
        if (one.type == Node::SET) {
            LvmVolume& volume = group.volumes.emplace_back(readVolume(one));
            if (const auto part = parts.find(volume.name); part != parts.end()) {
                volume.cannotBeRead = part->second;
            }
        }
    }
}

LvmDevice readDevice(const Node& node) {
    return {node.name, uuid(node), lists(node, "flags", "MISSING"), number(node, "pe_start"),
            number(node, "pe_count")};
}

} // namespace

std::string parsableLvmText(const std::string& text) {
    std::string result;
    result.reserve(text.size() + 16);
    char before = '\0'; // the last character that is not blank
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = at + 1;
        if (text[at] == '"') {
            end = stringEnd(text, at);
            result.append(text, at, end - at);
        } else if (text[at] == '#') {
            end = std::min(text.find('\n', at), text.size());
        } else if (startsNegative(text, at, before)) {
            end = std::min(text.find_first_not_of("0123456789", end), text.size());
            result.append(1, '"').append(text, at, end - at).append(1, '"');
        } else {
            result.push_back(text[at]);
        }
        const bool blank = text[at] == ' ' || text[at] == '\t' || text[at] == '\n' ||
                           text[at] == '\r' || text[at] == '#';
        before = blank ? before : text[end - 1];
        at = end;
    }
    return result;
}

LvmGroupText readLvmText(const std::string& text) {
    LvmConfig config;
    config.parse(parsableLvmText(text.substr(0, text.find('\0'))));
    const LvmConfig& parsed = config;
    if (parsed.getErrorCode() != 0 || parsed.root.children.empty() ||
        parsed.root.children.front().type != Node::SET) {
        throw LvmTextError("the metadata text is no volume group");
    }
    const Node& vg = parsed.vg();
    LvmGroupText group{vg.name, uuid(vg), number(vg, "seqno"), number(vg, "extent_size"), {}, {}};
    if (group.extentSectors == 0 || group.extentSectors > UINT32_MAX) {
        throw LvmTextError("the extents have a size that makes no sense");
    }
    for (const Node& one : section(vg, "physical_volumes").children) {
        group.devices.push_back(readDevice(one));
    }
    // A group without logical volumes has no such section.
    if (child(vg, "logical_volumes") != nullptr) {
        readVolumes(section(vg, "logical_volumes"), group);
    }
    return group;
}
