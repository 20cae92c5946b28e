#pragma once

// Which of the next system calls of this program fail; a child inherits the settings. The calls
// themselves stand with the tests of the command runner.
struct FailingCalls {
    bool fork = false;
    bool fdopen = false;
    bool execv = false;
    int interrupted_waits = 0;
};

FailingCalls& failing_calls();

// Lets this program start no process, for as long as it lives.
class NoMoreProcesses {
public:
    NoMoreProcesses() { failing_calls().fork = true; }
    ~NoMoreProcesses() { failing_calls().fork = false; }
    NoMoreProcesses(const NoMoreProcesses&) = delete;
    NoMoreProcesses& operator=(const NoMoreProcesses&) = delete;
};
