#include "RvpLinuxCommon.h"

#include <sys/stat.h>

namespace {

// From 1 January 1900 to 1 January 1970.
constexpr unsigned long EPOCH_DIFFERENCE_SECONDS = 2208988800UL;

} // namespace

int RvpLinuxCommon::linux_ftype(unsigned long mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return KMP_FTYPE_REGULAR;
    case S_IFDIR:
        return KMP_FTYPE_DIRECTORY;
    case S_IFBLK:
        return KMP_FTYPE_BLOCK_DEVICE;
    case S_IFCHR:
        return KMP_FTYPE_CHARACTER_DEVICE;
    case S_IFLNK:
        return KMP_FTYPE_SYMBOLIC_LINK;
    case S_IFIFO:
    case S_IFSOCK:
        return KMP_FTYPE_FIFO_OR_SOCKET;
    default:
        return KMP_FTYPE_UNKNOWN;
    }
}

void RvpLinuxCommon::linux_to_kmptime(km_time* time, unsigned long seconds) {
    time->seconds = seconds + EPOCH_DIFFERENCE_SECONDS;
}
