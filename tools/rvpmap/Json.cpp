#include "Json.h"

#include "FileTime.h"
#include "RunFlags.h"
#include "Text.h"

#include <nlohmann/json.hpp>

namespace {

// Characters that need no second look: ASCII but controls, quotes and backslashes.
bool isPlain(char c) {
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
}

void appendEscaped(TextBuffer& out, std::string_view character) {
    const char c = character.front();
    if (c == '"' || c == '\\') {
        out.push_back('\\');
        out.push_back(c);
    } else if (c >= 0 && (c < 0x20 || c == 0x7F)) {
        fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
    } else {
        append(out, character);
    }
}

[[gnu::always_inline]] inline void appendMember(TextBuffer& out, std::string_view key,
                                                uint64_t value) {
    append(out, key);
    appendNumber(out, value);
}

[[gnu::always_inline]] inline void appendTime(TextBuffer& out, std::string_view key,
                                              const km_time& time) {
    append(out, key);
    appendSeconds(out, time);
}

void appendIndexAndType(TextBuffer& out, const File& file) {
    appendMember(out, ",\"index\":", file.index());
    append(out, ",\"type\":\"");
    append(out, typeName(file.typeBits()));
    out.push_back('"');
}

void appendTimes(TextBuffer& out, const kmp_file& attributes) {
    appendTime(out, ",\"atime\":", attributes.accessTime);
    appendTime(out, ",\"mtime\":", attributes.modifyTime);
    appendTime(out, ",\"ctime\":", attributes.changeTime);
    if (isKept(attributes.createTime)) {
        appendTime(out, ",\"crtime\":", attributes.createTime);
    } else {
        append(out, ",\"crtime\":null");
    }
}

} // namespace

bool appendJsonString(TextBuffer& out, std::string_view text) {
    bool valid = true;
    out.push_back('"');
    while (!text.empty()) {
        std::size_t plain = 0;
        while (plain < text.size() && isPlain(text[plain])) {
            ++plain;
        }
        append(out, text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        const Utf8Character character = firstCharacter(text);
        if (character.valid) {
            appendEscaped(out, text.substr(0, character.length));
        } else {
            append(out, "\xEF\xBF\xBD");
            valid = false;
        }
        text.remove_prefix(character.length);
    }
    out.push_back('"');
    return valid;
}

void appendJsonName(TextBuffer& out, const char* key, std::string_view text) {
    out.push_back('"');
    append(out, key);
    append(out, "\":");
    if (!appendJsonString(out, text)) {
        fmt::format_to(std::back_inserter(out), ",\"{}_hex\":\"{}\"", key, toHex(text));
    }
}

void appendJsonStat(TextBuffer& out, const std::string& path, const File& file,
                    const std::optional<std::string>& target) {
    const kmp_file& attributes = file.attributes();
    appendJsonName(out, "path", path);
    appendIndexAndType(out, file);
    appendMember(out, ",\"mode\":", attributes.mode);
    appendMember(out, ",\"nlink\":", attributes.linkCount);
    appendMember(out, ",\"uid\":", attributes.owner & UINT32_MAX);
    appendMember(out, ",\"gid\":", attributes.owner >> 32);
    appendMember(out, ",\"size\":", attributes.size);
    appendMember(out, ",\"blocks\":", attributes.blocks);
    appendTimes(out, attributes);
    if (target) {
        out.push_back(',');
        appendJsonName(out, "target", *target);
    }
}

void appendJsonEntry(TextBuffer& out, std::string_view name, const std::string& path,
                     const File& file) {
    const kmp_file& attributes = file.attributes();
    out.push_back('{');
    appendJsonName(out, "name", name);
    out.push_back(',');
    appendJsonName(out, "path", path);
    appendIndexAndType(out, file);
    appendMember(out, ",\"size\":", attributes.size);
    appendMember(out, ",\"mode\":", attributes.mode);
    out.push_back('}');
}

void appendJsonFlags(TextBuffer& out, uint32_t flags) {
    out.push_back('[');
    bool first = true;
    forEachFlag(flags, [&](std::string_view name) {
        append(out, first ? "\"" : ",\"");
        append(out, name);
        out.push_back('"');
        first = false;
    });
    out.push_back(']');
}

void appendJsonExtent(TextBuffer& out, const Run& run, bool first) {
    appendMember(out, first ? "{\"logical\":" : ",{\"logical\":", run.logical);
    appendMember(out, ",\"physical\":", run.physical);
    appendMember(out, ",\"length\":", run.length);
    append(out, ",\"flags\":");
    appendJsonFlags(out, run.flags);
    out.push_back('}');
}

void putName(nlohmann::ordered_json& object, const char* key, std::string_view text) {
    object[key] = toUtf8(text);
    if (!isUtf8(text)) {
        object[fmt::format("{}_hex", key)] = toHex(text);
    }
}

void appendLine(TextBuffer& out, const nlohmann::ordered_json& document) {
    append(out, document.dump());
    out.push_back('\n');
}
