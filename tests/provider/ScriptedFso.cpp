#include "ScriptedFso.h"

#include "Error.h"

#include <algorithm>
#include <dlfcn.h>

FsoScript g_script;

namespace {

fso_info s_second = {"scripted-two", "2.0", "b2", nullptr};
fso_info s_first = {"scripted", "1.0", "b1", &s_second};

uint32_t answer(const char* call) {
    g_script.calls.emplace_back(call);
    return g_script.status[call];
}

class ScriptedObject : public IFileSystemObjectV1 {
  public:
    bool recognise() override { return answer("recognise") == FSO_OK; }
    uint32_t rootIndex(uint64_t* index) override {
        const uint32_t status = answer("rootIndex");
        if (status == FSO_OK) {
            *index = 2;
        }
        return status;
    }
    uint32_t statFs(fso_fs_record* record) override {
        *record = g_script.fs;
        return answer("statFs");
    }
    uint32_t openFile(uint64_t /*index*/, fso_file_record* record, uint32_t* /*flags*/) override {
        *record = g_script.file;
        if (g_script.thrown != 0) {
            throw OrmaError(g_script.thrown, "scripted", 1, "openFile");
        }
        return answer("openFile");
    }
    uint32_t readDir(uint64_t /*index*/, fso_dir_request* request, uint32_t* entryCount) override {
        g_script.dirRequest = *request;
        request->resultCount = 48;
        *entryCount = 3;
        return answer("readDir");
    }
    uint32_t getExtents(uint64_t /*index*/, uint64_t offset, fso_extent* extents, uint32_t capacity,
                        uint32_t* count) override {
        g_script.offset = offset;
        std::copy_n(g_script.extents.begin(), std::min<size_t>(capacity, g_script.extents.size()),
                    extents);
        *count = g_script.extentCount;
        return answer("getExtents");
    }
    uint32_t getMetadata(uint64_t /*index*/, fso_metadata* metadata) override {
        *metadata = {{1, 2}, {3, 4}, {5, 6}};
        return answer("getMetadata");
    }
    uint32_t closeFile(uint64_t /*index*/) override { return answer("closeFile"); }
};

} // namespace

extern "C" {

void* __real_dlopen(const char* path, int mode);
void* __real_dlsym(void* library, const char* name);

void* __wrap_dlopen(const char* /*path*/, int mode) {
    return g_script.lacks.contains("libfso.so") ? nullptr : __real_dlopen(nullptr, mode);
}

void* __wrap_dlsym(void* library, const char* name) {
    return g_script.lacks.contains(name) ? nullptr : __real_dlsym(library, name);
}

const fso_info* libInit(const char* directory) {
    g_script.directory = directory;
    return answer("libInit") == FSO_OK ? &s_first : nullptr;
}

uint32_t openFileSystemObject(IFileSystemObjectV1** object, uint32_t sectorSize,
                              fso_read_callback read, void* context, fso_log_callback log,
                              fso_keep_alive_callback keepAlive) {
    static ScriptedObject s_object;
    g_script.sectorSize = sectorSize;
    g_script.read = read;
    g_script.readContext = context;
    g_script.log = log;
    g_script.keepAlive = keepAlive;
    *object = &s_object;
    return answer("openFileSystemObject");
}

uint32_t closeFileSystemObject(IFileSystemObjectV1** /*object*/) {
    return answer("closeFileSystemObject");
}

void libFini(const fso_info* head) {
    answer(head == &s_first ? "libFini" : "libFini with a foreign head");
}
}
