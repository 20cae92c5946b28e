// regsh - reference client for the configuration registry, for machines that are not a device.
//
// It keeps the registry in one SQLite file: the one named by the environment variable REGSH_DB, or
// /etc/regsh/registry.db. "regsh --help" tells the verbs, what is staged and what is committed, and
// the form of the documents.

#include "tools/regsh/commands.h"

#include <exception>
#include <iostream>
#include <string>
#include <vector>

int main(int argc, char* argv[]) {
    try {
        return static_cast<int>(regsh::run(std::vector<std::string>(argv + 1, argv + argc)));
    } catch (const std::exception& error) {
        std::cerr << "regsh: " << error.what() << "\n";
        return static_cast<int>(regsh::Status::failure);
    }
}
