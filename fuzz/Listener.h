// A host's error handler: whatever is raised, the host hears a warning with both its texts.
#ifndef FUZZ_LISTENER_H
#define FUZZ_LISTENER_H

#include "Require.h"
#include "kmp/kmp.h"

inline void hear(kmp_ehandler*, const char* english, const char* localized, int severity) {
    require(english != nullptr && localized != nullptr && severity == KMP_SEVERITY_WARNING,
            "the host hears a text");
}

#endif
