#pragma once

#include <stdexcept>
#include <string>

/// Exit statuses of the simulated device's own failures; anything else is the command's status.
enum class ExitStatus {
    usage = 64,
    bad_input = 65,
    no_input = 66,
    unavailable = 69,
    cannot_create = 73,
    cannot_execute = 126,
    not_found = 127,
};

/// A failure that ends the program with a message and a status.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string& message)
        : std::runtime_error(message), status_(status) {}

    [[nodiscard]] int status() const { return static_cast<int>(status_); }

private:
    ExitStatus status_;
};

/// "SUBJECT: text of the current errno".
std::string errno_text(const std::string& subject);
