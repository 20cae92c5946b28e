#pragma once

// Export and import of one connection type as a program of another XML library would do them: the
// same commands in the same order as corvik gives them, and the same documents. Only the classic
// layout of image type 9 with the product configuration "standard", and only types without session
// files; a device of another kind is not looked for.
//
//   pipeline get TYPE FILE
//   pipeline set TYPE FILE [-r]      TYPE is the registry's name for it

#include <stdio.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace pipeline {

// The labels of the connections that are to be imported, each as often as it was added.
class EnabledLabels {
public:
    void add(std::string_view label) { ++waiting_[folded(label)]; }

    // True when the label is still waited for, in any case; it then waits once less.
    bool take(std::string_view label) {
        const auto found = waiting_.find(folded(label));
        if (found == waiting_.end() || found->second == 0) {
            return false;
        }
        --found->second;
        return true;
    }

private:
    static std::string folded(std::string_view label) {
        std::string text(label);
        for (char& c : text) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        return text;
    }

    std::unordered_map<std::string, int> waiting_;
};

// What each library does in its own way. Every step is false when it fails.
class Documents {
public:
    Documents() = default;
    Documents(const Documents&) = delete;
    Documents& operator=(const Documents&) = delete;
    virtual ~Documents() = default;

    // Export: makes the connections file out of the registry's export.
    virtual bool read_export(const std::string& file) = 0;
    virtual bool write_connections(const std::string& root, const std::string& file) = 0;

    // Import: the file itself, the export in it cut down to the enabled connections, those that
    // only the registry has added to it, the outcome written.
    virtual bool read_connections(const std::string& file) = 0;
    virtual bool keep_enabled() = 0;
    virtual bool merge_export(const std::string& file) = 0;
    virtual bool write_import(const std::string& product_config, const std::string& file) = 0;
};

inline bool run(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

inline std::vector<std::string> output_lines(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> stream(popen(command.c_str(), "r"), pclose);
    std::vector<std::string> lines;
    char line[1024];
    while (stream && std::fgets(line, sizeof line, stream.get()) != nullptr) {
        lines.emplace_back(line);
    }
    return lines;
}

// The second word of a line that has two; else empty.
inline std::string second_of_two(const std::string& line) {
    std::istringstream words(line);
    std::string first;
    std::string second;
    std::string third;
    words >> first >> second >> third;
    return third.empty() ? second : std::string();
}

inline std::string registry_value(const std::string& path) {
    const std::vector<std::string> lines = output_lines("regsh get " + path);
    return lines.empty() ? std::string() : second_of_two(lines.front());
}

// Whether this is a zero client is seen by this.
inline std::string product_config() {
    std::ifstream file("/etc/systeminfo");
    for (std::string line; std::getline(file, line);) {
        if (line.find("PRODUCT_CONFIG") != std::string::npos) {
            std::istringstream parts(line);
            std::string value;
            std::getline(parts, value, '"');
            std::getline(parts, value, '"');
            return value;
        }
    }
    return {};
}

class Pipeline {
public:
    Pipeline(Documents& documents, const std::string& type)
        : documents_(documents),
          type_path_("root/ConnectionType/" + type),
          path_(type_path_ + "/connections"),
          export_file_("/tmp/" + type + ".xml") {}

    bool get(const std::string& file) {
        ask_installed_types();
        return export_registry(&Documents::read_export) &&
               documents_.write_connections("RDP", file);
    }

    bool set(const std::string& file, bool remove) {
        if (!documents_.read_connections(file)) {
            return false;
        }
        ask_installed_types();
        if (!run("regsh contains " + type_path_)) {
            return false;
        }
        if (remove) {
            remove_connections();
        }
        if (!import_connections()) {
            return false;
        }
        refresh_icons();
        return true;
    }

private:
    static void ask_installed_types() {
        for (const char* type : {"freerdp", "xen", "iceweasel", "freerdp"}) {
            run(std::string("regsh contains root/ConnectionType/") + type);
        }
    }

    bool export_registry(bool (Documents::*use)(const std::string& file)) {
        if (!run("rm -f " + export_file_ + ";regsh export " + type_path_ + " " + export_file_) ||
            !(documents_.*use)(export_file_)) {
            return false;
        }
        static_cast<void>(product_config());
        run("rm -f " + export_file_);
        return true;
    }

    void remove_connections() {
        const std::vector<std::string> lines = output_lines("regsh get " + path_);
        registry_value("root/ConnectionManager/defaultConnection");
        for (const std::string& line : lines) {
            if (const std::string entry = second_of_two(line); !entry.empty()) {
                run("regsh delete " + entry + "\n");
            }
        }
        run("regsh commit " + path_);
        run("regsh commit");
    }

    bool import_connections() {
        const std::string file = "/tmp/import.xml";
        if (!documents_.keep_enabled() || !export_registry(&Documents::merge_export) ||
            !documents_.write_import(product_config(), file)) {
            return false;
        }
        run("regsh import " + file);
        run("regsh commit " + path_);
        return true;
    }

    void refresh_icons() {
        for (const std::string& line : output_lines("regsh get " + path_)) {
            if (const std::string entry = second_of_two(line); !entry.empty()) {
                const std::string icon = entry + "/hasDesktopIcon";
                const std::string value = registry_value(icon);
                run("regsh set " + icon + " " + value);
                run("regsh commit " + entry);
            }
        }
    }

    Documents& documents_;
    std::string type_path_;
    std::string path_;
    std::string export_file_;
};

inline int main_of(int argc, char* argv[], Documents& documents) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 3 && words[0] == "get") {
        return Pipeline(documents, words[1]).get(words[2]) ? 0 : 1;
    }
    if (words.size() >= 3 && words[0] == "set") {
        return Pipeline(documents, words[1]).set(words[2], words.size() > 3) ? 0 : 1;
    }
    std::fprintf(stderr, "usage: %s get|set TYPE FILE [-r]\n", argv[0]);
    return 2;
}

}  // namespace pipeline
