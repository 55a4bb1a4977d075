#include "FaultyHeap.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

// What lies below: the sanitizer's allocator where there is one, else the C library's.
#if defined(ABOVE_SANITIZER)
#define BELOW(name) __interceptor_##name
#else
#define BELOW(name) __libc_##name
#endif
extern "C" {
void* BELOW(malloc)(std::size_t size);
void* BELOW(calloc)(std::size_t count, std::size_t size);
void* BELOW(realloc)(void* block, std::size_t size);
void* BELOW(memalign)(std::size_t alignment, std::size_t size);
void BELOW(free)(void* block);
}

namespace {

// Plain data: they serve before any constructor has run. Other threads (a sanitizer's) only free.
bool s_watched = false;
long s_failing = 0;
bool s_onwards = false;
long s_counted = 0;
long s_failures = 0;
std::atomic<long> s_live{0};

bool fails() {
    if (!s_watched) {
        return false;
    }
    ++s_counted;
    const bool now =
        s_failing != 0 && (s_onwards ? s_counted >= s_failing : s_counted == s_failing);
    s_failures += now ? 1 : 0;
    return now;
}

void* refused() {
    errno = ENOMEM;
    return nullptr;
}

void* taken(void* block) {
    s_live += block != nullptr ? 1 : 0;
    return block;
}

void* allocateAligned(std::size_t alignment, std::size_t size) {
    return fails() ? refused() : taken(BELOW(memalign)(alignment, size));
}

void* orThrow(void* block) {
    return block != nullptr ? block : throw std::bad_alloc();
}

} // namespace

void FaultyHeap::fail(long number, bool onwards) {
    s_failing = number;
    s_onwards = onwards;
    s_counted = 0;
    s_failures = 0;
}

void FaultyHeap::watch(bool on) {
    s_watched = on;
}

void FaultyHeap::heal() {
    s_failing = 0;
}

long FaultyHeap::failures() {
    return s_failures;
}

long FaultyHeap::liveBlocks() {
    return s_live;
}

extern "C" {

void* malloc(std::size_t size) {
    return fails() ? refused() : taken(BELOW(malloc)(size));
}

void* calloc(std::size_t count, std::size_t size) {
    return fails() ? refused() : taken(BELOW(calloc)(count, size));
}

void* realloc(void* block, std::size_t size) {
    if (fails()) {
        return refused();
    }
    void* moved = BELOW(realloc)(block, size);
    s_live += (block == nullptr && moved != nullptr) ? 1 : 0;
    s_live -= (block != nullptr && moved == nullptr && size == 0) ? 1 : 0;
    return moved;
}

void free(void* block) {
    s_live -= block != nullptr ? 1 : 0;
    BELOW(free)(block);
}

void* memalign(std::size_t alignment, std::size_t size) {
    return allocateAligned(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return allocateAligned(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = allocateAligned(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}

// The sanitizer's own would not come here.
char* strdup(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(malloc(size));
    return copy != nullptr ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}

} // extern "C"

// The other forms of the standard library come down to these.
void* operator new(std::size_t size) {
    return orThrow(malloc(size != 0 ? size : 1));
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    return orThrow(memalign(static_cast<std::size_t>(alignment), size));
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return malloc(size != 0 ? size : 1);
}

void* operator new[](std::size_t size) {
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& none) noexcept {
    return operator new(size, none);
}

void operator delete(void* block) noexcept {
    free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    free(block);
}

void operator delete(void* block, std::align_val_t) noexcept {
    free(block);
}

void operator delete[](void* block) noexcept {
    free(block);
}

void operator delete[](void* block, std::size_t) noexcept {
    free(block);
}

#if defined(ABOVE_SANITIZER)
// The loader's memory is reached from its own only, where no leak detector looks; allocations are
// not recognised as its own behind the functions above.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:ld-linux";
}
#endif
