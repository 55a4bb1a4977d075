// The 24 entry points as a random host uses them: any order of calls, instances that are null or
// not the provider's, objects of the wrong kind or foreign, arguments left out, over a library that
// answers anything. Not done is what no code is promised for: to use what was closed.
//
// Input: calls, each with its choices, and in between what the library answers.
#include "ByteSource.h"
#include "HostileFso.h"
#include "Listener.h"
#include "Require.h"
#include "kmhost.h"
#include "kmp/rvp_map.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

// The text of a system error is dropped at each call and counts on it; a run of millions of calls
// takes it from one place.
constexpr std::size_t DROPPED_TEXT_SIZE = 260;
alignas(16) static char s_droppedText[DROPPED_TEXT_SIZE];

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return size == DROPPED_TEXT_SIZE ? s_droppedText : std::malloc(size);
}
void* operator new[](std::size_t size) {
    void* room = std::malloc(size);
    if (room == nullptr) {
        throw std::bad_alloc();
    }
    return room;
}
void operator delete[](void* room) noexcept {
    if (room != s_droppedText) {
        std::free(room);
    }
}
void operator delete[](void* room, std::size_t) noexcept {
    operator delete[](room);
}

extern "C" {
const char* __asan_default_options() {
    return "allocator_may_return_null=1"; // negative counts ask for more memory than there is
}
const char* __lsan_default_suppressions() {
    return "leak:RvpFsoCoordinator::errorOf\n" // texts stay good as long as the process
           "leak:km_objid\n";                  // the host's id table
}
}

