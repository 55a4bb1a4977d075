// Log lines and reports on their way to where the program wants them.
#include "kmhost.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

const char* km_root = "";
const char* km_log_root = ".";
int km_debug_level = 0;

namespace {

constexpr int BLANKS_A_SCOPE = 2;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

std::mutex s_lock;
std::unique_ptr<std::FILE, CloseFile> s_file;
unsigned s_severities = ~0U;

void writeIndented(std::FILE* out, const char* text, int indent) {
    std::fprintf(out, "%*s%s", indent * BLANKS_A_SCOPE, "", text);
    std::fflush(out);
}

void toStderr(void* /*context*/, const char* text, int indent, kmp_eseverity /*severity*/) {
    writeIndented(stderr, text, indent);
}

void toFile(void* /*context*/, const char* text, int indent, kmp_eseverity /*severity*/) {
    writeIndented(s_file.get(), text, indent);
}

bool passes(int severity) {
    return severity >= 0 && severity < 32 && ((s_severities >> severity) & 1U) != 0;
}

kmhost_log_sink s_sink = toStderr;
void* s_sinkContext = nullptr;

} // namespace

void kmhost_log_to(kmhost_log_sink sink, void* context) {
    const std::lock_guard lock(s_lock);
    s_sink = sink;
    s_sinkContext = context;
    s_file.reset();
}

void kmhost_log_to_stderr() {
    kmhost_log_to(toStderr, nullptr);
}

bool kmhost_log_to_file(const char* name) {
    const std::string path = std::string(km_log_root) + "/" + name;
    std::FILE* file = std::fopen(path.c_str(), "a");
    if (file == nullptr) {
        return false;
    }
    const std::lock_guard lock(s_lock);
    s_file.reset(file);
    s_sink = toFile;
    s_sinkContext = nullptr;
    return true;
}

void kmhost_filter_severity(unsigned severities) {
    const std::lock_guard lock(s_lock);
    s_severities = severities;
}

void km_log_provider_msg(const char* text, int /*zero*/, int indent, int severity) {
    const std::lock_guard lock(s_lock);
    if (s_sink != nullptr && passes(severity)) {
        s_sink(s_sinkContext, text, indent, static_cast<kmp_eseverity>(severity));
    }
}

void km_report_provider_msg(const char* text, int kind) {
    std::fprintf(stderr, "report %d: %s\n", kind, text);
}
