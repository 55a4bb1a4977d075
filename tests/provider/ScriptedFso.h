// A file-system-object library that answers as its script says and writes down what it was asked.
// The provider reaches it by its ordinary way of loading; the test through the symbol `fsoScript`.
#ifndef TESTS_SCRIPTEDFSO_H
#define TESTS_SCRIPTEDFSO_H

#include "fso/IFileSystemObjectV1.h"

#include <cstring>
#include <string>
#include <vector>

struct FsoScript {
    // What the library answers.
    bool initFails = false;
    uint32_t openStatus = FSO_OK;
    bool recognises = true;
    uint32_t statFsStatus = FSO_OK;
    uint32_t rootStatus = FSO_OK;
    uint32_t openFileStatus = FSO_OK;
    uint32_t readDirStatus = FSO_OK;
    uint32_t extentsStatus = FSO_OK;
    uint32_t metadataStatus = FSO_OK;
    uint32_t closeFileStatus = FSO_OK;
    uint32_t closeObjectStatus = FSO_OK;
    fso_fs_record fs = {};
    fso_file_record file = {};
    fso_metadata metadata = {};
    std::vector<fso_extent> extents;
    uint32_t extentCount = 0; // what is reported, whatever was written
    uint32_t dirEntries = 0;
    uint64_t dirBytes = 0;

    // What it was asked.
    std::vector<std::string> calls;
    std::string directory;
    uint32_t sectorSize = 0;
    fso_read_callback read = nullptr;
    void* readContext = nullptr;
    fso_log_callback log = nullptr;
    fso_keep_alive_callback keepAlive = nullptr;
    uint64_t index = 0;
    uint64_t offset = 0;
    fso_dir_request dirRequest = {};
};

#endif
