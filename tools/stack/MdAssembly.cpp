#include "MdAssembly.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <optional>

namespace {

constexpr uint32_t NEAR_2_LAYOUT = 0x102; // two near copies, one far copy
constexpr uint32_t ALTERNATE_ZONES = 2;   // chunks count from the zone's start
constexpr uint64_t LARGEST_CHUNK = UINT64_C(1) << 30;

struct LevelRule {
    int32_t level;
    uint32_t leastDisks;
    uint32_t parityDisks;
    bool chunked;
    bool survivesLoss;
};

constexpr LevelRule LEVELS[] = {{0, 1, 0, true, false}, {1, 1, 0, false, true},
                                {4, 2, 1, true, true},  {5, 2, 1, true, true},
                                {6, 4, 2, true, false}, {10, 2, 0, true, true}};

const LevelRule* ruleOf(int32_t level) {
    const auto* found = std::find_if(std::begin(LEVELS), std::end(LEVELS),
                                     [&](const LevelRule& rule) { return rule.level == level; });
    return found == std::end(LEVELS) ? nullptr : found;
}

std::string rolesText(const std::vector<uint32_t>& roles) {
    return fmt::format("{} {} {} missing", roles.size() == 1 ? "role" : "roles",
                       fmt::join(roles, ", "), roles.size() == 1 ? "is" : "are");
}

bool describeTheSame(const MdSuperblock& a, const MdSuperblock& b) {
    return a.version.front() == b.version.front() && a.level == b.level && a.layout == b.layout &&
           a.chunkBytes == b.chunkBytes && a.raidDisks == b.raidDisks &&
           a.componentSectors == b.componentSectors;
}

class Judge {
  public:
    explicit Judge(const std::vector<MdMember>& members) : m_members(members) {
        m_result.newest = newest();
        m_result.byRole.resize(array().raidDisks);
    }

    MdAssembly judge() {
        if (const auto refused = refusal()) {
            m_result.reason = *refused;
            return std::move(m_result);
        }
        findSplit();
        for (const MdMember& member : m_members) {
            if (!m_clash) {
                place(member);
            }
        }
        if (m_clash) {
            m_result.reason = *m_clash;
            return std::move(m_result);
        }
        weighLoss();
        if (m_result.state == MdState::COMPLETE || array().level != 0) {
            measure();
        }
        return std::move(m_result);
    }

  private:
    const MdSuperblock& array() const { return m_result.newest->superblock; }

    // Of the highest event counter; an active member's word counts more than a spare's.
    const MdMember* newest() const {
        return &*std::max_element(
            m_members.begin(), m_members.end(), [](const MdMember& a, const MdMember& b) {
                return std::pair(a.superblock.events, a.superblock.kind == MemberKind::ACTIVE) <
                       std::pair(b.superblock.events, b.superblock.kind == MemberKind::ACTIVE);
            });
    }

    // What rules the whole array out, whoever its members are.
    std::optional<std::string> refusal() const {
        const LevelRule* rule = ruleOf(array().level);
        if (rule == nullptr) {
            return fmt::format("is of {}, which is not supported", levelName(array().level));
        }
        if (array().reshaping) {
            return "is in the middle of a reshape";
        }
        if (array().journal) {
            return "keeps a journal, in which its latest writes may lie";
        }
        if (array().raidDisks < rule->leastDisks) {
            return fmt::format("has too few disks for {}", levelName(array().level));
        }
        if (rule->chunked && (array().chunkBytes == 0 || array().chunkBytes % SECTOR_BYTES != 0 ||
                              array().chunkBytes > LARGEST_CHUNK)) {
            return fmt::format("has chunks of {} bytes, which makes no sense", array().chunkBytes);
        }
        return layoutRefusal();
    }

    std::optional<std::string> layoutRefusal() const {
        const uint32_t layout = array().layout;
        const bool refused =
            (array().level == 5 && layout > 3) ||
            // The geometry library places the parity of layouts 1 and 3 as no kernel does.
            (array().level == 6 && layout != 0 && layout != 2) ||
            (array().level == 10 && (layout != NEAR_2_LAYOUT || array().raidDisks % 2 != 0));
        if (!refused) {
            return std::nullopt;
        }
        if (array().level == 10) {
            return fmt::format("is of level 10 in layout {} on {} disks; only near-2 on an even "
                               "number of disks is supported",
                               level10Layout(layout), array().raidDisks);
        }
        return fmt::format("is of {} in layout {}, which is not supported",
                           levelName(array().level), layout);
    }

    static std::string level10Layout(uint32_t layout) {
        const uint32_t nearCopies = layout & 0xFF;
        const uint32_t farCopies = layout >> 8 & 0xFF;
        const bool offset = (layout & 0x10000) != 0;
        return farCopies > 1
                   ? fmt::format("near-{} {}-{}", nearCopies, offset ? "offset" : "far", farCopies)
                   : fmt::format("near-{}", nearCopies);
    }

    // Whose word on the other members counts.
    bool speaks(const MdMember& member) const {
        return member.superblock.kind == MemberKind::ACTIVE &&
               member.superblock.events == array().events;
    }

    static bool denies(const MdMember& member, const MdMember& other) {
        const std::vector<uint32_t>& roles = member.superblock.roles;
        const uint32_t device = other.superblock.deviceNumber;
        return device >= roles.size() || roles[device] != other.superblock.role;
    }

