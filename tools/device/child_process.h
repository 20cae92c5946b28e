#pragma once

#include <string>
#include <vector>

/// Runs a helper program (absolute path first) without the caller's loader variables and returns
/// what it prints on standard output; empty when it cannot be started.
std::string output_of(const std::vector<std::string>& arguments);

/// Runs a helper program (absolute path first) without the caller's loader variables, with the
/// given NAME=VALUE added to its environment and its standard output going to standard error.
/// Returns its exit status, 128 + N for signal N, 127 when it cannot be started.
int status_of(const std::vector<std::string>& arguments, const std::string& setting);
