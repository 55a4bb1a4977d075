// The host's bounded string and GUID functions.
#include "kmhost.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/random.h>

size_t V_strlcpy(char* to, const char* from, size_t size) {
    const size_t length = std::strlen(from);
    if (size != 0) {
        const size_t copied = std::min(length, size - 1);
        std::memcpy(to, from, copied);
        to[copied] = '\0';
    }
    return length;
}

size_t V_strlcat(char* to, const char* from, size_t size) {
    const size_t used = strnlen(to, size);
    return used + V_strlcpy(to + used, from, size - used);
}

int V_snprintf(char* to, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = V_vsnprintf(to, size, format, arguments);
    va_end(arguments);
    return length;
}

int V_vsnprintf(char* to, size_t size, const char* format, va_list arguments) {
    return std::vsnprintf(to, size, format, arguments);
}

int RGUIDCreate(struct RGUID* guid) {
    const ssize_t filled = getrandom(guid->bytes, sizeof guid->bytes, 0);
    if (filled != static_cast<ssize_t>(sizeof guid->bytes)) {
        return KMP_ESYSTEM;
    }
    // Version 4, variant 1 of RFC 4122: a random GUID that says so.
    guid->bytes[6] = static_cast<uint8_t>((guid->bytes[6] & 0x0F) | 0x40);
    guid->bytes[8] = static_cast<uint8_t>((guid->bytes[8] & 0x3F) | 0x80);
    return KMP_OK;
}

int RGUIDAsString(const struct RGUID* guid, char* text, int size, int /*flags*/) {
    constexpr char HEX[] = "0123456789abcdef";
    constexpr int TEXT_SIZE = 2 * sizeof guid->bytes + 1;
    if (size < TEXT_SIZE) {
        return KMP_EINVAL;
    }
    for (const uint8_t byte : guid->bytes) {
        *text++ = HEX[byte >> 4];
        *text++ = HEX[byte & 0x0F];
    }
    *text = '\0';
    return KMP_OK;
}
