#include "FaultyHeap.h"

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
void BELOW(free)(void* block);
}

namespace {

bool fails() {
    const bool now = FaultyHeap::isWatched && FaultyHeap::fault.strikesNow();
    errno = now ? ENOMEM : errno;
    return now;
}

void* counted(void* block) {
    FaultyHeap::liveBlocks += block != nullptr ? 1 : 0;
    return block;
}

} // namespace

extern "C" {

void* malloc(std::size_t size) {
    return fails() ? nullptr : counted(BELOW(malloc)(size));
}

void* calloc(std::size_t count, std::size_t size) {
    return fails() ? nullptr : counted(BELOW(calloc)(count, size));
}

void* realloc(void* block, std::size_t size) {
    if (block == nullptr) {
        return malloc(size);
    }
    return fails() ? nullptr : BELOW(realloc)(block, size);
}

void free(void* block) {
    FaultyHeap::liveBlocks -= block != nullptr ? 1 : 0;
    BELOW(free)(block);
}

} // extern "C"

#if defined(ABOVE_SANITIZER)
// The sanitizer has these of its own, which would not come here.
extern "C" char* strdup(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    void* copy = malloc(size);
    return copy != nullptr ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return malloc(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return malloc(size);
}

void* operator new(std::size_t size) {
    void* block = malloc(size);
    return block != nullptr ? block : throw std::bad_alloc();
}

void* operator new[](std::size_t size) {
    return operator new(size);
}

void operator delete(void* block) noexcept {
    free(block);
}

void operator delete[](void* block) noexcept {
    free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    free(block);
}

void operator delete[](void* block, std::size_t) noexcept {
    free(block);
}

// The loader's memory is reached from its own only, where no leak detector looks; allocations are
// not recognised as its own behind the functions above.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:ld-linux";
}
#endif
