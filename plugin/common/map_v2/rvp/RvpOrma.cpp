#include "RvpOrma.h"

#include "LogHelper.h"
#include "kmp/kmp.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <memory>
#include <unistd.h>

namespace {

constexpr std::size_t COPY_BLOCK_SIZE = 1024;

std::size_t roomOf(int size) {
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

// Indexed by remainder + 35, so that negative remainders find their digit too.
constexpr char DIGITS[] = "zyxwvutsrqponmlkjihgfedcba9876543210123456789abcdefghijklmnopqrstuvwxyz";
constexpr int ZERO_DIGIT = 35;
static_assert(sizeof DIGITS == 71 + 1 && DIGITS[ZERO_DIGIT] == '0');

int s_tempFileCounter = 0;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
// What the last flush at the close says is not asked: a copy that got so far counts as done.
using File = std::unique_ptr<std::FILE, CloseFile>;

// False after a read or write error, which `function` has then logged.
bool copyBlocks(std::FILE* from, std::FILE* to, const char* source, const char* destination,
                const char* function) {
    char block[COPY_BLOCK_SIZE];
    while (std::feof(from) == 0) {
        const std::size_t count = std::fread(block, 1, sizeof block, from);
        if (std::ferror(from) != 0) {
            PLUGIN_LOG_AS(function, __LINE__, 0, "Unable to read source: %s [%d]\n", source, errno);
            return false;
        }
        if (std::fwrite(block, 1, count, to) < count) {
            PLUGIN_LOG_AS(function, __LINE__, 0, "Unable to write destination: %s [%d]\n",
                          destination, errno);
            return false;
        }
    }
    return true;
}

} // namespace

void InitializeCriticalSection(pthread_mutex_t* section) {
    const int result = pthread_mutex_init(section, nullptr);
    if (result != 0) {
        PLUGIN_LOG(0, "Unable to init CS: %d\n", result);
    }
}

int EnterCriticalSection(pthread_mutex_t* section) {
    return pthread_mutex_lock(section);
}

int LeaveCriticalSection(pthread_mutex_t* section) {
    return pthread_mutex_unlock(section);
}

int DeleteCriticalSection(pthread_mutex_t* section) {
    return pthread_mutex_destroy(section);
}

int GetLastError() {
    return errno;
}

int GetTempPath(int size, char* buffer) {
    V_strlcpy(buffer, "/tmp", roomOf(size));
    return 1;
}

int GetTempFileName(char* directory, int size, char* prefix, unsigned int /*unique*/,
                    char* result) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    V_snprintf(result, roomOf(size), "%s/%s%d_%d_%d", directory, prefix, std::rand(),
               static_cast<int>(getpid()), s_tempFileCounter);
    ++s_tempFileCounter;
    return 1;
}

bool CopyFile(const char* source, const char* destination, bool overwrite) {
    PLUGIN_LOG(4, "Source: %s\n", source);
    PLUGIN_LOG(4, "Destination: %s\n", destination);
    if (access(destination, F_OK) == 0 && !overwrite) {
        PLUGIN_LOG(0, "Unable to overwrite destination: %s\n", destination);
        return false;
    }
    const File from(std::fopen(source, "rb"));
    if (from == nullptr) {
        PLUGIN_LOG(0, "Unable to open source: %s\n", source);
        return true;
    }
    File to(std::fopen(destination, "wb"));
    if (to == nullptr) {
        // The line names the source: readers of the log know it so.
        PLUGIN_LOG(0, "Unable to open destination: %s\n", source);
        return true;
    }
    if (copyBlocks(from.get(), to.get(), source, destination, __func__)) {
        return true;
    }
    to.reset();
    PLUGIN_LOG(4, "Removing destination on error: %s\n", destination);
    DeleteFile(destination);
    return false;
}

bool DeleteFile(const char* name) {
    return unlink(name) == 0;
}

char* _itoa(int value, char* buffer, int base) {
    char* end = buffer;
    if (base >= 2 && base <= 36) {
        const bool negative = value < 0;
        do {
            *end++ = DIGITS[value % base + ZERO_DIGIT];
            value /= base;
        } while (value != 0);
        if (negative) {
            *end++ = '-';
        }
    }
    *end = '\0';
    std::reverse(buffer, end);
    return buffer;
}

void* LoadLibrary(const char* name) {
    return dlopen(name, RTLD_LAZY | RTLD_GLOBAL);
}

int FreeLibrary(void* handle) {
    return dlclose(handle);
}

void* GetProcAddress(void* handle, const char* symbol) {
    return dlsym(handle, symbol);
}
