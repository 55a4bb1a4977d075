// read_layer NODE DISK... writes a line with how many bytes of the disks are a node's data, copies,
// sources of what is rebuilt, and parity; then all bytes of the node. What is said to be its data,
// or a copy, and has other bytes is not counted.
#include "Stack.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

// Of no round size, so that pieces begin and end within sectors.
constexpr uint64_t PIECE_BYTES = 99'991;

std::vector<char> bytesOf(const Layer& layer, uint64_t offset, uint64_t length) {
    std::vector<char> bytes(length);
    layer.read(offset, bytes.size(), bytes.data());
    return bytes;
}

void countUses(const Stack& stack, const Layer& layer) {
    uint64_t counts[4] = {};
    for (const StackNode* disk : stack.disks()) {
        for (const LayerUse& use : layer.uses({disk->layer, 0}, disk->size)) {
            if (use.kind > UseKind::COPY || bytesOf(*disk->layer, use.offset, use.length) ==
                                                bytesOf(layer, use.logical, use.length)) {
                counts[static_cast<int>(use.kind)] += use.length;
            }
        }
    }
    fmt::print("{}\n", fmt::join(counts, " "));
}

void copy(const Layer& layer) {
    for (uint64_t at = 0; at < layer.size(); at += PIECE_BYTES) {
        const auto piece = bytesOf(layer, at, std::min(PIECE_BYTES, layer.size() - at));
        std::fwrite(piece.data(), 1, piece.size(), stdout);
    }
}

} // namespace

int main(int count, char** arguments) {
    Stack stack({arguments + 2, arguments + count});
    stack.discover();
    const StackNode* node = stack.find(arguments[1]);
    if (node == nullptr || node->layer == nullptr) {
        return 1;
    }
    countUses(stack, *node->layer);
    copy(*node->layer);
    return 0;
}
