// Images of ext file systems, made by e2fsprogs in a folder of their own and changed by debugfs or
// byte by byte, and the host that reads them through the library's interface.
#ifndef TESTS_LIBFSO_IMAGE_H
#define TESTS_LIBFSO_IMAGE_H

#include "fso/IFileSystemObjectV1.h"
#include "support/Files.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

constexpr std::uint64_t ROOT = 2;
constexpr std::uint64_t FILE_INDEX = 12; // of the first file that an image gets

// Blocks of 1 KiB. Every other is empty, which mke2fs makes a hole of.
inline std::string fragments(unsigned count) {
    std::string content;
    for (unsigned i = 0; i < count; ++i) {
        content += std::string(1024, '\0') + std::string(1024, 'd');
    }
    return content;
}

class Image {
  public:
    // Options as mke2fs takes them, and shell commands that fill the folder that is copied in.
    explicit Image(const std::string& options, const std::string& commands = "true",
                   const std::string& size = "8M") {
        outputOf("mkdir '" + (m_folder / "source") + "' && cd '" + (m_folder / "source") + "' && " +
                 commands + " && mke2fs -q -F " + options + " -d . ../image " + size + " 2>&1");
    }
    // With one file, "file".
    static Image withFile(const std::string& options, const std::string& content,
                          const std::string& size = "8M") {
        const TemporaryFolder folder;
        writeFile(folder / "file", content);
        return Image(options, "cp '" + (folder / "file") + "' .", size);
    }

    std::string bytes() const { return readFile(m_folder / "image"); }
    // Lines of debugfs commands that write.
    void change(const std::string& commands) const {
        writeFile(m_folder / "commands", commands + "\n");
        outputOf("cd '" + m_folder.path() + "' && debugfs -w -f commands image 2>&1");
    }
    // One of the 15 words of the map in the inode of "file".
    void setMapWord(std::size_t word, std::uint32_t value) const {
        const char* const last[] = {"IND", "DIND", "TIND"};
        change("sif file block[" + (word < 12 ? std::to_string(word) : last[word - 12]) + "] " +
               std::to_string(value));
    }

  private:
    TemporaryFolder m_folder;
};

struct Entry {
    std::string name;
    std::uint64_t index;
    std::uint32_t type;
};

// The host's side: the volume's bytes, the log, and one object of the library.
class Host {
  public:
    explicit Host(std::string content, std::uint32_t sectorSize = 512) : bytes(std::move(content)) {
        s_logging = this;
        openFileSystemObject(&object, sectorSize, read, this, takeLine, keepAlive);
        recognised = object->recognise();
    }
    explicit Host(const Image& image) : Host(image.bytes()) {}
    ~Host() { closeFileSystemObject(&object); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    std::string bytes;
    std::vector<std::string> log;
    unsigned readCount = 0;
    unsigned keepAliveCount = 0;
    bool recognised = false;
    IFileSystemObjectV1* object = nullptr;
    std::uint32_t status = FSO_OK; // of the last call

    bool logged(const std::string& part) const {
        return std::ranges::any_of(
            log, [&](const std::string& line) { return line.find(part) != line.npos; });
    }

    // Opens and closes.
    fso_file_record open(std::uint64_t index) {
        fso_file_record record;
        std::uint32_t flags = 0;
        status = object->openFile(index, &record, &flags);
        object->closeFile(index);
        return record;
    }

    // All records of a file, asked for `capacity` at a time; stops at a status other than success.
    std::vector<fso_extent> extents(std::uint64_t index, std::uint32_t capacity = 64) {
        std::vector<fso_extent> all;
        std::vector<fso_extent> some(capacity);
        std::uint64_t offset = 0;
        std::uint32_t count = 1;
        while (count > 0 && (all.empty() || (all.back().flags & FSO_EXTENT_LAST) == 0)) {
            status = object->getExtents(index, offset, some.data(), capacity, &count);
            for (std::uint32_t i = 0; i < count; ++i) {
                all.push_back(some[i]);
                offset += some[i].length;
            }
        }
        return all;
    }

    std::vector<Entry> list(std::uint64_t index, std::size_t bufferSize = 65536,
                            std::uint64_t position = 0) {
        std::vector<Entry> entries;
        std::vector<std::uint64_t> buffer(bufferSize / sizeof(std::uint64_t));
        fso_dir_request request = {reinterpret_cast<std::uint64_t>(buffer.data()), bufferSize,
                                   position, 0};
        std::uint32_t count = 1;
        while (count > 0) {
            status = object->readDir(index, &request, &count);
            const char* at = reinterpret_cast<const char*>(buffer.data());
            for (std::uint32_t i = 0; i < count; ++i) {
                fso_dir_entry entry;
                std::memcpy(&entry, at, sizeof(entry));
                entries.push_back(
                    {{at + FSO_DIR_ENTRY_NAME_OFFSET, entry.nameLength}, entry.index, entry.type});
                request.position = entry.next;
                at += entry.recordLength;
            }
        }
        return entries;
    }

  private:
    static bool read(void* context, unsigned long offset, unsigned long length, char* buffer) {
        auto& host = *static_cast<Host*>(context);
        ++host.readCount;
        if (offset > host.bytes.size() || length > host.bytes.size() - offset) {
            return false;
        }
        std::memcpy(buffer, host.bytes.data() + offset, length);
        return true;
    }
    static int takeLine(fs_log_level_t, const char* text) {
        s_logging->log.emplace_back(text);
        return 1;
    }
    static int keepAlive(void* context) {
        return static_cast<int>(++static_cast<Host*>(context)->keepAliveCount);
    }

    // The log callback has no context; tests use one host at a time, the one made last.
    inline static Host* s_logging = nullptr;
};

inline bool operator==(const fso_extent& a, const fso_extent& b) {
    return a.offset == b.offset && a.length == b.length && a.flags == b.flags;
}

inline void PrintTo(const fso_extent& extent, std::ostream* out) {
    *out << "{" << extent.offset << ", " << extent.length << ", " << extent.flags << "}";
}

#endif
