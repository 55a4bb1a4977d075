// The tool's readers of partition tables, md superblocks, and LVM2 labels and metadata, and the
// stacks that they build, over hostile disks. What is found must be readable, or say why not; and a
// range read at once is the same as the range put together from its runs on the disks.
//
// Input: a base (one or more disks), whether checksums are made right, then patches (Patches.h);
// or, for the last base, the text of a volume group's metadata.
#include "Stack.h"
#include "ByteSource.h"
#include "Checksums.h"
#include "DiskRuns.h"
#include "Patches.h"
#include "Require.h"
#include "SourceError.h"
#include "UniqueFd.h"
#include "kmhost.h"

#include <algorithm>
#include <deque>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

struct BaseKind {
    const char* name;
    std::size_t disks; // the base is cut into as many
};
// New ones go last: inputs name them by number.
constexpr BaseKind BASES[] = {{"raid5", 3}, {"raid10", 4}, {"raid0", 3}, {"raid1-lvm", 2},
                              {"v090", 3},  {"lvm", 2},    {"gpt", 1},   {"mbr", 1}};
constexpr std::size_t LVM_BASE = 5;
constexpr std::size_t TEXT_INPUT = 15;
constexpr std::size_t MAX_PATCHES = 24;
constexpr std::size_t MAX_RANGE = 3000;

// The disks of a base as files in memory, which the tool opens by name.
class Disks {
  public:
    Disks(const BaseImage& base, std::size_t count)
        : m_image(base), m_size(base.bytes().size() / count) {
        for (std::size_t i = 0; i < count; ++i) {
            const UniqueFd& file = m_files.emplace_back(::memfd_create("disk", MFD_CLOEXEC));
            m_paths.push_back(fmt::format("/proc/self/fd/{}", file.get()));
            write(i * m_size, m_size);
        }
    }

    PatchedImage& image() { return m_image; }
    std::size_t size() const { return m_size; }
    const std::vector<std::string>& paths() const { return m_paths; }

    void renewAllChecksums() {
        for (std::size_t i = 0; i < m_files.size(); ++i) {
            renewChecksums(m_image, i * m_size, m_size);
        }
    }
    void writeChanges() {
        for (const PatchedImage::Range& range : m_image.changes()) {
            write(range.place, range.length);
        }
    }
    void reset() {
        const std::vector<PatchedImage::Range> changes = m_image.changes();
        m_image.reset();
        for (const PatchedImage::Range& range : changes) {
            write(range.place, range.length);
        }
    }

  private:
    // A range may reach over the end of a disk.
    void write(std::size_t place, std::size_t length) {
        while (length > 0 && place / m_size < m_files.size()) {
            const std::size_t inDisk = place % m_size;
            const std::size_t part = std::min(length, m_size - inDisk);
            require(::pwrite(m_files[place / m_size].get(), m_image.bytes().data() + place, part,
                             static_cast<off_t>(inDisk)) == static_cast<ssize_t>(part),
                    "a disk in memory can be written");
            place += part;
            length -= part;
        }
    }

    PatchedImage m_image;
    std::size_t m_size;
    std::deque<UniqueFd> m_files;
    std::vector<std::string> m_paths;
};

Disks& disksOf(std::size_t number) {
    static std::deque<BaseImage> s_bases;
    static std::deque<Disks> s_disks;
    while (s_disks.size() < std::size(BASES)) {
        const BaseKind& kind = BASES[s_disks.size()];
        s_bases.emplace_back(std::string(FUZZ_BASES "/stack/") + kind.name + ".img.gz");
        s_disks.emplace_back(s_bases.back(), kind.disks);
    }
    return s_disks[number];
}

// The text goes into one metadata area of each physical volume of the base; the others are empty.
void placeText(Disks& disks, std::string_view text) {
    constexpr std::string_view MAGIC = " LVM2 x[5A%r0N*>";
    constexpr std::size_t TEXT_OFFSET = 1024;
    constexpr std::size_t LONGEST = 4096;
    text = text.substr(0, LONGEST);
    const std::vector<char>& bytes = disks.image().bytes();
    const std::string_view all(bytes.data(), bytes.size());
    std::vector<std::size_t> areas;
    for (std::size_t at = all.find(MAGIC); at != all.npos; at = all.find(MAGIC, at + 1)) {
        areas.push_back(at - 4);
    }
    for (std::size_t i = 0; i < areas.size(); ++i) {
        const std::uint64_t location[] = {i % 2 == 0 ? TEXT_OFFSET : 0, text.size()};
        std::memcpy(disks.image().change(areas[i] + 40, sizeof location), location,
                    sizeof location);
        std::memcpy(disks.image().change(areas[i] + TEXT_OFFSET, text.size()), text.data(),
                    text.size());
    }
}

