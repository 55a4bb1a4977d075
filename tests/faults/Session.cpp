#include "Session.h"

#include "FaultyHeap.h"
#include "fso/IFileSystemObjectV1.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <span>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <utility>

namespace {

constexpr std::size_t PAGE = 512; // of a directory; small, so that there are several
constexpr int EXTENTS = 4;
// An object of the reference library that did not recognise its volume: itself and its windows.
constexpr int DROPPED_OBJECT_BLOCKS = 3;

template <typename Record>
std::string bytesOf(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

std::string bytesOf(const kmp_extfile_piece& piece) {
    return {reinterpret_cast<const char*>(piece.address), piece.length};
}

bool continues(const kmp_extent& run, const kmp_extent& next) {
    const bool hole = (run.flags & FSO_EXTENT_HOLE) != 0;
    return run.flags == (next.flags & ~uint32_t{FSO_EXTENT_LAST}) &&
           (hole || next.offset == run.offset + run.length);
}

bool isAmong(const std::vector<std::string>& codes, const std::string& code) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

void fillFolder(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder / "many");
    for (int i = 0; i < 60; ++i) {
        std::ofstream(folder / "many" / (std::to_string(i) + std::string(30, 'n'))) << i;
    }
    std::ofstream(folder / "tiny") << std::string(100, 't');
    std::ofstream(folder / "whole") << std::string(300'000, 'w');
    std::ofstream sparse(folder / "sparse");
    for (int i = 0; i < 40; ++i) { // every other block, as far as indirect blocks of two levels
        sparse.seekp(i * 16'384);
        sparse << std::string(1024, static_cast<char>('a' + i % 26));
    }
    std::filesystem::create_symlink("tiny", folder / "short link");
    std::filesystem::create_symlink(std::string(200, 'l'), folder / "long link");
    const std::string value(300, 'v');
    ::setxattr((folder / "whole").c_str(), "user.value", value.data(), value.size(), 0);
}

} // namespace

std::string makeVolume(const std::string& options) {
    std::string folder = (std::filesystem::temp_directory_path() / "faults-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        throw std::runtime_error("cannot make " + folder);
    }
    fillFolder(folder + "/source");
    const std::string command = "PATH=$PATH:/usr/sbin:/sbin mke2fs -q -F " + options + " -d " +
                                folder + "/source " + folder + "/image 4M >/dev/null 2>&1";
    std::string bytes;
    if (std::system(command.c_str()) == 0) {
        std::ifstream image(folder + "/image", std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(image), {});
    }
    std::filesystem::remove_all(folder);
    return bytes.empty() ? throw std::runtime_error(command + " failed") : bytes;
}

MemoryFaults::MemoryFaults(long number, bool onwards) : Faults(Kind::MEMORY) {
    FaultyHeap::fail(number, onwards);
}

void MemoryFaults::inside(bool begins) {
    FaultyHeap::watch(begins);
}

long MemoryFaults::strikes() const {
    return FaultyHeap::failures();
}

void MemoryFaults::heal() {
    FaultyHeap::heal();
}

bool ReadFaults::readFails() {
    ++m_counted;
    const bool now = m_number != 0 && (m_onwards ? m_counted >= m_number : m_counted == m_number);
    m_strikes += now ? 1 : 0;
    return now;
}

Session::Session(const std::string& volume, Faults& faults, const Transcript* expected)
    : m_volume(volume), m_faults(faults), m_expected(expected), m_handler{{hear}, this} {}

Session::~Session() {
    m_faults.heal();
    if (m_fileSystem != nullptr) {
        rvp_map_close(m_instance, m_fileSystem);
    }
    if (m_instance != nullptr) {
        rvp_map_fini(m_instance);
    }
}

void Session::run(unsigned files) {
    start();
    claim();
    openVolume();
    if (m_fileSystem != nullptr) {
        describeVolume();
        std::vector<uint64_t> indices = {2};
        for (std::size_t i = 0; i < indices.size() && i < files; ++i) {
            m_found.clear();
            visit(indices[i]);
            indices.insert(indices.end(), m_found.begin(), m_found.end());
        }
        closeVolume();
    }
    askForTexts();
    finish();
}

template <typename Call>
void Session::step(const std::string& name, const Promise& promise, Call call) {
    const std::size_t place = transcript.size();
    Step made = attempt(name, call);
    if (m_expected != nullptr && (place >= m_expected->size() || made != (*m_expected)[place])) {
        const auto& allowed =
            m_faults.kind() == Faults::Kind::MEMORY ? promise.memory : promise.read;
        if (m_faults.strikes() == 0 || !isAmong(allowed, made.code)) {
            problems.push_back(name + " answered " + made.code);
        }
        m_faults.heal();
        made = attempt(name, call);
        if (place >= m_expected->size() || made != (*m_expected)[place]) {
            problems.push_back(name + ", repeated, answered " + made.code);
        }
    }
    transcript.push_back(std::move(made));
}

template <typename Call>
Step Session::attempt(const std::string& name, Call call) {
    Step made{name, "", ""};
    m_strikesBefore = m_faults.strikes();
    try {
        made.code = std::to_string(call(made.content));
    } catch (const std::bad_alloc&) {
        made.code = "no memory";
    }
    return made;
}

// A call of an entry point, which the faults hear of.
template <typename Function, typename... Arguments>
auto Session::ask(Function function, Arguments... arguments) {
    struct Inside {
        explicit Inside(Faults& told) : faults(told) { faults.inside(true); }
        ~Inside() { faults.inside(false); }
        Faults& faults;
    };
    errno = 0;
    const Inside inside(m_faults);
    return function(arguments...);
}

bool Session::read(void* self, unsigned long offset, unsigned long length, char* buffer) {
    const auto& session = *static_cast<Session*>(self);
    if (session.m_faults.readFails() || offset > session.m_volume.size() ||
        length > session.m_volume.size() - offset) {
        return false;
    }
    session.m_volume.copy(buffer, length, offset);
    return true;
}

// Each of a system error's two texts has cost a buffer, where there was one to be had.
void Session::hear(kmp_ehandler* self, const char* english, const char*, int) {
    Session& session = *static_cast<Handler*>(self)->session;
    session.m_faults.inside(false);
    if (std::strcmp(english, "Unknown error") == 0) {
        if (session.m_faults.strikes() != session.m_strikesBefore) {
            session.mayKeep(1);
            session.mayKeep(1);
        } else {
            session.keepForever(2);
        }
    }
    session.m_faults.inside(true);
}

void Session::start() {
    step("init", {{"11", "no memory"}, {}}, [&](std::string& content) {
        int version = 0;
        const int code = ask(rvp_map_init, &m_instance, &m_handler, &version);
        content = std::to_string(version);
        return code;
    });
    step("sector size", {},
         [&](std::string&) { return ask(rvp_map_set_logical_sector_size, m_instance, 512U); });
    step("read callback", {}, [&](std::string&) {
        return ask(rvp_map_set_volume_read_callback, m_instance, read, this);
    });
    step("keep-alive callback", {}, [&](std::string&) {
        return ask(rvp_map_set_keep_alive_callback, m_instance, [](void*) { return 0; });
    });
}

void Session::claim(const std::string& name) {
    m_name = name;
    step("claim volume", {{"0", "no memory"}, {"0"}}, [&](std::string&) {
        const int answer = ask(rvp_map_claim_volume, m_instance, m_name.c_str());
        if (answer == KM_CLAIM_NONE && m_faults.strikes() != m_strikesBefore) {
            mayKeep(DROPPED_OBJECT_BLOCKS);
        }
        return answer;
    });
}

void Session::openVolume() {
    struct km_objid* id = km_objid(m_name.c_str(), static_cast<int>(m_name.size() + 1), 3);
    step("claim id", {}, [&](std::string&) { return ask(rvp_map_claim_id, m_instance, id); });
    step("open id", {{"3", "no memory"}, {}}, [&](std::string&) {
        int flags = 0;
        return ask(rvp_map_open_id, m_instance, id, nullptr, &m_fileSystem,
                   static_cast<int>(KMP_OPEN_READ), &flags, nullptr);
    });
    km_free_objid(id);
}

void Session::describeVolume() {
    step("stat fs", {}, [&](std::string& content) {
        kmp_fs fs;
        const int code = ask(rvp_map_stat_fs, m_instance, m_fileSystem, &fs);
        content = bytesOf(fs);
        return code;
    });
    step("root index", {}, [&](std::string& content) {
        uint64_t root = 0;
        const int code = ask(rvp_map_objctl, m_instance, m_fileSystem,
                             static_cast<int>(KMP_OCROOTINDEX), static_cast<void*>(&root));
        content = std::to_string(root);
        return code;
    });
    step("exclude unallocated", {}, [&](std::string&) {
        return ask(rvp_map_fs_exclude_unallocated, m_instance, m_fileSystem);
    });
    step("property of the volume", {{"0"}, {}}, [&](std::string& content) {
        kmp_obj_prop* property = nullptr;
        const int code = ask(rvp_map_get_obj_prop, m_instance, m_fileSystem, &property);
        content = property != nullptr ? bytesOf(*property) : "none";
        return code;
    });
}

void Session::visit(uint64_t index) {
    kmp_obj* file = nullptr;
    bool isDirectory = false;
    step("open file", {{"3", "11"}, {"11"}}, [&](std::string& content) {
        int flags = 0;
        const int code = ask(rvp_map_open_file_index, m_instance, m_fileSystem, index, &file,
                             static_cast<int>(KMP_OPEN_READ), &flags, nullptr);
        content = std::to_string(flags);
        return code;
    });
    if (file == nullptr) {
        return;
    }
    step("stat file", {}, [&](std::string& content) {
        kmp_file attributes;
        const int code = ask(rvp_map_stat_file, m_instance, file, &attributes);
        content = bytesOf(attributes);
        isDirectory = attributes.type == KMP_FTYPE_DIRECTORY;
        return code;
    });
    step("property of the file", {{"0"}, {}}, [&](std::string& content) {
        kmp_obj_prop* property = nullptr;
        const int code = ask(rvp_map_get_obj_prop, m_instance, file, &property);
        content = property != nullptr ? bytesOf(*property) : "none";
        return code;
    });
    step("names", {}, [&](std::string&) {
        int count = 0;
        kmp_name* names = nullptr;
        return ask(rvp_map_get_names, m_instance, file, 0, &names, &count);
    });
    // A listing of what is no directory is a system error; short memory shows in its number.
    if (isDirectory || listsAnything) {
        step("list", {{"5", std::to_string(KMP_ERRNO_BASE + ENOMEM)}, {"11"}},
             [&](std::string& content) { return listDirectory(file, content); });
    }
    step("extents", {{"1", "3", "5"}, {"1", "11"}},
         [&](std::string& content) { return listExtents(file, content); });
    step("metadata", {{"5"}, {"11"}},
         [&](std::string& content) { return readMetadata(file, content); });
    step("close file", {}, [&](std::string&) { return ask(rvp_map_close, m_instance, file); });
}

int Session::listDirectory(kmp_obj* file, std::string& content) {
    alignas(8) std::array<char, PAGE> page;
    kmp_io_req request = {};
    m_found.clear();
    for (;;) {
        request.buffer = reinterpret_cast<uint64_t>(page.data());
        request.bufferSize = page.size();
        unsigned long count = 0;
        const int code = ask(rvp_map_readdir, m_instance, file, &request, &count);
        if (code != 0 || count == 0) {
            return code;
        }
        for (std::size_t at = 0; at < request.resultCount;) {
            fso_dir_entry entry;
            std::memcpy(&entry, page.data() + at, sizeof entry);
            content.append(page.data() + at + FSO_DIR_ENTRY_NAME_OFFSET, entry.nameLength);
            m_found.push_back(entry.index);
            request.position = entry.next;
            at += entry.recordLength;
        }
    }
}

// Records that continue each other are one: after a fault they may be cut elsewhere.
int Session::listExtents(kmp_obj* file, std::string& content) {
    std::vector<kmp_extent> runs;
    unsigned long offset = 0;
    while (runs.empty() || (runs.back().flags & FSO_EXTENT_LAST) == 0) {
        std::array<kmp_extent, EXTENTS> extents{};
        int count = 0;
        int done = 0;
        auto* node = reinterpret_cast<kmp_mapdomain_node*>(&done);
        const int code = ask(rvp_map_get_extent, m_instance, file, offset, extents.data(), EXTENTS,
                             &count, &done, node);
        if (code != 0) {
            return code;
        }
        for (const kmp_extent& extent : std::span(extents).first(static_cast<std::size_t>(count))) {
            offset += extent.length;
            if (!runs.empty() && continues(runs.back(), extent)) {
                runs.back().length += extent.length;
                runs.back().flags |= extent.flags;
            } else {
                runs.push_back(extent);
            }
        }
    }
    for (const kmp_extent& run : runs) {
        content += std::string(run.volume->name) + " " + std::to_string(run.offset) + "+" +
                   std::to_string(run.length) + "/" + std::to_string(run.flags) + "\n";
    }
    return 0;
}

int Session::readMetadata(kmp_obj* file, std::string& content) {
    kmp_extfile metadata = {};
    const int code = ask(rvp_map_objctl, m_instance, file, static_cast<int>(KMP_OCGETEXTFILE),
                         static_cast<void*>(&metadata));
    if (code == 0) {
        for (const kmp_extfile_piece& piece :
             {metadata.first, metadata.second, metadata.third, metadata.text}) {
            content += bytesOf(piece) + "|";
        }
    }
    return code;
}

void Session::askForTexts() {
    for (const int code : {KMP_EINVAL + 0, 99}) {
        step("text", {{"no memory"}, {}}, [&](std::string& content) {
            char* text = nullptr;
            const int result = ask(rvp_map_errmsg, m_instance, code, &text);
            content = text;
            keepForever(1);
            return result;
        });
    }
}

void Session::closeVolume() {
    step("close volume", {}, [&](std::string&) {
        return ask(rvp_map_close, m_instance, std::exchange(m_fileSystem, nullptr));
    });
}

void Session::finish() {
    step("fini", {}, [&](std::string&) {
        ask(rvp_map_fini, std::exchange(m_instance, nullptr));
        return 0;
    });
}
