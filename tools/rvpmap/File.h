// One opened file of a volume, of any type, with its attributes.
#ifndef RVPMAP_FILE_H
#define RVPMAP_FILE_H

#include "Volume.h"

#include "kmp/kmp.h"

#include <string>
#include <string_view>
#include <utility>

class File {
  public:
    // Takes over `object` and reads the attributes. Throws ToolError.
    File(Volume& volume, uint64_t index, kmp_obj* object);
    File(File&& other) noexcept
        : m_volume(other.m_volume), m_index(other.m_index),
          m_object(std::exchange(other.m_object, nullptr)), m_attributes(other.m_attributes) {}
    File& operator=(File&& other) noexcept;
    ~File() { close(); }

    Volume& volume() const { return *m_volume; }
    uint64_t index() const { return m_index; }
    kmp_obj* object() const { return m_object; }
    const kmp_file& attributes() const { return m_attributes; }
    uint32_t typeBits() const;
    bool hasSeveralPaths() const;
    // The target of a symbolic link. Throws ToolError.
    std::string linkTarget();

  private:
    void close();

    Volume* m_volume;
    uint64_t m_index;
    kmp_obj* m_object;
    kmp_file m_attributes;
};

// The name of a file type, by the type bits of its mode: "file", "directory", ...
std::string_view typeName(uint32_t typeBits);

#endif
