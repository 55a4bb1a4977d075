// Where virtual operations lie, as callers with declarations of their own expect them.
#ifndef TESTS_LAYOUT_H
#define TESTS_LAYOUT_H

#include <cstddef>
#include <cstring>
#include <numeric>
#include <vector>

// Whether the operations follow one another behind the two destructors; a pointer to a virtual
// operation holds 1 + 8 times its slot.
template <typename... Operations>
bool lieInOrder(Operations... operations) {
    std::vector<std::ptrdiff_t> places;
    const auto append = [&places](auto operation) {
        std::memcpy(&places.emplace_back(), &operation, sizeof(std::ptrdiff_t));
    };
    (append(operations), ...);
    std::vector<std::ptrdiff_t> expected(places.size());
    std::iota(expected.begin(), expected.end(), 2);
    for (std::ptrdiff_t& place : expected) {
        place = 1 + 8 * place;
    }
    return places == expected;
}

#endif
