// Signals that ask the tool to end while it writes files.
#ifndef RVPMAP_SIGNALS_H
#define RVPMAP_SIGNALS_H

// From now on SIGINT, SIGTERM and SIGHUP are only noted.
void noteSignals();
// Throws Interrupted after one of them; to be called now and then, where all owners clean up.
void checkSignals();
// Whether one of them has come, for callers that must not throw.
bool signalCame();
// Lets the signal end the process as it would have done.
[[noreturn]] void endBySignal(int signal);

#endif
