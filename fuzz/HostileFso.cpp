#include "HostileFso.h"

#include "Require.h"
#include "fso/IFileSystemObjectV1.h"

#include <algorithm>
#include <dlfcn.h>
#include <memory>
#include <set>
#include <string>

bool g_libraryIsMissing = false;

namespace {

bool s_wasMissed = false;

ByteSource* s_in = nullptr;
long s_openFiles = 0;
std::set<IFileSystemObjectV1*> s_claimed;   // to be closed by the provider
std::set<IFileSystemObjectV1*> s_unclaimed; // left to the library
fso_log_callback s_log = nullptr;

// Success is likely; any other number possible.
std::uint32_t status() {
    const std::uint8_t choice = s_in->byte();
    if (choice < 0xA0) {
        return FSO_OK;
    }
    return choice < 0xF8 ? choice % 14 : s_in->take<std::uint32_t>();
}

void talk() {
    std::string line = s_in->text();
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '%' || c == '\0'; }, '.');
    s_log(static_cast<fs_log_level_t>(s_in->take<std::int8_t>()), (line + "100%%\n").c_str());
}

// Any bytes, zeros past the input's end.
template <typename Record>
void fill(Record& record) {
    record = s_in->take<Record>();
}

class HostileObject final : public IFileSystemObjectV1 {
  public:
    bool recognise() override {
        const bool answer = s_in->byte() < 0xE0;
        (answer ? s_claimed : s_unclaimed).insert(this);
        return answer;
    }
    std::uint32_t rootIndex(std::uint64_t* index) override {
        *index = s_in->number();
        return status();
    }
    std::uint32_t statFs(fso_fs_record* record) override {
        const std::uint32_t answer = status();
        *record = {};
        record->fileCount = 100;
        if (s_in->flag()) {
            fill(*record);
            record->volumeName[sizeof record->volumeName - 1] = '\0';
        }
        return answer;
    }
    std::uint32_t openFile(std::uint64_t index, fso_file_record* record,
                           std::uint32_t* flags) override {
        ++s_openFiles;
        const std::uint8_t kind = s_in->byte();
        record->mode = std::uint64_t{kind & 15U} << 12;
        record->index = index;
        if ((kind & 16) != 0) {
            fill(*record);
        }
        if ((kind & 32) != 0) {
            *flags = s_in->take<std::uint32_t>();
        }
        if ((kind & 64) != 0) {
            talk();
        }
        return status();
    }
    std::uint32_t readDir(std::uint64_t /*index*/, fso_dir_request* request,
                          std::uint32_t* entryCount) override {
        const std::size_t size = std::min<std::size_t>(request->bufferSize, s_in->byte());
        if (request->buffer != 0) {
            const auto bytes = s_in->takeBytes(size);
            std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t*>(request->buffer));
        }
        request->resultCount = s_in->number();
        *entryCount = s_in->byte();
        return status();
    }
    std::uint32_t getExtents(std::uint64_t /*index*/, std::uint64_t offset, fso_extent* extents,
                             std::uint32_t capacity, std::uint32_t* count) override {
        const std::uint8_t what = s_in->byte();
        for (std::uint32_t i = 0; i < std::min<std::uint32_t>(capacity, 1000); ++i) {
            extents[i] = {offset + i, std::uint64_t{what} << (i % 60), what, 0};
            if (i < 3 && (what & 1) != 0) {
                fill(extents[i]);
            }
        }
        const std::uint8_t choice = s_in->byte();
        *count = std::min<std::uint32_t>(choice % 8, std::min<std::uint32_t>(capacity, 1000));
        if (choice >= 0xE0) {
            *count = std::max(s_in->take<std::uint32_t>(), capacity + 1); // too many
        }
        return status();
    }
    std::uint32_t getMetadata(std::uint64_t /*index*/, fso_metadata* metadata) override {
        fill(*metadata);
        return status();
    }
    std::uint32_t closeFile(std::uint64_t /*index*/) override {
        --s_openFiles;
        return status();
    }
};

} // namespace

void scriptLibrary(ByteSource& in) {
    s_in = &in;
    s_openFiles = 0;
    g_libraryIsMissing = false;
    s_wasMissed = false;
}

void settleLibrary() {
    require(s_openFiles == 0, "each opened file is closed once");
    // A manager that could not load the library once more has lost its handle, and leaves open what
    // it claimed before.
    require(s_claimed.empty() || s_wasMissed, "each claimed volume is closed");
    s_unclaimed.merge(s_claimed);
    for (IFileSystemObjectV1* object : s_unclaimed) {
        delete static_cast<HostileObject*>(object);
    }
    s_unclaimed.clear();
}

extern "C" {

void* __real_dlopen(const char* path, int mode);

// The library's functions are found in the program itself.
void* __wrap_dlopen(const char* /*path*/, int mode) {
    s_wasMissed |= g_libraryIsMissing;
    return g_libraryIsMissing ? nullptr : __real_dlopen(nullptr, mode);
}

const fso_info* libInit(const char* directory) {
    static const fso_info s_second = {"second", "2", "b", nullptr};
    static const fso_info s_first = {"first", "1", "a", &s_second};
    require(std::string(directory).ends_with('/'), "the library hears its folder");
    return s_in->byte() < 0x40 ? nullptr : &s_first;
}

std::uint32_t openFileSystemObject(IFileSystemObjectV1** object, std::uint32_t /*sectorSize*/,
                                   fso_read_callback read, void* context, fso_log_callback log,
                                   fso_keep_alive_callback keepAlive) {
    s_log = log;
    const std::uint8_t choice = s_in->byte();
    if ((choice & 1) != 0 && read != nullptr) {
        char sector[512];
        read(context, s_in->number(), sizeof sector, sector);
    }
    if ((choice & 2) != 0 && keepAlive != nullptr) {
        keepAlive(context);
    }
    if ((choice & 4) != 0) {
        talk();
    }
    const std::uint32_t answer = status();
    if (answer == FSO_OK && choice < 0xF0) {
        *object = std::make_unique<HostileObject>().release();
    }
    return answer;
}

std::uint32_t closeFileSystemObject(IFileSystemObjectV1** object) {
    require(s_claimed.erase(*object) == 1, "a volume is closed once");
    delete static_cast<HostileObject*>(*object);
    *object = nullptr;
    return status();
}

void libFini(const fso_info* head) {
    require(head != nullptr, "the library ends with what it began with");
}
}
