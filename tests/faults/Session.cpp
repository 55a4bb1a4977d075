#include "Session.h"

#include "fso/IFileSystemObjectV1.h"
#include "support/Files.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <sys/xattr.h>

namespace {

constexpr char VOLUME_NAME[] = "VOLUME";
constexpr std::size_t MOST_FILES = 12;
constexpr std::size_t PAGE = 512; // of a directory; small, so that there are several
constexpr int EXTENTS = 4;
constexpr uint64_t BLOCK = 1024;
constexpr int NO_MEMORY = -1; // in place of a code: the standard exception
// An object of the reference library that did not recognise its volume: itself and its windows.
constexpr long DROPPED_OBJECT_BLOCKS = 3;

template <typename Record>
std::string bytesOf(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

template <typename Record>
std::string bytesOf(Record* record) {
    return record != nullptr ? bytesOf(*record) : "none";
}

std::string bytesOf(const kmp_extfile& metadata) {
    std::string bytes;
    for (const auto& piece : {metadata.first, metadata.second, metadata.third, metadata.text}) {
        bytes.append(reinterpret_cast<const char*>(piece.address), piece.length).append("|");
    }
    return bytes;
}

void fillFolder(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder / "many");
    for (int i = 0; i < 60; ++i) {
        writeFile(folder / "many" / (std::to_string(i) + std::string(30, 'n')), "content");
    }
    writeFile(folder / "tiny", std::string(100, 't'));
    writeFile(folder / "whole", std::string(300'000, 'w'));
    std::ofstream sparse(folder / "sparse");
    for (int i = 0; i < 40; ++i) { // every other block, as far as indirect blocks of two levels
        sparse.seekp(i * 16'384);
        sparse << std::string(1024, static_cast<char>('a' + i % 26));
    }
    std::filesystem::create_symlink("tiny", folder / "short link");
    std::filesystem::create_symlink(std::string(200, 'l'), folder / "long link");
    ::setxattr((folder / "whole").c_str(), "user.value", std::string(300, 'v').data(), 300, 0);
}

// A call of an entry point, whose allocations may fail.
template <typename Function, typename... Arguments>
int ask(Function function, Arguments... arguments) {
    const FaultyHeap::Watch watch;
    try {
        return function(arguments...);
    } catch (const std::bad_alloc&) {
        return NO_MEMORY;
    }
}

int listDirectory(RvpInstance* instance, kmp_obj* file, std::vector<uint64_t>& indices,
                  std::string& names) {
    alignas(8) char page[PAGE];
    kmp_io_req request = {};
    indices.clear();
    for (;;) {
        request.buffer = reinterpret_cast<uint64_t>(page);
        request.bufferSize = PAGE;
        unsigned long count = 0;
        const int code = ask(rvp_map_readdir, instance, file, &request, &count);
        if (code != 0 || count == 0) {
            return code;
        }
        for (std::size_t at = 0; at < request.resultCount;) {
            fso_dir_entry entry;
            std::memcpy(&entry, page + at, sizeof entry);
            names.append(page + at + FSO_DIR_ENTRY_NAME_OFFSET, entry.nameLength);
            indices.push_back(entry.index);
            request.position = entry.next;
            at += entry.recordLength;
        }
    }
}

// Where each block lies: after a fault the runs may be cut elsewhere.
int listExtents(RvpInstance* instance, kmp_obj* file, std::string& content) {
    unsigned long offset = 0;
    for (uint32_t flags = 0; (flags & FSO_EXTENT_LAST) == 0;) {
        kmp_extent extents[EXTENTS] = {};
        int count = 0;
        int done = 0;
        auto* node = reinterpret_cast<kmp_mapdomain_node*>(&done);
        const int code =
            ask(rvp_map_get_extent, instance, file, offset, extents, EXTENTS, &count, &done, node);
        if (code != 0) {
            return code;
        }
        for (const kmp_extent* extent = extents; extent != extents + count; ++extent) {
            for (uint64_t at = 0; at < extent->length; at += BLOCK) {
                content +=
                    bytesOf((extent->flags & FSO_EXTENT_HOLE) != 0 ? 0 : extent->offset + at);
            }
            offset += extent->length;
            flags = extent->flags;
        }
    }
    content += bytesOf(offset);
    return 0;
}

} // namespace

std::string makeVolume(const std::string& type) {
    const TemporaryFolder folder;
    fillFolder(folder / "source");
    const std::string options = type == "ext4" ? " -I 256 -O inline_data" : " -I 128";
    outputOf("mke2fs -q -F -b 1024 -t " + type + options + " -d " + folder / "source" + " " +
             folder / "image" + " 4M 2>&1");
    return readFile(folder / "image");
}

void Session::run() {
    start();
    claim();
    walkAndFinish();
}

void Session::walkAndFinish() {
    openVolume();
    std::vector<uint64_t> indices = {2};
    for (std::size_t i = 0; i < indices.size() && i < MOST_FILES; ++i) {
        const std::vector<uint64_t> found = visit(indices[i]);
        indices.insert(indices.end(), found.begin(), found.end());
    }
    closeVolume();
    for (const int code : {KMP_EINVAL + 0, 99}) {
        query<char*>("text", {NO_MEMORY}, {}, rvp_map_errmsg, code);
    }
    finish();
}

bool Session::read(void* self, unsigned long offset, unsigned long length, char* buffer) {
    auto& session = *static_cast<Session*>(self);
    return !session.readFault.strikesNow() && offset <= session.m_volume.size() &&
           session.m_volume.copy(buffer, length, offset) == length;
}

template <typename Call>
void Session::step(const std::string& name, const Codes& ofMemory, const Codes& ofRead, Call call) {
    std::string content;
    int code = call(content);
    const Codes promised = FaultyHeap::fault.hasStruck() ? ofMemory
                           : readFault.hasStruck()       ? ofRead
                                                         : Codes();
    if (std::ranges::count(promised, code) != 0) {
        FaultyHeap::fault.number = 0;
        readFault.number = 0;
        content.clear();
        code = call(content);
    }
    const std::size_t hash = std::hash<std::string>()(content);
    transcript.push_back(name + ": " + std::to_string(code) + ", " + std::to_string(hash));
}

// A step that always has its usual answer.
template <typename Function, typename... Arguments>
void Session::perform(const std::string& name, Function function, Arguments... arguments) {
    step(name, {}, {}, [&](std::string&) { return ask(function, m_instance, arguments...); });
}

// A step that fills its last argument.
template <typename Record, typename Function, typename... Arguments>
Record Session::query(const std::string& name, const Codes& ofMemory, const Codes& ofRead,
                      Function function, Arguments... arguments) {
    Record record = {};
    step(name, ofMemory, ofRead, [&](std::string& content) {
        const int code = ask(function, m_instance, arguments..., &record);
        content = code == 0 ? bytesOf(record) : "";
        return code;
    });
    return record;
}

void Session::start() {
    step("init", {KMP_ESYSTEM, NO_MEMORY}, {}, [&](std::string&) {
        int version = 0;
        return ask(rvp_map_init, &m_instance, nullptr, &version);
    });
    perform("sector size", rvp_map_set_logical_sector_size, 512U);
    perform("read callback", rvp_map_set_volume_read_callback, read, this);
    perform("keep-alive callback", rvp_map_set_keep_alive_callback, [](void*) { return 0; });
}

void Session::claim() {
    step("claim volume", {KM_CLAIM_NONE, NO_MEMORY}, {KM_CLAIM_NONE}, [&](std::string&) {
        const int answer = ask(rvp_map_claim_volume, m_instance, VOLUME_NAME);
        mayKeep = answer == KM_CLAIM_NONE ? DROPPED_OBJECT_BLOCKS : mayKeep;
        return answer;
    });
}

void Session::openVolume() {
    struct km_objid* id = km_objid(VOLUME_NAME, sizeof VOLUME_NAME, KM_OBJID_FSO);
    perform("claim id", rvp_map_claim_id, id);
    step("open id", {KMP_EINVAL, NO_MEMORY}, {}, [&](std::string&) {
        int flags = 0;
        return ask(rvp_map_open_id, m_instance, id, nullptr, &m_fileSystem, KMP_OPEN_READ, &flags,
                   nullptr);
    });
    km_free_objid(id);
    query<kmp_fs>("stat fs", {}, {}, rvp_map_stat_fs, m_fileSystem);
    query<uint64_t>("root index", {}, {}, rvp_map_objctl, m_fileSystem, KMP_OCROOTINDEX);
    query<kmp_obj_prop*>("volume property", {KMP_OK}, {}, rvp_map_get_obj_prop, m_fileSystem);
}

std::vector<uint64_t> Session::visit(uint64_t index) {
    kmp_obj* file = nullptr;
    step("open file", {KMP_EINVAL, KMP_ESYSTEM}, {KMP_ESYSTEM}, [&](std::string&) {
        int flags = 0;
        return ask(rvp_map_open_file_index, m_instance, m_fileSystem, index, &file, KMP_OPEN_READ,
                   &flags, nullptr);
    });
    const auto attributes = query<kmp_file>("stat file", {}, {}, rvp_map_stat_file, file);
    query<kmp_obj_prop*>("file property", {KMP_OK}, {}, rvp_map_get_obj_prop, file);
    std::vector<uint64_t> found;
    if (attributes.type == KMP_FTYPE_DIRECTORY) {
        step("list", {KMP_ENOMEM}, {KMP_ESYSTEM},
             [&](std::string& content) { return listDirectory(m_instance, file, found, content); });
    }
    step("extents", {KMP_EINTERNAL, KMP_EINVAL, KMP_ENOMEM}, {KMP_EINTERNAL, KMP_ESYSTEM},
         [&](std::string& content) { return listExtents(m_instance, file, content); });
    query<kmp_extfile>("metadata", {KMP_ENOMEM}, {KMP_ESYSTEM}, rvp_map_objctl, file,
                       KMP_OCGETEXTFILE);
    perform("close file", rvp_map_close, file);
    return found;
}

void Session::closeVolume() {
    perform("close volume", rvp_map_close, m_fileSystem);
}

void Session::finish() {
    perform("fini", [](RvpInstance* instance) {
        rvp_map_fini(instance);
        return 0;
    });
}
