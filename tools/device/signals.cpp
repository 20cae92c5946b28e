#include "tools/device/signals.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace {

constexpr std::array held_signals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGCHLD};

}  // namespace

SignalGate::SignalGate() {
    // A caller that ignores it would make the command's end unseen.
    std::signal(SIGCHLD, SIG_DFL);
    sigemptyset(&held_);
    for (const int signal : held_signals) {
        sigaddset(&held_, signal);
    }
    sigprocmask(SIG_BLOCK, &held_, &before_);
}

SignalGate::~SignalGate() {
    open();
}

void SignalGate::open() const {
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

int SignalGate::wait_and_pass_on(pid_t child) const {
    while (true) {
        siginfo_t facts = {};
        const int signal = sigwaitinfo(&held_, &facts);
        if (signal == SIGCHLD) {
            int status = 0;
            if (waitpid(child, &status, WNOHANG) == child) {
                return status;
            }
        } else if (signal > 0 && facts.si_code != SI_KERNEL) {
            kill(child, signal);
        }
    }
}

int SignalGate::end_by(int signal) const {
    // The command has left its own core file, if any.
    constexpr rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    prctl(PR_SET_DUMPABLE, 0);
    std::signal(signal, SIG_DFL);
    sigset_t only = {};
    sigemptyset(&only);
    sigaddset(&only, signal);
    sigprocmask(SIG_UNBLOCK, &only, nullptr);
    raise(signal);
    return 128 + signal;
}