    // Two halves that both went on alone, and came as far as each other.
    void findSplit() {
        for (auto one = m_members.begin(); one != m_members.end(); ++one) {
            for (auto other = one + 1; other != m_members.end(); ++other) {
                if (speaks(*one) && speaks(*other) && denies(*one, *other) &&
                    denies(*other, *one)) {
                    m_clash = fmt::format("fell apart: {} and {} each went on without the other",
                                          one->layer->name(), other->layer->name());
                    return;
                }
            }
        }
    }

    void place(const MdMember& member) {
        if (const auto why = uselessness(member)) {
            m_result.unused.emplace_back(&member, *why);
            return;
        }
        if (!describeTheSame(member.superblock, array())) {
            m_clash = fmt::format("has members that disagree on what it is: {} and {}",
                                  m_result.newest->layer->name(), member.layer->name());
            return;
        }
        const MdMember*& taken = m_result.byRole[member.superblock.role];
        if (taken == nullptr) {
            taken = &member;
        } else if (taken->superblock.raw == member.superblock.raw) {
            m_result.unused.emplace_back(&member, "is a copy of " + taken->layer->name());
        } else {
            m_clash =
                fmt::format("has two different members of role {}: {} and {}",
                            member.superblock.role, taken->layer->name(), member.layer->name());
        }
    }

    // Why a member takes no part in the array.
    std::optional<std::string> uselessness(const MdMember& member) const {
        const MdSuperblock& own = member.superblock;
        switch (own.kind) {
        case MemberKind::SPARE:
            return "is a spare";
        case MemberKind::FAULTY:
            return "is marked as faulty";
        case MemberKind::JOURNAL:
            return "is the journal";
        case MemberKind::REPLACEMENT:
            return "is a replacement that is not complete yet";
        case MemberKind::REBUILDING:
            return "is not rebuilt to its end yet";
        case MemberKind::ACTIVE:
            break;
        }
        if (own.events < array().events) {
            return fmt::format("lags behind: its event counter is {}, the array's {}", own.events,
                               array().events);
        }
        if (own.badBlocks) {
            return "has a list of bad blocks";
        }
        for (const MdMember& other : m_members) {
            if (speaks(other) && denies(other, member)) {
                return "is no member any more, says " + other.layer->name();
            }
        }
        if (own.dataSectors < array().componentSectors && array().level != 0) {
            return "is smaller than the array's members are";
        }
        return std::nullopt;
    }

    void weighLoss() {
        std::vector<uint32_t> missing;
        for (uint32_t role = 0; role < array().raidDisks; ++role) {
            if (m_result.byRole[role] == nullptr) {
                missing.push_back(role);
            }
        }
        if (missing.empty()) {
            m_result.state = MdState::COMPLETE;
            return;
        }
        m_result.reason = rolesText(missing);
        m_result.state = isBearable(missing) ? MdState::DEGRADED : MdState::INCOMPLETE;
        if (m_result.state == MdState::INCOMPLETE && array().level == 6 && missing.size() <= 2) {
            m_result.state = MdState::UNSUPPORTED;
            m_result.reason += ", and level 6 is not rebuilt";
        } else if (m_result.state == MdState::DEGRADED && ruleOf(array().level)->parityDisks > 0 &&
                   (!array().clean || array().partialLog)) {
            m_result.state = MdState::UNSUPPORTED;
            m_result.reason += ", and its parity may not agree with its data";
        }
    }

    bool isBearable(const std::vector<uint32_t>& missing) const {
        if (!ruleOf(array().level)->survivesLoss) {
            return false;
        }
        switch (array().level) {
        case 1:
            return missing.size() < array().raidDisks;
        case 10:
            return std::none_of(missing.begin(), missing.end(), [&](uint32_t role) {
                return m_result.byRole[role ^ 1U] == nullptr;
            });
        default:
            return missing.size() == 1;
        }
    }

    uint64_t inChunks(uint64_t sectors) const {
        return sectors - sectors % (array().chunkBytes / SECTOR_BYTES);
    }

    uint32_t dataDisks() const {
        switch (array().level) {
        case 1:
            return 1;
        case 10:
            return array().raidDisks / 2;
        default:
            return array().raidDisks - ruleOf(array().level)->parityDisks;
        }
    }

    void measure() {
        m_result.dataDisks = dataDisks();
        const uint64_t component = array().componentSectors;
        const uint64_t used = ruleOf(array().level)->chunked ? inChunks(component) : component;
        const uint64_t sectors = array().level == 0 ? measureStripes() : used * m_result.dataDisks;
        m_result.size = sectors * SECTOR_BYTES;
    }

    // Members of unequal length make zones, which kernels have laid out in two ways.
    uint64_t measureStripes() {
        const uint64_t first = inChunks(m_result.byRole.front()->superblock.dataSectors);
        uint64_t sum = 0;
        bool oneZone = true;
        for (const MdMember* member : m_result.byRole) {
            const uint64_t sectors = inChunks(member->superblock.dataSectors);
            oneZone = oneZone && sectors == first;
            sum += sectors;
        }
        if (!oneZone && !(array().zonesAreNamed && array().layout == ALTERNATE_ZONES)) {
            m_result.state = MdState::UNSUPPORTED;
            m_result.reason = array().zonesAreNamed && array().layout == 1
                                  ? "is of level 0 over several zones in the original layout"
                                  : "is of level 0 over several zones in an unknown layout";
        }
        return sum;
    }

    const std::vector<MdMember>& m_members;
    MdAssembly m_result;
    std::optional<std::string> m_clash;
};

} // namespace

MdAssembly assembleMd(const std::vector<MdMember>& members) {
    return Judge(members).judge();
}
