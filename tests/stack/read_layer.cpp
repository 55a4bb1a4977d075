// Writes all bytes of one node of a stack to standard output, read through the layers or by the
// runs on the disks, or compares the disks with it and writes how many bytes are of each use:
// read_layer layers|disks|uses NODE DISK...
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

std::vector<char> bytesOf(const Layer& layer, uint64_t offset, uint64_t length) {
    std::vector<char> bytes(length);
    layer.read(offset, bytes.size(), bytes.data());
    return bytes;
}

bool countUses(const Stack& stack, const Layer& layer) {
    uint64_t counts[4] = {};
    for (const StackNode* disk : stack.disks()) {
        for (const LayerUse& use : layer.uses({disk->layer, 0}, disk->size)) {
            counts[static_cast<int>(use.kind)] += use.length;
            if (use.kind <= UseKind::COPY && bytesOf(*disk->layer, use.offset, use.length) !=
                                                 bytesOf(layer, use.logical, use.length)) {
                std::fprintf(stderr, "byte %llu of %s is not byte %llu\n",
                             static_cast<unsigned long long>(use.offset), disk->name.c_str(),
                             static_cast<unsigned long long>(use.logical));
                return false;
            }
        }
    }
    for (const uint64_t count : counts) {
        std::printf("%llu ", static_cast<unsigned long long>(count));
    }
    return true;
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
        if (std::strcmp(arguments[1], "uses") == 0) {
            return countUses(stack, *node->layer) ? 0 : 1;
        }
        copy(*node->layer, std::strcmp(arguments[1], "disks") == 0);
        return 0;
    } catch (const SourceError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 3;
    }
}
