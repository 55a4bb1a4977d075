#include "Messages.h"

#include "Progress.h"
#include "Text.h"

#include <cstdio>
#include <fmt/format.h>

void printMessage(std::string_view subject, std::string_view text) {
    Progress::hide();
    fmt::print(stderr, "rvpmap: {}: {}\n", printable(subject), text);
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
