// Hostile images as patches over sound ones: an input names a base and says what is changed in it,
// so that small inputs reach deep into real metadata.
#ifndef FUZZ_PATCHES_H
#define FUZZ_PATCHES_H

#include "ByteSource.h"

#include <cstdint>
#include <string>
#include <vector>

// A sound image, and the places in it that matter: bases hold next to no file content, so these are
// all units of 8 bytes that are not zero and their neighbours.
class BaseImage {
  public:
    // Reads a gzipped image; ends the process when there is none.
    explicit BaseImage(const std::string& path);

    const std::vector<char>& bytes() const { return m_bytes; }
    const std::vector<std::uint32_t>& places() const { return m_places; }

  private:
    std::vector<char> m_bytes;
    std::vector<std::uint32_t> m_places;
};

// A copy of a base, to be changed and used again.
class PatchedImage {
  public:
    // The base outlives this.
    explicit PatchedImage(const BaseImage& base) : m_base(base), m_bytes(base.bytes()) {}

    const std::vector<char>& bytes() const { return m_bytes; }
    // To change more of it than patches do.
    char* change(std::size_t place, std::size_t length);

    // Takes one patch from the input and applies it.
    //
    // A patch is a byte for what is done and how wide, two for the place, and a value: set, flip or
    // add to up to 8 bytes, copy a piece of 1 KiB over another, or wipe one.
    void apply(ByteSource& in);
    // Takes every change back.
    void reset();

    struct Range {
        std::size_t place;
        std::size_t length;
    };
    const std::vector<Range>& changes() const { return m_changes; }

  private:
    const BaseImage& m_base;
    std::vector<char> m_bytes;
    std::vector<Range> m_changes;
};

#endif
