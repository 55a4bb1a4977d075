// Pieces of a line that may overlap, kept for questions about ranges.
#ifndef RVPMAP_RANGEINDEX_H
#define RVPMAP_RANGEINDEX_H

#include "RangeList.h"

#include <algorithm>
#include <cstddef>
#include <vector>

// `Piece` has a ByteRange `range`. Add all, sort once, then ask.
template <typename Piece>
class RangeIndex {
  public:
    void add(const Piece& piece) { m_pieces.push_back(piece); }
    // What was added last; null when nothing was.
    Piece* last() { return m_pieces.empty() ? nullptr : &m_pieces.back(); }
    void sort() {
        std::stable_sort(m_pieces.begin(), m_pieces.end(), [](const Piece& a, const Piece& b) {
            return a.range.begin < b.range.begin;
        });
        uint64_t reach = 0;
        for (const Piece& piece : m_pieces) {
            reach = std::max(reach, piece.range.end);
            m_reach.push_back(reach);
        }
    }
    // Calls `action(piece, common)` for all pieces with bytes in `range`, by their offsets.
    template <typename Action>
    void forEachIn(const ByteRange& range, Action action) const {
        const auto first = std::upper_bound(m_reach.begin(), m_reach.end(), range.begin);
        for (auto i = static_cast<std::size_t>(first - m_reach.begin());
             i < m_pieces.size() && m_pieces[i].range.begin < range.end; ++i) {
            const Piece& piece = m_pieces[i];
            if (piece.range.end > range.begin) {
                action(piece, ByteRange{std::max(piece.range.begin, range.begin),
                                        std::min(piece.range.end, range.end)});
            }
        }
    }

  private:
    std::vector<Piece> m_pieces;
    // The largest end among the pieces up to each.
    std::vector<uint64_t> m_reach;
};

#endif
