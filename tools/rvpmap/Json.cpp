#include "Json.h"

#include "FileTime.h"
#include "RunFlags.h"
#include "Text.h"

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

void appendNumber(TextBuffer& out, std::string_view key, uint64_t value) {
    append(out, key);
    const fmt::format_int digits(value);
    out.append(digits.data(), digits.data() + digits.size());
}

void appendTime(TextBuffer& out, std::string_view key, const km_time& time) {
    append(out, key);
    appendSeconds(out, time);
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

void appendJsonString(TextBuffer& out, std::string_view text) {
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
        }
        text.remove_prefix(character.length);
    }
    out.push_back('"');
}

void appendJsonName(TextBuffer& out, const char* key, std::string_view text) {
    out.push_back('"');
    append(out, key);
    append(out, "\":");
    appendJsonString(out, text);
    if (!isUtf8(text)) {
        fmt::format_to(std::back_inserter(out), ",\"{}_hex\":\"{}\"", key, toHex(text));
    }
}

void appendJsonStat(TextBuffer& out, const std::string& path, const File& file,
                    const std::optional<std::string>& target) {
    const kmp_file& attributes = file.attributes();
    appendJsonName(out, "path", path);
    appendNumber(out, ",\"index\":", file.index());
    append(out, ",\"type\":\"");
    append(out, typeName(file.typeBits()));
    appendNumber(out, "\",\"mode\":", attributes.mode);
    appendNumber(out, ",\"nlink\":", attributes.linkCount);
    appendNumber(out, ",\"uid\":", attributes.owner & UINT32_MAX);
    appendNumber(out, ",\"gid\":", attributes.owner >> 32);
    appendNumber(out, ",\"size\":", attributes.size);
    appendNumber(out, ",\"blocks\":", attributes.blocks);
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
    appendNumber(out, ",\"index\":", file.index());
    append(out, ",\"type\":\"");
    append(out, typeName(file.typeBits()));
    appendNumber(out, "\",\"size\":", attributes.size);
    appendNumber(out, ",\"mode\":", attributes.mode);
    out.push_back('}');
}

void appendJsonExtent(TextBuffer& out, const Run& run, bool first) {
    appendNumber(out, first ? "{\"logical\":" : ",{\"logical\":", run.logical);
    appendNumber(out, ",\"physical\":", run.physical);
    appendNumber(out, ",\"length\":", run.length);
    append(out, ",\"flags\":[");
    bool firstFlag = true;
    forEachFlag(run.flags, [&](std::string_view name) {
        append(out, firstFlag ? "\"" : ",\"");
        append(out, name);
        out.push_back('"');
        firstFlag = false;
    });
    append(out, "]}");
}
