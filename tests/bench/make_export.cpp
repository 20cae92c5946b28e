// Prints a registry export to measure with, or the connections file that comes of it.

#include "tests/bench/export_generator.h"

#include <cstdlib>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>

namespace {

constexpr const char* kUsage =
    "Usage: make_export (--connections N | --bytes N) [--type TYPE] [--file ROOT]\n"
    "Prints the registry export of TYPE (default rdesktop) with N connections, or with enough to\n"
    "make it N bytes long; with --file the connections file of that export, its root named ROOT.\n";

using Options = std::map<std::string, std::string>;

Options read_options(int argc, char* argv[]) {
    Options options{{"--type", "rdesktop"}};
    for (int at = 1; at < argc; at += 2) {
        const std::string name = argv[at];
        const bool known =
            name == "--connections" || name == "--bytes" || name == "--type" || name == "--file";
        if (!known || at + 1 == argc) {
            throw std::invalid_argument(name);
        }
        options[name] = argv[at + 1];
    }
    if (options.contains("--connections") == options.contains("--bytes")) {
        throw std::invalid_argument("one of --connections and --bytes");
    }
    return options;
}

std::string make(const Options& options) {
    const std::string& type = options.at("--type");
    const auto connections = options.find("--connections");
    const std::string text = connections != options.end()
                                 ? export_of_connections(type, std::stoul(connections->second))
                                 : export_of_bytes(type, std::stoul(options.at("--bytes")));
    const auto root = options.find("--file");
    return root == options.end() ? text : connections_file(root->second, text);
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        std::cout << make(read_options(argc, argv)) << std::flush;
    } catch (const std::logic_error& error) {  // also what std::stoul throws
        std::cerr << kUsage << "make_export: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    return std::cout ? EXIT_SUCCESS : EXIT_FAILURE;
}
