// libext2fs over a Volume: reads only, every write is refused.
#ifndef LIBFSO_EXT_IOMANAGER_H
#define LIBFSO_EXT_IOMANAGER_H

#include "Volume.h"

#include <ext2fs/ext2fs.h>
#include <string>

// The manager to open file systems with.
io_manager volumeIoManager();
// The device name under which the manager finds a volume. The volume must outlive what is opened
// by it.
std::string volumeDeviceName(Volume& volume);

#endif
