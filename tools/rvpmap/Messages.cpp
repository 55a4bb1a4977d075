#include "Messages.h"

#include "Progress.h"
#include "Text.h"
#include "Volume.h"

#include "fso/IFileSystemObjectV1.h"

#include <cstdio>
#include <fmt/format.h>

void printMessage(std::string_view subject, std::string_view text) {
    Progress::hide();
    fmt::print(stderr, "rvpmap: {}: {}\n", printable(subject), text);
}

ToolError about(std::string_view path, const ToolError& error) {
    return {error.status(), fmt::format("{}: {}", printable(path), error.what())};
}

void printState(const Volume& volume) {
    const uint64_t state = volume.statistics().state;
    if ((state & FSO_FS_NEEDS_RECOVERY) != 0) {
        printMessage(volume.name(), "the journal holds changes that are not in place yet; the "
                                    "volume is shown as it lies");
    }
    if ((state & FSO_FS_HAS_ERRORS) != 0) {
        printMessage(volume.name(), "the file system is marked as damaged");
    }
}

void Failures::add(std::string_view path, std::string_view reason) {
    ++m_count;
    if (m_when == When::AT_ONCE) {
        printMessage(m_volume, fmt::format("{}: {}", printable(path), reason));
    } else {
        m_kept.emplace_back(path, reason);
    }
}

void Failures::printList(std::string_view heading) {
    if (m_kept.empty()) {
        return;
    }
    printMessage(m_volume, heading);
    for (const auto& [path, reason] : m_kept) {
        fmt::print(stderr, "  {}: {}\n", printable(path), reason);
    }
    m_kept.clear();
}
