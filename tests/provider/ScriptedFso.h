// A file-system-object library that answers as its script says and writes down what it was asked.
// It lies in the test program, where the provider finds it by its ordinary way of loading.
#ifndef TESTS_SCRIPTEDFSO_H
#define TESTS_SCRIPTEDFSO_H

#include "fso/IFileSystemObjectV1.h"

#include <map>
#include <set>
#include <string>
#include <vector>

struct FsoScript {
    // What the library answers; to a listing, three entries in 48 bytes.
    std::set<std::string> lacks;            // symbols, or "libfso.so" as a whole
    std::map<std::string, uint32_t> status; // by operation; FSO_OK where none is given
    int thrown = 0;                         // as an error of this code, by openFile
    fso_fs_record fs = {};
    fso_file_record file = {};
    std::vector<fso_extent> extents;
    uint32_t extentCount = 0; // what is reported, whatever was written

    // What it was asked.
    std::vector<std::string> calls;
    std::string directory;
    uint32_t sectorSize = 0;
    fso_read_callback read = nullptr;
    void* readContext = nullptr;
    fso_log_callback log = nullptr;
    fso_keep_alive_callback keepAlive = nullptr;
    uint64_t offset = 0;
    fso_dir_request dirRequest = {};
};

extern FsoScript g_script;

#endif
