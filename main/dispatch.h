#pragma once

#include <cstdint>
#include <string>

// Handlers return a result code (common/result_codes.h), which becomes the exit status.
using GetHandler = int (*)(const std::string& type, const std::string& file,
                           const std::string& user, const std::string& password);
using SetHandler = int (*)(const std::string& type, const std::string& file,
                           const std::string& user, const std::string& password, bool remove);

struct HandlerEntry {
    char name[256];  // NUL-terminated; "*" takes every type
    GetHandler get;  // may be null
    SetHandler set;  // may be null
};

// Runs the handler of the first row that takes `type` (names compare without case). kNoHandler when
// the row has no handler for the mode.
int dispatch_get(const std::string& type, const std::string& file, const std::string& user,
                 const std::string& password);
int dispatch_set(const std::string& type, const std::string& file, const std::string& user,
                 const std::string& password, bool remove);
