#include "Csv.h"

#include "FileTime.h"
#include "RunFlags.h"

namespace {

void appendField(TextBuffer& out, std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        append(out, text);
        return;
    }
    out.push_back('"');
    for (const char c : text) {
        if (c == '"') {
            out.push_back('"');
        }
        out.push_back(c);
    }
    out.push_back('"');
}

void appendMember(TextBuffer& out, uint64_t value) {
    appendNumber(out, value);
    out.push_back(',');
}

void appendTime(TextBuffer& out, const km_time& time) {
    appendSeconds(out, time);
    out.push_back(',');
}

} // namespace

void appendCsvHeader(TextBuffer& out, bool extents) {
    append(out, "path,index,type,mode,nlink,uid,gid,size,blocks,atime,mtime,ctime,crtime,target");
    append(out, extents ? ",extents\r\n" : "\r\n");
}

void appendCsvFields(TextBuffer& out, const std::string& path, const File& file,
                     const std::optional<std::string>& target) {
    const kmp_file& attributes = file.attributes();
    appendField(out, path);
    out.push_back(',');
    appendMember(out, file.index());
    append(out, typeName(file.typeBits()));
    out.push_back(',');
    appendMember(out, attributes.mode);
    appendMember(out, attributes.linkCount);
    appendMember(out, attributes.owner & UINT32_MAX);
    appendMember(out, attributes.owner >> 32);
    appendMember(out, attributes.size);
    appendMember(out, attributes.blocks);
    appendTime(out, attributes.accessTime);
    appendTime(out, attributes.modifyTime);
    appendTime(out, attributes.changeTime);
    if (isKept(attributes.createTime)) {
        appendSeconds(out, attributes.createTime);
    }
    out.push_back(',');
    appendField(out, target.value_or(""));
}

void appendCsvExtent(TextBuffer& out, const Run& run, bool first) {
    fmt::format_to(std::back_inserter(out), "{}{}:{}:{}", first ? "" : " ", run.logical,
                   run.physical, run.length);
    char separator = ':';
    forEachFlag(run.flags, [&](std::string_view name) {
        out.push_back(separator);
        append(out, name);
        separator = '+';
    });
}

void appendCsvLineEnd(TextBuffer& out) {
    append(out, "\r\n");
}
