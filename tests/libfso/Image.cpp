#include "Image.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <regex>
#include <stdexcept>

namespace {

bool readBytes(void* context, unsigned long offset, unsigned long length, char* buffer) {
    auto& host = *static_cast<Host*>(context);
    ++host.readCount;
    if (offset > host.bytes.size() || length > host.bytes.size() - offset) {
        return false;
    }
    std::memcpy(buffer, host.bytes.data() + offset, length);
    return true;
}

// The log callback has no context; tests use one host at a time, the one made last.
Host* s_logging = nullptr;

int takeLine(fs_log_level_t, const char* text) {
    s_logging->log.emplace_back(text);
    return 1;
}

int keepAlive(void* context) {
    return static_cast<int>(++static_cast<Host*>(context)->keepAliveCount);
}

} // namespace

std::string pattern(std::size_t size, unsigned seed) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i + 8 <= size; i += 8) {
        const std::uint64_t word = (i / 8 + 1) * 0x9e3779b97f4a7c15U + seed;
        std::memcpy(text.data() + i, &word, sizeof(word));
    }
    return text;
}

Image::Image(const std::string& options, const std::string& size, const std::string& source) {
    const std::string uuid = "6a1f7d5e-3c1b-4a53-9d0e-0123456789ab";
    const std::string from = source.empty() ? "" : " -d '" + source + "'";
    outputOf("mke2fs -q -F -U " + uuid + " -E root_owner=0:0,hash_seed=" + uuid + " " + options +
             from + " '" + m_path + "' " + size + " 2>&1");
}

Image Image::withFile(const std::string& options, const std::string& size,
                      const std::string& content) {
    const TemporaryFolder source;
    writeFile(source / "file", content);
    return {options, size, source.path()};
}

void Image::change(const std::string& command) const {
    writeFile(m_path + ".commands", command + "\n");
    outputOf("debugfs -w -f '" + m_path + ".commands' '" + m_path + "' 2>&1");
}

std::string Image::ask(const std::string& command) const {
    return outputOf("debugfs -R '" + command + "' '" + m_path + "' 2>/dev/null");
}

std::uint64_t inodeOffset(const Image& image, const std::string& path) {
    // "Inode 12 is part of block group 0\n\tlocated at block 70, offset 0x0b00"
    const std::string text = image.ask("imap " + path);
    const std::string sizes = image.ask("stats");
    const std::size_t size = sizes.find("Block size:") + std::strlen("Block size:");
    const std::uint64_t block = std::stoull(text.substr(text.find("block ", text.find("at")) + 6));
    return block * std::stoull(sizes.substr(size)) +
           std::stoull(text.substr(text.find("0x")), nullptr, 16);
}

Host::Host(std::string content, std::uint32_t sectorSize) : bytes(std::move(content)) {
    s_logging = this;
    if (openFileSystemObject(&object, sectorSize, readBytes, this, takeLine, keepAlive) != FSO_OK) {
        throw std::runtime_error("no object");
    }
    recognised = object->recognise();
}

Host::~Host() {
    closeFileSystemObject(&object);
}

bool Host::logged(const std::string& part) const {
    return std::ranges::any_of(
        log, [&](const std::string& line) { return line.find(part) != line.npos; });
}

fso_file_record Host::open(std::uint64_t index) const {
    fso_file_record record;
    std::uint32_t flags = 0;
    const std::uint32_t status = object->openFile(index, &record, &flags);
    object->closeFile(index);
    if (status != FSO_OK) {
        throw std::runtime_error("index " + std::to_string(index) + ": status " +
                                 std::to_string(status));
    }
    return record;
}

std::vector<fso_extent> Host::extents(std::uint64_t index, std::uint32_t capacity,
                                      std::uint32_t* status) const {
    std::vector<fso_extent> all;
    std::vector<fso_extent> some(capacity);
    std::uint64_t offset = 0;
    std::uint32_t result = FSO_OK;
    while (all.size() < 100000 && (all.empty() || (all.back().flags & FSO_EXTENT_LAST) == 0)) {
        std::uint32_t count = 0;
        result = object->getExtents(index, offset, some.data(), capacity, &count);
        if (result != FSO_OK || count == 0) {
            break;
        }
        all.insert(all.end(), some.begin(), some.begin() + count);
        for (std::uint32_t i = 0; i < count; ++i) {
            offset += some[i].length;
        }
    }
    if (status != nullptr) {
        *status = result;
    }
    return all;
}

