#include "Reader.h"
#include "ext/ExtReader.h"

namespace {

constexpr ReaderKind s_kinds[] = {
    {"ext2/ext3/ext4", ExtReader::build, ExtReader::open},
};

} // namespace

std::span<const ReaderKind> readerKinds() {
    return s_kinds;
}
