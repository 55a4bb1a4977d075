// The provider's log lines on standard error.
#ifndef RVPMAP_LOGGING_H
#define RVPMAP_LOGGING_H

#include "Options.h"

// Must come before the provider is called: it looks at the host's debug level once. Progress is
// shown only where no log lines are.
void setUpLogging(const Options& options);

#endif
