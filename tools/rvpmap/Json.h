// JSON of files, written as it streams by. Names are bytes on the volume: one that is not UTF-8
// is followed by its bytes in hexadecimal digits under a key of its own.
#ifndef RVPMAP_JSON_H
#define RVPMAP_JSON_H

#include "ExtentCursor.h"
#include "Output.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

// A quoted string; each byte that is not UTF-8 becomes U+FFFD. False when there was one.
bool appendJsonString(TextBuffer& out, std::string_view text);
// "key": "text", and ,"key_hex": "..." where the text is not UTF-8.
void appendJsonName(TextBuffer& out, const char* key, std::string_view text);

// The members of a `stat` object, without the braces. `target` is a symbolic link's.
void appendJsonStat(TextBuffer& out, const std::string& path, const File& file,
                    const std::optional<std::string>& target);
// An entry of `ls`: a whole object.
void appendJsonEntry(TextBuffer& out, std::string_view name, const std::string& path,
                     const File& file);

// The names of a run's flags, as an array.
void appendJsonFlags(TextBuffer& out, uint32_t flags);
// One extent object; `first` says whether a comma must come before it.
void appendJsonExtent(TextBuffer& out, const Run& run, bool first);

// For results that are no stream: the text, and "key_hex" as above; and the whole as one line.
void putName(nlohmann::ordered_json& object, const char* key, std::string_view text);
void appendLine(TextBuffer& out, const nlohmann::ordered_json& document);

#endif
