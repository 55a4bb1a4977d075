#include "Signals.h"

#include "ExitStatus.h"

#include <csignal>
#include <cstdlib>

namespace {

volatile std::sig_atomic_t s_signal = 0;

void note(int signal) {
    s_signal = signal;
}

} // namespace

// A signal that was ignored from the start, as under nohup, stays ignored.
void noteSignals() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        ::sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN) {
            action.sa_handler = note;
            action.sa_flags = 0;
            ::sigaction(signal, &action, nullptr);
        }
    }
}

void checkSignals() {
    if (s_signal != 0) {
        throw Interrupted(s_signal);
    }
}

bool signalCame() {
    return s_signal != 0;
}

void endBySignal(int signal) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    std::_Exit(128 + signal);
}
