#pragma once

#include "common/file_handle.h"

#include <cstdint>
#include <string>

enum class RunMode : std::int32_t { kGet = 0, kSet = 1, kVersion = 2, kHelp = 3 };

// The parsed command line and what else belongs to this one run.
struct RunOptions {
    FileHandle log;                  // the open run log, or none
    RunMode mode = RunMode::kGet;    // set by the parser
    std::string type;                // connection type as typed
    std::string file;                // -f
    std::string user;                // -u
    std::string password;            // -p
    std::uint8_t remove = 0;         // -r: 0 or 1
    std::string default_connection;  // the registry's default connection, as an export read it
};

// The process-wide record: made before main runs, destroyed at exit.
extern RunOptions run_options;
