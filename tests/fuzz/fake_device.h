#pragma once

#include "tests/fuzz/shell_line.h"

#include <map>
#include <string>
#include <vector>

// A device that stands in memory. While one lives (one at a time), the files that are opened by
// absolute names, and all programs that are started, are its own: no process is started and nothing
// reaches the disk. Relative names stay what they are, for the fuzzer's own files.
//
// A finding is what no input may bring about: a file written at a place that is not the tool's, a
// program beside regsh and rm, a command whose words are not those of its verb, shell characters
// outside of quotes, an import of what was not written.
class FakeDevice {
public:
    FakeDevice();
    FakeDevice(const FakeDevice&) = delete;
    FakeDevice& operator=(const FakeDevice&) = delete;
    ~FakeDevice();

    static constexpr const char* kConnectionsFile = "/home/connections.xml";

    std::map<std::string, std::string> files;  // by absolute names
    std::string session;                       // every session file that is not in `files`
    std::string default_connection;            // what "regsh get" says of it
    std::string listing;                       // what "regsh get" says of anything else
    std::string registry;                      // what "regsh export" writes
    std::vector<std::string> imported;         // what "regsh import" was given

    // The content of a file to be read, or null.
    const std::string* Find(const std::string& path) const;
    // Runs a command as the registry client or rm would. Its exit status.
    int Run(const Words& words, std::string& output);
    // The same for a line that the shell is asked to run.
    int RunLine(const std::string& line, std::string& output);
};

// What the pipeline that asks for the product configuration prints first of /etc/systeminfo,
// trimmed and up to its first NUL.
std::string product_configuration(const std::string& system_info);
