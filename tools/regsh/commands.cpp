#include "tools/regsh/commands.h"

#include "tools/regsh/database.h"
#include "tools/regsh/document.h"
#include "tools/regsh/node.h"
#include "tools/regsh/registry_path.h"
#include "tools/regsh/store.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string_view>

namespace regsh {

namespace {

using Words = std::vector<std::string>;

constexpr const char* store_variable = "REGSH_DB";
constexpr const char* default_store = "/etc/regsh/registry.db";
constexpr const char* product_config_path = "root/system/productConfig";
constexpr const char* default_product_config = "standard";

struct Verb {
    std::string_view name;
    std::size_t least_words;
    std::size_t most_words;
    std::string_view synopsis;
    std::string_view summary;
    Status (*run)(const Words& words);
};

std::string store_file() {
    const char* const file = std::getenv(store_variable);
    return file == nullptr || *file == '\0' ? default_store : file;
}

Store open_for_reading() {
    return {store_file(), Database::Access::read};
}

Store open_for_writing() {
    return {store_file(), Database::Access::write};
}

void print(const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (!written || std::fflush(stdout) != 0) {
        throw RegistryError("cannot write to standard output");
    }
}

void complain(const std::string& message) {
    std::cerr << "regsh: " << message << "\n";
}

Status complain_missing(const RegistryPath& path) {
    complain(to_text(path) + " is not in the registry");
    return Status::failure;
}

std::string quoted(std::string_view value) {
    std::string text = "\"";
    for (const char character : value) {
        switch (character) {
            case '\n':
                text += "\\n";
                break;
            case '\r':
                text += "\\r";
                break;
            case '\t':
                text += "\\t";
                break;
            case '"':
            case '\\':
                text += '\\';
                [[fallthrough]];
            default:
                text += character;
        }
    }
    return text + "\"";
}

std::string listing(const RegistryPath& path, const std::vector<Node>& children) {
    const std::string prefix = to_text(path) + "/";
    std::string text;
    for (const Node& child : children) {
        text += child.kind == Kind::directory ? "dir " : "key ";
        text += prefix + child.name + "\n";
    }
    return text;
}

// Everything is read and the store closed before the first byte is printed: a reader that takes its
// time, and runs other commands meanwhile, must not keep writers waiting.
std::optional<std::string> answer_get(const RegistryPath& path) {
    Store store = open_for_reading();
    const std::optional<Node> node = store.find(path);
    if (!node) {
        return std::nullopt;
    }
    if (node->kind == Kind::key) {
        return to_text(path) + " " + node->value + "\n";
    }
    return listing(path, store.children(path));
}

Status run_get(const Words& words) {
    const std::optional<std::string> answer = answer_get(parse_path(words[0]));
    if (!answer) {
        return Status::failure;
    }
    print(*answer);
    return Status::success;
}

Status run_contains(const Words& words) {
    return open_for_reading().find(parse_path(words[0])) ? Status::success : Status::failure;
}

Status run_set(const Words& words) {
    const RegistryPath path = parse_path(words[0]);
    Store store = open_for_writing();
    store.set(path, words.size() > 1 ? words[1] : "");
    store.finish();
    return Status::success;
}

Status run_create(const Words& words) {
    const RegistryPath path = parse_path(words[0]);
    Store store = open_for_writing();
    store.create(path);
    store.finish();
    return Status::success;
}

Status run_delete(const Words& words) {
    const RegistryPath path = parse_path(words[0]);
    Store store = open_for_writing();
    if (!store.remove(path)) {
        return complain_missing(path);
    }
    store.finish();
    return Status::success;
}

Status run_commit(const Words& words) {
    const RegistryPath path = words.empty() ? RegistryPath() : parse_path(words[0]);
    Store store = open_for_writing();
    if (!store.commit(path)) {
        return complain_missing(path);
    }
    store.finish();
    return Status::success;
}

Status run_export(const Words& words) {
    PlacedDirectory content;
    content.place = parse_path(words[0]);
    std::string product_config = default_product_config;
    {
        Store store = open_for_reading();
        std::optional<Node> directory = store.read_tree(content.place);
        if (!directory) {
            return complain_missing(content.place);
        }
        content.directory = std::move(*directory);
        const std::optional<Node> key = store.find(parse_path(product_config_path));
        if (key && key->kind == Kind::key) {
            product_config = key->value;
        }
    }
    if (content.directory.kind == Kind::key) {
        throw RegistryError(to_text(content.place) + " is a key: only a directory is exported");
    }
    write_export(words[1], content, product_config);
    return Status::success;
}

Status run_import(const Words& words) {
    const std::vector<PlacedDirectory> content = read_export(words[0]);
    Store store = open_for_writing();
    for (const PlacedDirectory& placed : content) {
        store.merge(placed.place, placed.directory);
    }
    store.finish();
    return Status::success;
}

Status run_load(const Words& words) {
    const PlacedDirectory content = read_registry(words[0]);
    Store store = open_for_writing();
    store.merge(content.place, content.directory);
    store.commit(RegistryPath());
    store.finish();
    return Status::success;
}

void append_tree(const Node& node, const std::string& name, std::size_t depth, std::string& text) {
    text.append(2 * depth, ' ');
    if (node.kind == Kind::key) {
        text += name + " = " + quoted(node.value) + "\n";
        return;
    }
    text += name + "/\n";
    for (const Node& child : node.children) {
        append_tree(child, child.name, depth + 1, text);
    }
}

Status run_tree(const Words& words) {
    const RegistryPath path = words.empty() ? RegistryPath() : parse_path(words[0]);
    const std::optional<Node> tree = open_for_reading().read_tree(path);
    if (!tree) {
        return complain_missing(path);
    }
    std::string text;
    append_tree(*tree, to_text(path), 0, text);
    print(text);
    return Status::success;
}

std::string shown(const std::string& path, const Node& node) {
    return node.kind == Kind::key ? path + " = " + quoted(node.value) : path + "/";
}

std::string shown(const Change& change) {
    if (!change.before) {
        return "+ " + shown(change.path, *change.after);
    }
    if (!change.after) {
        return "- " + shown(change.path, *change.before);
    }
    const std::string before = shown(change.path, *change.before);
    const std::string after = shown(change.path, *change.after);
    if (before == after) {
        return "~ " + before + " (new place)";
    }
    return "~ " + before + " -> " +
           (change.after->kind == Kind::key ? quoted(change.after->value) : "directory");
}

Status run_diff(const Words& /*words*/) {
    std::string text;
    for (const Change& change : open_for_reading().changes()) {
        text += shown(change) + "\n";
    }
    print(text);
    return Status::success;
}

constexpr std::array<Verb, 11> verbs{{
    {"get", 1, 1, "PATH", "print a key as \"PATH VALUE\", or the children of a directory", run_get},
    {"contains", 1, 1, "PATH", "status 0 when the key or directory is there, 1 when not",
     run_contains},
    {"set", 1, 2, "PATH [VALUE]", "set a key, to the empty value without VALUE", run_set},
    {"create", 1, 1, "PATH", "create a directory", run_create},
    {"delete", 1, 1, "PATH", "delete a key, or a directory with everything under it", run_delete},
    {"import", 1, 1, "FILE", "set what an export document holds; deletes nothing", run_import},
    {"commit", 0, 1, "[PATH]", "publish what is staged at and under PATH, or everything",
     run_commit},
    {"export", 2, 2, "PATH FILE", "write a directory as an export document", run_export},
    {"tree", 0, 1, "[PATH]", "show a part of the registry, or all of it", run_tree},
    {"diff", 0, 0, "", "show what is staged: + comes, - goes, ~ changes", run_diff},
    {"load", 1, 1, "FILE", "import a whole-registry file and commit everything", run_load},
}};

constexpr std::string_view explanation = R"(
The registry is a tree of directories and keys below "root". A path is the names from there, joined
by slashes (root/system/model); slashes at its end are ignored. It is at most 64 names deep. Names
and values are bytes; a name holds no control character, a value none but tab, line feed and carriage
return. Entries keep the order in which they came, and a key that is set again keeps its place.

set, create, delete and import are staged: get, contains, export and tree show the committed state
until commit publishes the staged one. set, create and import make missing parents; commit PATH
publishes the parents that PATH needs and nothing else beside it. A verb is done as a whole or not at
all, also when it is killed; clients wait up to ten seconds for each other.

get on a directory prints one line for each child: "dir" or "key", a blank, and the child's path.

An export document holds the directory as NodeDir in ProfileRegistry, with its path, which places it
on import. Its Config is the value of root/system/productConfig, or "standard" without that key. Keys
and directories that an imported document does not name stay as they are. The file for load has the
same elements, with the NodeDir "root" as its root element (see samples/).

The store is one SQLite file: $REGSH_DB, or /etc/regsh/registry.db. The first verb that writes
creates it, and its folder if that is missing; before that the registry is empty.

Status: 0 done; 1 not there, refused or failed; 2 wrong command line, or no registry path.
)";

std::string synopsis_of(const Verb& verb) {
    std::string text = "regsh " + std::string(verb.name);
    if (!verb.synopsis.empty()) {
        text += ' ';
        text += verb.synopsis;
    }
    return text;
}

std::string usage() {
    std::string text = "usage:\n";
    for (const Verb& verb : verbs) {
        text += "  " + synopsis_of(verb) + "\n";
    }
    return text + "  regsh --help\n";
}

std::string help() {
    constexpr std::size_t summary_column = 26;
    std::string text = "usage: regsh VERB [WORD...]\n\n";
    for (const Verb& verb : verbs) {
        std::string line = "  " + synopsis_of(verb);
        line.resize(summary_column, ' ');
        text += line + std::string(verb.summary) + "\n";
    }
    return text + std::string(explanation);
}

Status run_verb(const Verb& verb, const Words& words) {
    if (words.size() < verb.least_words || words.size() > verb.most_words) {
        complain("wrong number of words\nusage: " + synopsis_of(verb));
        return Status::usage;
    }
    try {
        return verb.run(words);
    } catch (const UsageError& error) {
        complain(error.what());
        return Status::usage;
    } catch (const RegistryError& error) {
        complain(error.what());
        return Status::failure;
    }
}

}  // namespace

Status run(const std::vector<std::string>& words) {
    if (words.empty()) {
        std::cerr << usage();
        return Status::usage;
    }
    if (words[0] == "--help" || words[0] == "-h") {
        print(help());
        return Status::success;
    }
    for (const Verb& verb : verbs) {
        if (verb.name == words[0]) {
            return run_verb(verb, Words(words.begin() + 1, words.end()));
        }
    }
    complain("unknown verb \"" + words[0] + "\"");
    std::cerr << usage();
    return Status::usage;
}

}  // namespace regsh
