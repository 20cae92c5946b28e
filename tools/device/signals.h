#pragma once

#include <sys/types.h>

#include <csignal>

/// Holds back, as long as it lives, the signals that belong to the command, so that none of them
/// ends this program before it has tidied up.
class SignalGate {
public:
    SignalGate();
    ~SignalGate();
    SignalGate(const SignalGate&) = delete;
    SignalGate& operator=(const SignalGate&) = delete;

    /// Gives a child back the signals as they were; called just before it executes the command.
    void open() const;

    /// Waits until the child has ended and hands it every signal that comes in meanwhile, except
    /// those that the terminal has sent to the whole group anyway. Returns the wait status.
    int wait_and_pass_on(pid_t child) const;

    /// Ends this process by the signal; returns 128 + the signal where that cannot be done.
    int end_by(int signal) const;

private:
    sigset_t held_ = {};
    sigset_t before_ = {};
};
