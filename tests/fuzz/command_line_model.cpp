#include "tests/fuzz/command_line_model.h"

#include <sstream>

namespace {

std::string lower(std::string text) {
    for (char& c : text) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return text;
}

}  // namespace

std::vector<std::string> arguments_of(const std::string& text) {
    std::vector<std::string> arguments = {"corvik"};
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        arguments.emplace_back(line.c_str());
    }
    return arguments;
}

CommandLineModel::CommandLineModel(const std::vector<std::string>& arguments) {
    const std::map<std::string, RunMode> modes = {{"-get", RunMode::kGet},
                                                  {"-set", RunMode::kSet},
                                                  {"-v", RunMode::kVersion},
                                                  {"-h", RunMode::kHelp}};
    const auto found = modes.find(arguments.size() < 2 ? "" : lower(arguments[1]));
    if (found == modes.end()) {
        return;
    }
    mode = found->second;
    const bool takes_options = mode == RunMode::kGet || mode == RunMode::kSet;
    valid = !takes_options || (arguments.size() >= 5 && TakeOptions(arguments));
}

bool CommandLineModel::TakeOptions(const std::vector<std::string>& arguments) {
    type = arguments[2];
    for (std::size_t i = 3; i < arguments.size(); ++i) {
        const std::string option = lower(arguments[i]);
        if (option.substr(0, 1) != "-") {
            continue;
        }
        const bool has_value = values.count(option) == 1 && i + 1 < arguments.size();
        if (has_value) {
            values[option] = arguments[i + 1];
        } else if (option != "-r") {
            return false;
        }
        remove = remove || option == "-r";
    }
    return true;
}
