// Images of ext file systems for tests: made by e2fsprogs in a folder of their own, changed by
// debugfs or byte by byte, read through the library's interface, and compared with what debugfs
// says of them.
#ifndef TESTS_LIBFSO_IMAGE_H
#define TESTS_LIBFSO_IMAGE_H

#include "fso/IFileSystemObjectV1.h"
#include "support/Files.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Bytes that tell their place: no two blocks are alike.
std::string pattern(std::size_t size, unsigned seed = 1);

class Image {
  public:
    // `options` and `size` as mke2fs takes them; `source`, if given, is a folder to copy in.
    Image(const std::string& options, const std::string& size, const std::string& source = "");
    // With one file "file" of the given bytes.
    static Image withFile(const std::string& options, const std::string& size,
                          const std::string& content);

    const std::string& path() const { return m_path; }
    // One debugfs command that writes, or its output.
    void change(const std::string& command) const;
    std::string ask(const std::string& command) const;
    std::string bytes() const { return readFile(m_path); }

  private:
    std::shared_ptr<TemporaryFolder> m_folder = std::make_shared<TemporaryFolder>();
    std::string m_path = *m_folder / "image";
};

// Where a file's inode lies in the image.
std::uint64_t inodeOffset(const Image& image, const std::string& path);

struct Entry {
    std::string name;
    std::uint64_t index;
    std::uint64_t next;
    std::uint32_t type;
};

// The host's side: the image's bytes, the log, and one object of the library.
class Host {
  public:
    explicit Host(std::string bytes, std::uint32_t sectorSize = 512);
    explicit Host(const Image& image) : Host(image.bytes()) {}
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    std::string bytes;
    std::vector<std::string> log;
    unsigned readCount = 0;
    unsigned keepAliveCount = 0;
    bool recognised = false;
    IFileSystemObjectV1* object = nullptr;

    bool logged(const std::string& part) const;
    fso_file_record open(std::uint64_t index) const; // throws on a status
    // All records of a file, asked for `capacity` at a time; stops at a status other than success.
    std::vector<fso_extent> extents(std::uint64_t index, std::uint32_t capacity = 64,
                                    std::uint32_t* status = nullptr) const;
    // The file's bytes, put together from its records and cut to its size.
    std::string content(std::uint64_t index) const;
    std::vector<Entry> list(std::uint64_t index, std::size_t bufferSize = 65536,
                            std::uint32_t* status = nullptr) const;
    std::uint64_t find(const std::string& path) const; // from the root; throws
    // Every path below the root, directories included.
    std::map<std::string, std::uint64_t> walk() const;
};

// What debugfs says of a file's blocks, as the records that are expected of the library.
std::vector<fso_extent> extentsByDebugfs(const Image& image, const Host& host, std::uint64_t index);

bool operator==(const fso_extent& a, const fso_extent& b);
void PrintTo(const fso_extent& extent, std::ostream* out);

#endif
