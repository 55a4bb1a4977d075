#include "Logging.h"

#include "Progress.h"

#include "kmhost.h"

#include <fmt/format.h>
#include <string_view>

namespace {

constexpr int FIRST_TRACE_BIT = 28;
constexpr int BLANKS_A_SCOPE = 2;

unsigned severityBit(int severity) {
    return 1U << static_cast<unsigned>(severity);
}

unsigned severitiesOf(const Options& options) {
    // In the order in which the levels add them.
    constexpr int ORDER[] = {KMP_SEVERITY_ERROR, KMP_SEVERITY_WARNING, KMP_SEVERITY_INFO,
                             KMP_SEVERITY_DEBUG};
    unsigned shown = 0;
    for (int i = 0; i < (options.trace != 0 ? 4 : options.logLevel); ++i) {
        shown |= severityBit(ORDER[i]);
    }
    for (int level = FIRST_TRACE_LEVEL; level <= options.trace; ++level) {
        shown |= severityBit(level);
    }
    return shown;
}

// The line feed is missing where the provider could not convert a part of its line.
void show(void* /*context*/, const char* text, int indent, kmp_eseverity /*severity*/) {
    const std::string_view line(text);
    fmt::print(stderr, "{:{}}{}{}", "", indent * BLANKS_A_SCOPE, line,
               line.ends_with('\n') ? "" : "\n");
}

} // namespace

void setUpLogging(const Options& options) {
    const unsigned shown = severitiesOf(options);
    km_debug_level = shown != 0 ? 1 : 0;
    for (int level = FIRST_TRACE_LEVEL; level <= options.trace; ++level) {
        km_debug_level |= 1 << (FIRST_TRACE_BIT + level - FIRST_TRACE_LEVEL);
    }
    kmhost_filter_severity(shown);
    kmhost_log_to(show, nullptr);
    Progress::enable(shown == 0);
}
