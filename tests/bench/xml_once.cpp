// Takes one text through one XML library in a fresh process and prints what each step cost, as
// JSON:
//
//   xml_once LIBRARY FILE
//   xml_once --versions      prints those of the compiler and the libraries
//
// Times are nanoseconds. Sizes are bytes; "peak" is the greatest resident size so far, "tree" how
// much the resident size grew while parsing. The file is read before anything is measured.

#include "tests/bench/peers.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

const XmlPeerRow& find_peer(const std::string& name) {
    for (const XmlPeerRow& row : xml_peers()) {
        if (row.name == name) {
            return row;
        }
    }
    throw std::runtime_error("no library " + name);
}

// Into memory of just its size, so that no freed block is left for the library to reuse.
std::string read_file(const std::string& name) {
    std::ifstream stream(name, std::ios::binary | std::ios::ate);
    std::string text(stream ? static_cast<std::size_t>(stream.tellg()) : 0, '\0');
    stream.seekg(0).read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!stream) {
        throw std::runtime_error("cannot read " + name);
    }
    return text;
}

// The bytes behind a label such as "Rss:" in a file of /proc/self.
std::int64_t proc_bytes(const char* file, const std::string& label) {
    std::ifstream stream(file);
    std::string word;
    while (stream >> word) {
        std::int64_t kibibytes = 0;
        if (word == label && stream >> kibibytes) {
            return kibibytes * 1024;
        }
    }
    throw std::runtime_error("no " + label + " in " + file);
}

// The rollup walks the page tables. VmRSS of /proc/self/status is an estimate, off by more than a
// small tree.
std::int64_t resident() {
    return proc_bytes("/proc/self/smaps_rollup", "Rss:");
}

std::int64_t peak() {
    return proc_bytes("/proc/self/status", "VmHWM:");
}

std::int64_t nanoseconds_of(const auto& step) {
    const auto start = std::chrono::steady_clock::now();
    step();
    return std::chrono::nanoseconds(std::chrono::steady_clock::now() - start).count();
}

void measure(const std::string& library, const std::string& file) {
    const XmlPeerRow& row = find_peer(library);
    const std::string text = read_file(file);
    std::unique_ptr<XmlPeer> peer;
    std::size_t printed = 0;

    const std::int64_t peak_before = peak();
    const std::int64_t resident_before = resident();
    const std::int64_t parse = nanoseconds_of([&] {
        peer = row.make();
        peer->Parse(text);
    });
    const std::int64_t tree = resident() - resident_before;
    const std::int64_t peak_parsed = peak();
    const std::int64_t print = nanoseconds_of([&] { printed = peer->Print(); });
    const std::int64_t peak_printed = peak();
    const std::int64_t destroy = nanoseconds_of([&] { peer.reset(); });

    std::cout << "{\"library\": \"" << library << "\", \"document\": " << text.size()
              << ", \"printed\": " << printed << ", \"parse\": " << parse
              << ", \"print\": " << print << ", \"destroy\": " << destroy << ", \"tree\": " << tree
              << ", \"peak_before\": " << peak_before << ", \"peak_parsed\": " << peak_parsed
              << ", \"peak_printed\": " << peak_printed << "}\n";
}

void print_versions() {
    const char* separator = "{";
    for (const auto& [name, version] : peer_versions()) {
        std::cout << separator << '"' << name << "\": \"" << version << '"';
        separator = ", ";
    }
    std::cout << "}\n";
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc == 2 && std::string(argv[1]) == "--versions") {
        print_versions();
        return EXIT_SUCCESS;
    }
    if (argc != 3) {
        std::cerr << "Usage: xml_once LIBRARY FILE\n       xml_once --versions\n";
        return EXIT_FAILURE;
    }
    try {
        measure(argv[1], argv[2]);
    } catch (const std::exception& error) {
        std::cerr << "xml_once: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
