// The map files of GNU ddrescue: which areas of a device could be read.
//
// A text file: comments begin with '#'; the first other line is the state of the rescue and is
// passed over; each further line is an area: position, size, status. Numbers are as in C: decimal,
// hexadecimal after 0x, octal after 0. (GNU ddrescue manual, "Mapfile structure".)
#ifndef RVPMAP_DDRESCUEMAP_H
#define RVPMAP_DDRESCUEMAP_H

#include "RangeList.h"

#include <string>
#include <vector>

// The areas that were tried and could not be read: bad sectors ('-'), and the not yet trimmed ('*')
// and not yet scraped ('/') surroundings of errors. Areas never tried ('?') and read ('+') are left
// out. Throws ToolError that names the file and the line.
std::vector<ByteRange> readBadAreas(const std::string& path);

#endif
