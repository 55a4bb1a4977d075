#include "ScriptedFso.h"

#include <algorithm>

namespace {

FsoScript s_script;

fso_info s_second = {"scripted-two", "2.0", "b2", nullptr};
fso_info s_first = {"scripted", "1.0", "b1", &s_second};

uint32_t noted(const char* call, uint64_t index, uint32_t status) {
    s_script.calls.emplace_back(call);
    s_script.index = index;
    return status;
}

class ScriptedObject : public IFileSystemObjectV1 {
  public:
    bool recognise() override {
        s_script.calls.emplace_back("recognise");
        return s_script.recognises;
    }
    uint32_t rootIndex(uint64_t* index) override {
        if (s_script.rootStatus == FSO_OK) {
            *index = 2;
        }
        return noted("rootIndex", 0, s_script.rootStatus);
    }
    uint32_t statFs(fso_fs_record* record) override {
        *record = s_script.fs;
        return noted("statFs", 0, s_script.statFsStatus);
    }
    uint32_t openFile(uint64_t index, fso_file_record* record, uint32_t* /*flags*/) override {
        *record = s_script.file;
        return noted("openFile", index, s_script.openFileStatus);
    }
    uint32_t readDir(uint64_t index, fso_dir_request* request, uint32_t* entryCount) override {
        s_script.dirRequest = *request;
        request->resultCount = s_script.dirBytes;
        *entryCount = s_script.dirEntries;
        return noted("readDir", index, s_script.readDirStatus);
    }
    uint32_t getExtents(uint64_t index, uint64_t offset, fso_extent* extents, uint32_t capacity,
                        uint32_t* count) override {
        s_script.offset = offset;
        std::copy_n(s_script.extents.begin(), std::min<size_t>(capacity, s_script.extents.size()),
                    extents);
        *count = s_script.extentCount;
        return noted("getExtents", index, s_script.extentsStatus);
    }
    uint32_t getMetadata(uint64_t index, fso_metadata* metadata) override {
        *metadata = s_script.metadata;
        return noted("getMetadata", index, s_script.metadataStatus);
    }
    uint32_t closeFile(uint64_t index) override {
        return noted("closeFile", index, s_script.closeFileStatus);
    }
};

} // namespace

extern "C" {

FsoScript* fsoScript() {
    return &s_script;
}

#ifndef WITHOUT_LIBINIT
const fso_info* libInit(const char* directory) {
    s_script.calls.emplace_back("libInit");
    s_script.directory = directory;
    return s_script.initFails ? nullptr : &s_first;
}
#endif

#ifndef WITHOUT_OPEN
uint32_t openFileSystemObject(IFileSystemObjectV1** object, uint32_t sectorSize,
                              fso_read_callback read, void* context, fso_log_callback log,
                              fso_keep_alive_callback keepAlive) {
    s_script.calls.emplace_back("openFileSystemObject");
    s_script.sectorSize = sectorSize;
    s_script.read = read;
    s_script.readContext = context;
    s_script.log = log;
    s_script.keepAlive = keepAlive;
    if (s_script.openStatus == FSO_OK) {
        static ScriptedObject s_object;
        *object = &s_object;
    }
    return s_script.openStatus;
}
#endif

#ifndef WITHOUT_CLOSE
uint32_t closeFileSystemObject(IFileSystemObjectV1** /*object*/) {
    s_script.calls.emplace_back("closeFileSystemObject");
    return s_script.closeObjectStatus;
}
#endif

#ifndef WITHOUT_FINI
void libFini(const fso_info* head) {
    s_script.calls.emplace_back(head == &s_first ? "libFini" : "libFini with a foreign head");
}
#endif
}
