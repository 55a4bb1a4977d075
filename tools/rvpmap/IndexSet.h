// A set of file indices, small where they lie close together.
#ifndef RVPMAP_INDEXSET_H
#define RVPMAP_INDEXSET_H

#include <cstdint>
#include <unordered_map>

class IndexSet {
  public:
    // False when the index was in the set already.
    bool insert(uint64_t index) {
        uint64_t& word = m_words[index / WORD_BITS];
        const uint64_t bit = uint64_t{1} << index % WORD_BITS;
        const bool added = (word & bit) == 0;
        word |= bit;
        return added;
    }

  private:
    static constexpr unsigned WORD_BITS = 64;
    std::unordered_map<uint64_t, uint64_t> m_words;
};

#endif
