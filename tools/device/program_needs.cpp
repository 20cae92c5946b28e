#include "tools/device/program_needs.h"

#include "tools/device/child_process.h"
#include "tools/device/file_work.h"

#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <sstream>
#include <string>

namespace {

using Paths = std::vector<std::filesystem::path>;

// Scripts whose interpreter is a script are followed only so far, as the kernel does.
constexpr int deepest_script = 4;

Paths needs_below(const std::filesystem::path& program, int depth);

template <typename Record>
bool read_record(int file, ElfW(Off) offset, Record& record) {
    const ssize_t size = pread(file, &record, sizeof record, static_cast<off_t>(offset));
    return size == static_cast<ssize_t>(sizeof record);
}

std::string read_string(int file, const ElfW(Phdr) & segment) {
    std::string text(segment.p_filesz, '\0');
    if (pread(file, text.data(), text.size(), static_cast<off_t>(segment.p_offset)) <= 0) {
        return {};
    }
    return text.substr(0, text.find('\0'));
}

/// The loader that a dynamic binary names; empty for anything else.
std::filesystem::path loader_of(int file) {
    ElfW(Ehdr) header = {};
    if (!read_record(file, 0, header) ||
        std::memcmp(static_cast<const void*>(header.e_ident), ELFMAG, SELFMAG) != 0) {
        return {};
    }
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) segment = {};
        const auto offset = header.e_phoff + ElfW(Off){header.e_phentsize} * i;
        if (!read_record(file, offset, segment)) {
            return {};
        }
        if (segment.p_type == PT_INTERP) {
            return read_string(file, segment);
        }
    }
    return {};
}

/// Reads the loader's own listing: "NAME => PATH (ADDRESS)", or "PATH (ADDRESS)".
Paths read_listing(const std::string& listing) {
    Paths libraries;
    std::istringstream lines(listing);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t start = line.find('/');
        const std::size_t end = line.rfind(" (");
        if (start != std::string::npos && end != std::string::npos && start < end) {
            const std::size_t arrow = line.find("=> ");
            const std::size_t from = arrow == std::string::npos ? start : arrow + 3;
            libraries.emplace_back(line.substr(from, end - from));
        }
    }
    return libraries;
}

Paths libraries_of(const std::filesystem::path& program, const std::filesystem::path& loader) {
    Paths needs = read_listing(output_of({loader.string(), "--list", program.string()}));
    needs.push_back(loader);
    return needs;
}

std::filesystem::path find_system_program(const std::string& name) {
    for (const char* folder : {"/usr/local/bin", "/usr/bin", "/bin"}) {
        std::filesystem::path path = std::filesystem::path(folder) / name;
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return {};
}

Paths interpreters_of(const std::string& first_line, int depth) {
    std::istringstream words(first_line);
    std::filesystem::path interpreter;
    std::string argument;
    words >> interpreter >> argument;
    std::vector<std::filesystem::path> programs = {interpreter};
    if (interpreter.filename() == "env") {
        programs.push_back(find_system_program(argument));
    }
    Paths needs;
    for (const std::filesystem::path& each : programs) {
        if (each.is_absolute() && access(each.c_str(), X_OK) == 0) {
            needs.push_back(each);
            const Paths inner = needs_below(each, depth + 1);
            needs.insert(needs.end(), inner.begin(), inner.end());
        }
    }
    return needs;
}

Paths needs_below(const std::filesystem::path& program, int depth) {
    const FileHandle file(open(program.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 256> start = {};
    if (depth > deepest_script || !file.is_open() ||
        pread(file.get(), start.data(), start.size() - 1, 0) < 2) {
        return {};
    }
    if (start[0] == '#' && start[1] == '!') {
        const std::string text = start.data() + 2;
        return interpreters_of(text.substr(0, text.find('\n')), depth);
    }
    const std::filesystem::path loader = loader_of(file.get());
    return loader.empty() ? Paths() : libraries_of(program, loader);
}

}  // namespace

std::vector<std::filesystem::path> find_program_needs(const std::filesystem::path& program) {
    return needs_below(program, 0);
}