namespace {

constexpr std::size_t MAX_CALLS = 64;
constexpr std::size_t MAX_INSTANCES = 3;
constexpr std::size_t MAX_OBJECTS = 12;
constexpr std::size_t VOLUME_SIZE = 4096;

struct OpenObject {
    kmp_obj* record;
    std::size_t instance;
    kmp_obj* fileSystem; // null: it is one
};

bool readVolume(void* context, unsigned long offset, unsigned long length, char* buffer) {
    if (offset > VOLUME_SIZE || length > VOLUME_SIZE - offset) {
        return false;
    }
    std::memcpy(buffer, static_cast<const char*>(context) + offset, length);
    return true;
}
bool optimize(void*, unsigned long, unsigned long, bool) {
    return true;
}
bool extent(void*, unsigned long, unsigned long, unsigned long&, bool&) {
    return true;
}
int keepAlive(void*) {
    return 1;
}

struct FreeId {
    void operator()(struct km_objid* id) const { km_free_objid(id); }
};
using Id = std::unique_ptr<struct km_objid, FreeId>;

class Host {
  public:
    explicit Host(ByteSource& in) : m_in(in) {
        m_foreignBytes.fill(0x5A5A5A5A5A5A5A5A);
        m_foreignRecord.provider = m_foreignBytes.data();
        m_emptyRecord.name = m_volume.data();
    }
    ~Host() {
        for (std::size_t number = 0; number < MAX_INSTANCES; ++number) {
            finish(number);
        }
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void call() {
        constexpr void (Host::*CALLS[])() = {
            &Host::init,
            &Host::fini,
            &Host::claimId,
            &Host::claimVolume,
            &Host::openId,
            &Host::openFileIndex,
            &Host::close,
            &Host::checkConfigId,
            &Host::getConfigId,
            &Host::getExtent,
            &Host::getNames,
            &Host::getObjProp,
            &Host::ask<rvp_map_get_obj_stats, kmp_stats>,
            &Host::objCtl,
            &Host::readDir,
            &Host::ask<rvp_map_stat_file, kmp_file>,
            &Host::ask<rvp_map_stat_fs, kmp_fs>,
            &Host::excludeUnallocated,
            &Host::setRead,
            &Host::setOptimize,
            &Host::setExtent,
            &Host::setSectorSize,
            &Host::setKeepAlive,
            &Host::errMsg,
            &Host::loseLibrary,
        };
        const std::uint8_t choice = m_in.byte();
        m_leftOut = choice >= 0xC8 ? m_in.byte() : 0;
        (this->*CALLS[choice % std::size(CALLS)])();
    }

    // What every session begins with, so that short inputs get somewhere.
    void begin() {
        startInstance(0);
        rvp_map_set_volume_read_callback(m_instances[0], readVolume, m_volume.data());
    }

  private:
    // An instance of this call: mostly one that is there.
    RvpInstance* instance() {
        const std::uint8_t choice = m_in.byte();
        m_number = choice % MAX_INSTANCES;
        if (choice >= 0xF8) {
            m_isForeign = true;
            return choice >= 0xFC ? nullptr : reinterpret_cast<RvpInstance*>(&m_foreignBytes);
        }
        if (m_instances[m_number] == nullptr) {
            m_number = 0;
        }
        m_isForeign = m_instances[m_number] == nullptr;
        return m_instances[m_number];
    }

    // An object of this call, possibly none of the provider's.
    kmp_obj* object() {
        const std::uint8_t choice = m_in.byte();
        m_isValidObject = choice < 0xF0 && !m_objects.empty();
        if (m_isValidObject) {
            return m_objects[choice % m_objects.size()].record;
        }
        kmp_obj* const none[] = {nullptr, &m_emptyRecord, &m_foreignRecord};
        return none[choice % std::size(none)];
    }

    // An argument, now and then left out. The choice is made once a call, because compilers take
    // arguments in different orders.
    template <typename Argument>
    Argument* maybe(Argument* argument, unsigned place = 0) const {
        return (m_leftOut >> place & 1) != 0 ? nullptr : argument;
    }

    int check(int result) const {
        require((result >= 0 && result <= 23) || (result >= 2048 && result <= 2074) ||
                    (result >= KMP_ERRNO_BASE && result < KMP_ERRNO_BASE + 200),
                "a result is a code");
        require(m_isForeign == (result == KMP_ENOTINIT) || result == KMP_ENOTINIT,
                "a foreign instance is told by its code");
        return result;
    }
    int checkForObject(int result) const {
        require(m_isForeign || m_isValidObject || result == KMP_EINVAL,
                "a foreign object is told by its code");
        return check(result);
    }

    Id id() {
        const std::string name = volumeName();
        Id made(km_objid(name.c_str(), static_cast<int>(name.size() + 1), KM_OBJID_FSO));
        return m_in.byte() >= 0xF8 ? nullptr : std::move(made);
    }
    std::string volumeName() {
        const char* const names[] = {"vol1", "VOL1", "vol2", ""};
        const std::uint8_t choice = m_in.byte();
        return choice >= 0xFC ? std::string(400, 'v') : names[choice % std::size(names)];
    }

    void startInstance(std::size_t number) {
        int version = 0;
        kmp_ehandler* handler = m_in.flag() ? &m_handler : nullptr;
        require(rvp_map_init(&m_instances[number], handler, &version) == KMP_OK && version == 2,
                "an instance starts");
    }
    void init() {
        const std::size_t number = m_in.below(MAX_INSTANCES);
        if (m_instances[number] == nullptr) {
            startInstance(number);
        }
    }
    void finish(std::size_t number) {
        for (const bool files : {true, false}) {
            for (std::size_t i = m_objects.size(); i-- > 0;) {
                if (m_objects[i].instance == number &&
                    (m_objects[i].fileSystem != nullptr) == files) {
                    m_number = number;
                    m_isForeign = false;
                    check(rvp_map_close(m_instances[number], m_objects[i].record));
                    m_objects.erase(m_objects.begin() + static_cast<std::ptrdiff_t>(i));
                }
            }
        }
        if (m_instances[number] != nullptr) {
            rvp_map_fini(m_instances[number]);
            m_instances[number] = nullptr;
        }
    }
    void fini() {
        RvpInstance* of = instance();
        if (m_isForeign) {
            rvp_map_fini(of);
        } else {
            finish(m_number);
        }
    }

    void claimId() {
        RvpInstance* of = instance();
        const Id named = id();
        const int answer = rvp_map_claim_id(of, named.get());
        require(answer == KM_CLAIM_NONE || (answer == KM_CLAIM_PRIMARY && !m_isForeign && named),
                "a claim of an id has its answers");
    }
    void claimVolume() {
        RvpInstance* of = instance();
        const std::string name = volumeName();
        const int answer = rvp_map_claim_volume(of, maybe(name.c_str()));
        require(answer == KM_CLAIM_NONE || (answer == KM_CLAIM_SECONDARY && !m_isForeign),
                "a claim of a volume has its answers");
    }

    void keep(kmp_obj* record, kmp_obj* fileSystem) {
        require(record != nullptr && record->provider != nullptr && record->id != nullptr,
                "an opened object has its record");
        m_objects.push_back({record, m_number, fileSystem});
    }
    void openId() {
        if (m_objects.size() >= MAX_OBJECTS) {
            return;
        }
        RvpInstance* of = instance();
        const Id named = id();
        kmp_obj* opened = nullptr;
        int error = 0;
        const int flags = m_in.take<std::int8_t>() ^ KMP_OPEN_READ;
        if (check(rvp_map_open_id(of, named.get(), nullptr, maybe(&opened), flags, maybe(&error, 1),
                                  nullptr)) == KMP_OK) {
            keep(opened, nullptr);
        }
    }
    // A file lives within its file system's instance, whichever instance opens it.
    void openFileIndex() {
        if (m_objects.size() >= MAX_OBJECTS) {
            return;
        }
        RvpInstance* of = instance();
        kmp_obj* fileSystem = object();
        kmp_obj* opened = nullptr;
        int error = 0;
        const std::uint64_t index = m_in.number();
        const int flags = m_in.take<std::int8_t>() ^ KMP_OPEN_READ;
        if (checkForObject(rvp_map_open_file_index(of, fileSystem, index, maybe(&opened), flags,
                                                   maybe(&error, 1), nullptr)) == KMP_OK) {
            m_number = std::find_if(m_objects.begin(), m_objects.end(), [&](const OpenObject& one) {
                           return one.record == fileSystem;
                       })->instance;
            keep(opened, fileSystem);
        }
    }
    // Files go before their file system.
    void close() {
        RvpInstance* of = instance();
        kmp_obj* closed = object();
        const bool isInUse = m_isValidObject && std::any_of(m_objects.begin(), m_objects.end(),
                                                            [&](const OpenObject& one) {
                                                                return one.fileSystem == closed;
                                                            });
        if (isInUse) {
            return;
        }
        checkForObject(rvp_map_close(of, closed));
        if (m_isValidObject && !m_isForeign) {
            std::erase_if(m_objects, [&](const OpenObject& one) { return one.record == closed; });
        }
    }

    void checkConfigId() {
        int result = 0;
        RvpInstance* of = instance();
        checkForObject(rvp_map_check_configid(of, object(), maybe(&result)));
    }
    void getConfigId() {
        int result = 0;
        RvpInstance* of = instance();
        kmp_obj* from = object();
        auto* in = reinterpret_cast<kmp_configid*>(m_volume.data());
        checkForObject(rvp_map_get_configid(of, from, maybe(in), maybe(in, 1), maybe(&result, 2)));
    }
    void getExtent() {
        constexpr int CAPACITIES[] = {-1, 0, 1, 2, 7, 64, INT32_MIN, 700};
        RvpInstance* of = instance();
        kmp_obj* from = object();
        const int capacity = CAPACITIES[m_in.below(std::size(CAPACITIES))];
        std::vector<kmp_extent> extents(static_cast<std::size_t>(std::max(capacity, 1)));
        int returned = 0;
        int done = 0;
        auto* node = reinterpret_cast<kmp_mapdomain_node*>(m_volume.data());
        const std::uint64_t offset = m_in.number();
        if (checkForObject(rvp_map_get_extent(of, from, offset, maybe(extents.data()), capacity,
                                              maybe(&returned, 1), maybe(&done, 2),
                                              maybe(node, 3))) == KMP_OK) {
            require(returned >= 1 && returned <= capacity && done == 1, "extents are counted");
        }
    }
    void getNames() {
        kmp_name* names = nullptr;
        int count = 0;
        RvpInstance* of = instance();
        kmp_obj* from = object();
        checkForObject(rvp_map_get_names(of, from, 0, maybe(&names), maybe(&count, 1)));
    }
    void getObjProp() {
        kmp_obj_prop* property = nullptr;
        RvpInstance* of = instance();
        kmp_obj* from = object();
        if (checkForObject(rvp_map_get_obj_prop(of, from, maybe(&property))) == KMP_OK) {
            require(property->kind == KMP_PROP_FILE || property->kind == KMP_PROP_FILE_SYSTEM,
                    "a property has its kind");
        }
    }
    // An entry point that fills one record about an object.
    template <auto Function, typename Record>
    void ask() {
        Record record;
        RvpInstance* of = instance();
        kmp_obj* from = object();
        checkForObject(Function(of, from, maybe(&record)));
    }
    void objCtl() {
        constexpr int COMMANDS[] = {1, 2, 3, 1000, 1001, 1002, 1003, 1004, 999};
        kmp_extfile room = {}; // as large as any argument
        RvpInstance* of = instance();
        kmp_obj* from = object();
        const std::uint8_t choice = m_in.byte();
        const int command =
            choice < 0xF8 ? COMMANDS[choice % std::size(COMMANDS)] : m_in.take<std::int32_t>();
        const int result = checkForObject(rvp_map_objctl(of, from, command, maybe(&room)));
        if (result == KMP_OK && command == KMP_OCVOLUMENAME) {
            const char* name = nullptr;
            std::memcpy(&name, &room, sizeof name);
            require(std::strlen(name) < 32, "a volume's name ends");
        }
        if (result == KMP_OK && command == KMP_OCGETEXTFILE) {
            const char* text = reinterpret_cast<const char*>(room.text.address);
            require(std::strlen(text) + 1 == room.text.length, "a text has its length");
        }
    }
    void readDir() {
        RvpInstance* of = instance();
        kmp_obj* from = object();
        std::vector<char> buffer(m_in.byte());
        kmp_io_req request = {};
        request.buffer = reinterpret_cast<std::uint64_t>(buffer.data());
        request.bufferSize = buffer.size();
        request.position = m_in.number();
        unsigned long position = 0;
        checkForObject(rvp_map_readdir(of, from, maybe(&request), maybe(&position, 1)));
    }
    void excludeUnallocated() {
        RvpInstance* of = instance();
        checkForObject(rvp_map_fs_exclude_unallocated(of, object()));
    }

    void setRead() {
        RvpInstance* of = instance();
        check(rvp_map_set_volume_read_callback(of, maybe(readVolume), m_volume.data()));
    }
    void setOptimize() {
        RvpInstance* of = instance();
        check(rvp_map_set_volume_optimize_callback(of, maybe(optimize), nullptr));
    }
    void setExtent() {
        RvpInstance* of = instance();
        check(rvp_map_set_volume_extent_callback(of, maybe(extent), nullptr));
    }
    void setSectorSize() {
        constexpr unsigned SIZES[] = {0, 512, 4096, 1024};
        RvpInstance* of = instance();
        const unsigned size = SIZES[m_in.below(std::size(SIZES))];
        const int result = check(rvp_map_set_logical_sector_size(of, size));
        require(m_isForeign || (result == KMP_OK) == (size == 512 || size == 4096),
                "a sector has one of two sizes");
    }
    void setKeepAlive() {
        RvpInstance* of = instance();
        check(rvp_map_set_keep_alive_callback(of, maybe(keepAlive)));
    }
    void errMsg() {
        RvpInstance* of = instance();
        char* text = nullptr;
        const int code = m_in.take<std::int16_t>();
        if (check(rvp_map_errmsg(of, code, maybe(&text))) == KMP_OK) {
            require(text != nullptr && std::strlen(text) < 200, "a code has a text");
        }
    }
    void loseLibrary() { g_libraryIsMissing = m_in.byte() >= 0xE0; }

    ByteSource& m_in;
    kmp_ehandler m_handler{hear};
    std::array<RvpInstance*, MAX_INSTANCES> m_instances{};
    std::vector<OpenObject> m_objects;
    std::array<char, VOLUME_SIZE> m_volume{};
    std::array<std::uint64_t, 64> m_foreignBytes{};
    kmp_obj m_foreignRecord{};
    kmp_obj m_emptyRecord{};
    // Of the current call.
    std::size_t m_number = 0;
    unsigned m_leftOut = 0; // a bit for each argument
    bool m_isForeign = false;
    bool m_isValidObject = false;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    km_debug_level = 1;
    kmhost_log_to(nullptr, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string s_longRoot(5000, 'r');
    ByteSource in(data, size);
    scriptLibrary(in);
    const std::uint8_t setting = in.byte();
    km_debug_level = 1 | (setting & 7) << 28;
    km_root = (setting & 8) != 0 ? s_longRoot.c_str() : "/root";
    {
        Host host(in);
        host.begin();
        for (std::size_t calls = 0; !in.empty() && calls < MAX_CALLS; ++calls) {
            host.call();
        }
    }
    settleLibrary();
    return 0;
}