std::string readAtOnce(const Layer& layer, std::uint64_t offset, std::size_t length) {
    std::string bytes(length, '\0');
    layer.read(offset, length, bytes.data());
    return bytes;
}

std::string readByRuns(const Layer& layer, std::uint64_t offset, std::size_t length) {
    std::string bytes;
    for (const DiskRun& one : mapToDisks(layer, offset, length)) {
        require(one.logical == offset + bytes.size(), "runs follow one another");
        require(one.run.length > 0 && one.run.length <= length - bytes.size(), "runs have lengths");
        require(one.run.kind == RunKind::DATA
                    ? one.run.places.size() == 1
                    : one.run.places.empty() == (one.run.kind == RunKind::ZERO),
                "a run has its places");
        std::string sum(one.run.length, '\0');
        for (const LayerPlace& place : one.run.places) {
            const std::string part = readAtOnce(*place.layer, place.offset, one.run.length);
            std::transform(sum.begin(), sum.end(), part.begin(), sum.begin(),
                           [](char a, char b) { return static_cast<char>(a ^ b); });
        }
        bytes += sum;
    }
    return bytes;
}

void readRange(const Layer& layer, std::uint64_t offset, std::size_t length) {
    std::string bytes;
    try {
        bytes = readAtOnce(layer, offset, length);
    } catch (const SourceError&) {
        return; // what cannot be read may still have a map
    }
    require(readByRuns(layer, offset, length) == bytes, "runs hold the bytes of the range");
}

void use(const StackNode& node, const std::vector<std::uint64_t>& ranges) {
    require(!node.name.empty() && !node.type.empty(), "a node has a name and a type");
    require(node.layer != nullptr || !node.notes.empty() || node.type == "vg",
            "what cannot be read says why");
    if (node.layer == nullptr || node.type == "disk") {
        return;
    }
    const std::uint64_t size = node.layer->size();
    readRange(*node.layer, 0, std::min<std::uint64_t>(size, MAX_RANGE));
    for (const std::uint64_t range : ranges) {
        const std::uint64_t offset = size == 0 ? 0 : range % size;
        readRange(*node.layer, offset,
                  std::min<std::uint64_t>(size - offset, 1 + range % MAX_RANGE));
    }
}

void discover(const std::vector<std::string>& paths, const std::vector<std::uint64_t>& ranges) {
    try {
        Stack stack(paths);
        stack.discover();
        for (const StackNode& node : stack.nodes()) {
            use(node, ranges);
            require(stack.find(node.name) == &node, "a node is found by its name");
        }
    } catch (const SourceError& error) {
        require(*error.what() != '\0', "an error says something");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kmhost_log_to(nullptr, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ByteSource in(data, size);
    const std::uint8_t choice = in.byte();
    const std::size_t number = choice & 15;
    std::vector<std::uint64_t> ranges;
    for (std::size_t i = choice >> 6; i > 0; --i) {
        ranges.push_back(in.number());
    }
    if (number == TEXT_INPUT) {
        Disks& disks = disksOf(LVM_BASE);
        const auto text = in.takeBytes(size);
        placeText(disks, {reinterpret_cast<const char*>(text.data()), text.size()});
        disks.renewAllChecksums();
        disks.writeChanges();
        discover(disks.paths(), ranges);
        disks.reset();
        return 0;
    }
    Disks& disks = disksOf(number < std::size(BASES) ? number : 0);
    for (std::size_t patches = 0; !in.empty() && patches < MAX_PATCHES; ++patches) {
        disks.image().apply(in);
    }
    if ((choice & 0x10) == 0) {
        disks.renewAllChecksums();
    }
    disks.writeChanges();
    discover(disks.paths(), ranges);
    disks.reset();
    return 0;
}
