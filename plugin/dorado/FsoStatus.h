// Status codes of the file-system-object library, as host codes.
#ifndef DORADO_FSOSTATUS_H
#define DORADO_FSOSTATUS_H

#include "fso/IFileSystemObjectV1.h"
#include "kmp/kmp.h"

#include <cstdint>

struct FsoStatusCode {
    uint32_t status;
    int code;
};

inline constexpr FsoStatusCode FSO_STATUS_CODES[] = {
    {FSO_INVALID, KMP_EINVAL},
    {FSO_IO, KMP_ESYSTEM},
    {FSO_NOT_FOUND, KMP_ESYSTEM},
    {FSO_UNSUPPORTED, KMP_ENOTSUP},
    {FSO_NO_MEMORY, KMP_ENOMEM},
    {FSO_NOT_INITIALISED, KMP_ENOTINIT},
    {FSO_INCOMPATIBLE, KMP_EINCOMPATIBLE},
    {FSO_NOT_PERMITTED, KMP_EPERM},
    {FSO_NO_LIBRARY, KMP_ENOLIBRARY},
    {FSO_NO_FUNCTION, KMP_ENOFUNCTION},
    {FSO_DAMAGED, KMP_ESYSTEM},
};

// For every status but success.
inline int hostCodeOf(uint32_t status) {
    for (const FsoStatusCode& known : FSO_STATUS_CODES) {
        if (known.status == status) {
            return known.code;
        }
    }
    return KMP_EINTERNAL;
}

#endif
