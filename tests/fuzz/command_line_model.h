#pragma once

#include "common/run_options.h"

#include <map>
#include <string>
#include <vector>

// The program's name and the lines of the text, each up to its first NUL.
std::vector<std::string> arguments_of(const std::string& text);

// The command line as the manual page tells it.
struct CommandLineModel {
    explicit CommandLineModel(const std::vector<std::string>& arguments);

    bool valid = false;
    RunMode mode = RunMode::kGet;
    std::string type;
    std::map<std::string, std::string> values = {{"-f", ""}, {"-u", ""}, {"-p", ""}};
    bool remove = false;

private:
    bool TakeOptions(const std::vector<std::string>& arguments);
};