std::string Host::content(std::uint64_t index) const {
    std::string text;
    for (const fso_extent& extent : extents(index)) {
        if ((extent.flags & (FSO_EXTENT_HOLE | FSO_EXTENT_UNWRITTEN)) != 0) {
            text.append(extent.length, '\0');
        } else {
            text.append(bytes, extent.offset, extent.length);
        }
    }
    text.resize(std::min<std::size_t>(text.size(), open(index).size));
    return text;
}

std::vector<Entry> Host::list(std::uint64_t index, std::size_t bufferSize,
                              std::uint32_t* status) const {
    std::vector<Entry> entries;
    std::vector<std::uint64_t> buffer(bufferSize / sizeof(std::uint64_t));
    fso_dir_request request = {reinterpret_cast<std::uint64_t>(buffer.data()), bufferSize, 0, 0};
    std::uint32_t count = 0;
    std::uint32_t result = FSO_OK;
    while ((result = object->readDir(index, &request, &count)) == FSO_OK && count > 0) {
        const char* at = reinterpret_cast<const char*>(buffer.data());
        const char* const end = at + request.resultCount;
        for (; count > 0; --count) {
            fso_dir_entry entry;
            std::memcpy(&entry, at, sizeof(entry));
            entries.push_back({{at + FSO_DIR_ENTRY_NAME_OFFSET, entry.nameLength},
                               entry.index,
                               entry.next,
                               entry.type});
            at += entry.recordLength;
        }
        if (at != end) {
            throw std::runtime_error("the result count does not fit the entries");
        }
        request.position = entries.back().next;
    }
    if (status != nullptr) {
        *status = result;
    }
    return entries;
}

std::uint64_t Host::find(const std::string& path) const {
    return walk().at(path);
}

std::map<std::string, std::uint64_t> Host::walk() const {
    std::map<std::string, std::uint64_t> found;
    std::uint64_t root = 0;
    object->rootIndex(&root);
    std::vector<std::pair<std::string, std::uint64_t>> folders = {{"", root}};
    while (!folders.empty()) {
        const auto [path, index] = folders.back();
        folders.pop_back();
        for (const Entry& entry : list(index)) {
            found[path + "/" + entry.name] = entry.index;
            if ((open(entry.index).mode & 0xF000) == 0x4000) {
                folders.emplace_back(path + "/" + entry.name, entry.index);
            }
        }
    }
    return found;
}

std::vector<fso_extent> extentsByDebugfs(const Image& image, const Host& host,
                                         std::uint64_t index) {
    fso_fs_record fs;
    host.object->statFs(&fs);
    const std::string text = image.ask("stat <" + std::to_string(index) + ">");
    // (first-last[u]):physical-last, in file order; parts such as (IND) or (ETB0) are the map's
    // own.
    static const std::regex range(R"(\((\d+)(?:-(\d+))?(\[u\])?\):(\d+))");
    std::vector<fso_extent> runs;
    std::uint64_t at = 0;
    const auto add = [&](std::uint32_t flags, std::uint64_t physical, std::uint64_t blocks) {
        const std::uint64_t offset = physical * fs.blockSize;
        const std::uint64_t length = blocks * fs.blockSize;
        if (!runs.empty() && runs.back().flags == flags &&
            runs.back().offset + runs.back().length == offset) {
            runs.back().length += length;
        } else if (blocks > 0) {
            runs.push_back({offset, length, flags, 0});
        }
        at += blocks;
    };
    const std::size_t begin = std::min(text.find("BLOCKS:"), text.find("EXTENTS:"));
    const std::string blocks = begin == text.npos ? "" : text.substr(begin);
    for (std::sregex_iterator m(blocks.begin(), blocks.end(), range), end; m != end; ++m) {
        const std::uint64_t first = std::stoull((*m)[1]);
        const std::uint64_t last = (*m)[2].matched ? std::stoull((*m)[2]) : first;
        add(FSO_EXTENT_HOLE, 0, first - at);
        add((*m)[3].matched ? std::uint32_t{FSO_EXTENT_UNWRITTEN} : 0, std::stoull((*m)[4]),
            last - first + 1);
    }
    const std::uint64_t size = (host.open(index).size + fs.blockSize - 1) / fs.blockSize;
    add(FSO_EXTENT_HOLE, 0, size > at ? size - at : 0);
    if (runs.empty()) {
        runs.push_back({0, 0, FSO_EXTENT_HOLE, 0});
    }
    runs.back().flags |= FSO_EXTENT_LAST;
    return runs;
}

bool operator==(const fso_extent& a, const fso_extent& b) {
    return a.offset == b.offset && a.length == b.length && a.flags == b.flags;
}

void PrintTo(const fso_extent& extent, std::ostream* out) {
    *out << "{" << extent.offset << ", " << extent.length << ", " << extent.flags << "}";
}
