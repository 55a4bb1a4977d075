// Conversions from Linux file attributes to the host's.
#ifndef DORADO_RVPLINUXCOMMON_H
#define DORADO_RVPLINUXCOMMON_H

#include "kmp/kmp.h"

class RvpLinuxCommon {
  public:
    // The host's file type (kmp_file_type) of a Linux file mode.
    static int linux_ftype(unsigned long mode);
    // Sets only `time->seconds`, from seconds since 1 January 1970.
    static void linux_to_kmptime(km_time* time, unsigned long seconds);
};

#endif
