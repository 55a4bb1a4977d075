// Writes all bytes of one node of a stack to standard output: read_layer layers|disks NODE DISK...
#include "DiskRuns.h"
#include "SourceError.h"
#include "Stack.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// Of no round size, so that pieces begin and end within sectors.
constexpr std::size_t PIECE_BYTES = 99'991;

void copy(const Layer& layer, bool fromDisks) {
    std::vector<char> piece(PIECE_BYTES);
    for (uint64_t at = 0; at < layer.size();) {
        const auto length =
            static_cast<std::size_t>(std::min<uint64_t>(piece.size(), layer.size() - at));
        if (fromDisks) {
            readFromDisks(layer, at, length, piece.data());
        } else {
            layer.read(at, length, piece.data());
        }
        std::fwrite(piece.data(), 1, length, stdout);
        at += length;
    }
}

} // namespace

int main(int count, char** arguments) {
    if (count < 4) {
        return 2;
    }
    try {
        Stack stack({arguments + 3, arguments + count});
        stack.discover();
        const StackNode* node = stack.find(arguments[2]);
        if (node == nullptr || node->layer == nullptr) {
            std::fprintf(stderr, "%s cannot be read\n", arguments[2]);
            return 1;
        }
        copy(*node->layer, std::strcmp(arguments[1], "disks") == 0);
        return 0;
    } catch (const SourceError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 3;
    }
}
