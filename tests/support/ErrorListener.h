// What the host hears of errors.
#ifndef TESTS_ERRORLISTENER_H
#define TESTS_ERRORLISTENER_H

#include "kmp/kmp.h"

#include <string>
#include <vector>

// A handler of the host, which gets itself back as its function's first argument.
struct ErrorListener : kmp_ehandler {
    struct Heard {
        std::string english;
        bool isLocalized; // with the English text
        int severity;

        bool operator==(const Heard&) const = default;
    };

    ErrorListener() : kmp_ehandler{hear} {}

    static void hear(kmp_ehandler* self, const char* english, const char* localized, int severity) {
        const bool isLocalized = localized != nullptr && std::string(localized) == english;
        static_cast<ErrorListener*>(self)->heard.push_back({english, isLocalized, severity});
    }

    std::vector<Heard> heard;
};

#endif
