// The catalogue as comma-separated values, RFC 4180: lines end in CR LF, a field that holds a
// comma, a quote or a line break is quoted. Names stay the bytes that they are on the volume.
#ifndef RVPMAP_CSV_H
#define RVPMAP_CSV_H

#include "ExtentCursor.h"
#include "Output.h"

#include <optional>
#include <string>

void appendCsvHeader(TextBuffer& out, bool extents);
// The fields of one file, without the line's end.
void appendCsvFields(TextBuffer& out, const std::string& path, const File& file,
                     const std::optional<std::string>& target);
// One run within the field of extents: logical:physical:length[:flag+flag...], blanks in between.
void appendCsvExtent(TextBuffer& out, const Run& run, bool first);
void appendCsvLineEnd(TextBuffer& out);

#endif
