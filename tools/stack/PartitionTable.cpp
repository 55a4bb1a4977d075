#include "PartitionTable.h"

#include "SourceError.h"
#include "UniqueFd.h"

#include <algorithm>
#include <array>
#include <blkid/blkid.h>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <set>
#include <sys/mman.h>
#include <type_traits>

namespace {

// Both copies of a GPT with far more entries than the usual 128 lie within.
constexpr uint64_t EDGE_BYTES = 256 * 1024;
// libblkid refuses a GPT that reaches past the end, as that of an image cut short does.
constexpr uint64_t LARGER_THAN_ANY_DISK = UINT64_C(1) << 60;
constexpr std::size_t LONGEST_CHAIN = 256; // extended boot records

// A sparse file in memory that holds those parts of a layer in which a partition table lies:
// libblkid reads from file descriptors only, which arrays and logical volumes do not have.
class Sketch {
  public:
    explicit Sketch(const Layer& layer)
        : m_layer(layer), m_file(::memfd_create("partition-table", MFD_CLOEXEC)) {
        if (!m_file.valid()) {
            throw SourceError(std::strerror(errno), false);
        }
        const uint64_t edge = std::min(m_layer.size(), EDGE_BYTES);
        copy(0, edge);
        copy(m_layer.size() - edge, edge);
        dropEndlessTables();
        copyExtendedRecords();
    }

    int descriptor() const { return m_file.get(); }

  private:
    // What an image that was cut short lacks stays empty.
    void copy(uint64_t offset, uint64_t length) {
        std::vector<char> bytes(length);
        try {
            m_layer.read(offset, bytes.size(), bytes.data());
        } catch (const SourceError& error) {
            if (!error.pastEnd()) {
                throw;
            }
            return;
        }
        write(offset, bytes.data(), bytes.size());
    }

    void write(uint64_t offset, const char* bytes, std::size_t length) {
        if (::pwrite(m_file.get(), bytes, length, static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(length)) {
            throw SourceError(
                fmt::format("a partition table cannot be kept: {}", std::strerror(errno)), false);
        }
    }

    // A GPT header may count entries without end, for all of which libblkid takes room. Those past
    // the edges are not here, so such a table could not be verified: the copy is made none.
    void dropEndlessTables() {
        const uint64_t sectors = m_layer.size() / SECTOR_BYTES;
        for (const uint64_t sector :
             {UINT64_C(1), UINT64_C(8), sectors - 1, sectors / 8 * 8 - 8}) { // 512 or 4096 bytes
            if (sector >= sectors) {
                continue;
            }
            const std::array<char, SECTOR_BYTES> header = copied(sector);
            uint32_t shape[2]; // how many entries, and the bytes of each
            std::memcpy(shape, header.data() + 80, sizeof shape);
            constexpr char MAGIC[] = {'E', 'F', 'I', ' ', 'P', 'A', 'R', 'T'};
            if (std::memcmp(header.data(), MAGIC, sizeof MAGIC) == 0 &&
                uint64_t{shape[0]} * shape[1] > EDGE_BYTES) {
                constexpr char NONE[sizeof MAGIC] = {};
                write(sector * SECTOR_BYTES, NONE, sizeof NONE);
            }
        }
    }

    std::array<char, SECTOR_BYTES> copied(uint64_t sector) const {
        std::array<char, SECTOR_BYTES> record = {};
        if (::pread(m_file.get(), record.data(), record.size(),
                    static_cast<off_t>(sector * SECTOR_BYTES)) < 0) {
            throw SourceError(std::strerror(errno), false);
        }
        return record;
    }

    // The start of the first extended partition in a boot record, in sectors; 0 for none.
    static uint32_t extendedStart(const std::array<char, SECTOR_BYTES>& record) {
        constexpr std::size_t ENTRIES = 446;
        constexpr std::size_t ENTRY_BYTES = 16;
        for (std::size_t at = ENTRIES; at < ENTRIES + 4 * ENTRY_BYTES; at += ENTRY_BYTES) {
            const auto type = static_cast<unsigned char>(record[at + 4]);
            if (type == 0x05 || type == 0x0F || type == 0x85) {
                uint32_t start = 0;
                std::memcpy(&start, record.data() + at + 8, sizeof start);
                return start;
            }
        }
        return 0;
    }

    // Logical partitions hang on a chain of records that may lie anywhere. They are only copied
    // here; each counts from the start of the extended partition.
    void copyExtendedRecords() {
        std::set<uint64_t> seen;
        uint64_t base = 0;
        uint64_t sector = 0;
        while (seen.insert(sector).second && seen.size() <= LONGEST_CHAIN &&
               (sector + 1) * SECTOR_BYTES <= m_layer.size()) {
            copy(sector * SECTOR_BYTES, SECTOR_BYTES);
            const uint32_t next = extendedStart(copied(sector));
            if (next == 0) {
                return;
            }
            sector = base + next;
            base = base == 0 ? next : base;
        }
    }

    const Layer& m_layer;
    UniqueFd m_file;
};

using Probe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, decltype(&blkid_free_probe)>;

std::optional<PartitionTable> listPartitions(blkid_probe probe) {
    blkid_partlist list = blkid_probe_get_partitions(probe);
    blkid_parttable table = list != nullptr ? blkid_partlist_get_table(list) : nullptr;
    if (table == nullptr) {
        return std::nullopt;
    }
    PartitionTable result{blkid_parttable_get_type(table), {}};
    for (int i = 0; i < blkid_partlist_numof_partitions(list); ++i) {
        blkid_partition entry = blkid_partlist_get_partition(list, i);
        const auto start = static_cast<uint64_t>(blkid_partition_get_start(entry));
        const auto size = static_cast<uint64_t>(blkid_partition_get_size(entry));
        if (blkid_partition_is_extended(entry) == 0 &&
            start < LARGER_THAN_ANY_DISK / SECTOR_BYTES &&
            size < LARGER_THAN_ANY_DISK / SECTOR_BYTES) {
            result.partitions.push_back(
                {blkid_partition_get_partno(entry), start * SECTOR_BYTES, size * SECTOR_BYTES});
        }
    }
    return result;
}

std::optional<PartitionTable> probe(int descriptor, uint64_t size, unsigned sectorSize) {
    char gpt[] = "gpt";
    char dos[] = "dos";
    char* types[] = {gpt, dos, nullptr};
    const Probe prober(blkid_new_probe(), blkid_free_probe);
    if (!prober || ::ftruncate(descriptor, static_cast<off_t>(size)) != 0 ||
        blkid_probe_set_device(prober.get(), descriptor, 0, static_cast<blkid_loff_t>(size)) != 0 ||
        blkid_probe_set_sectorsize(prober.get(), sectorSize) != 0) {
        throw SourceError("a partition table cannot be looked for", false);
    }
    blkid_probe_enable_superblocks(prober.get(), 0);
    blkid_probe_enable_partitions(prober.get(), 1);
    blkid_probe_filter_partitions_type(prober.get(), BLKID_FLTR_ONLYIN, types);
    return listPartitions(prober.get());
}

} // namespace

std::optional<PartitionTable> readPartitionTable(const Layer& layer) {
    if (layer.size() < SECTOR_BYTES) {
        return std::nullopt;
    }
    const Sketch sketch(layer);
    for (const uint64_t size : {layer.size(), LARGER_THAN_ANY_DISK}) {
        for (const unsigned sectorSize : {512U, 4096U}) {
            if (auto table = probe(sketch.descriptor(), size, sectorSize)) {
                return table;
            }
        }
    }
    return std::nullopt;
}
