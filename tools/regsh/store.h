#pragma once

#include "tools/regsh/database.h"
#include "tools/regsh/node.h"
#include "tools/regsh/registry_path.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace regsh {

// A staged change that is not committed yet. before and after are without children; one of them is
// missing when the entry comes or goes. Both with equal content: the entry has only got a new place
// among its siblings.
struct Change {
    std::string path;
    std::optional<Node> before;
    std::optional<Node> after;
};

// The registry: a tree of directories and keys in two states. Reading gives the committed state.
// Writing changes the staged state, which only later writes see; commit() publishes it.
//
// One Store is one transaction of the database it was made with (see Database): for writing, call
// finish() at the end, or nothing has happened. Every failure is a RegistryError.
class Store {
public:
    Store(const std::string& file, Database::Access access);

    // The entry without its children; none when it is not there.
    std::optional<Node> find(const RegistryPath& path);
    // The entry with everything under it; none when it is not there.
    std::optional<Node> read_tree(const RegistryPath& path);
    // The children without theirs, in the order in which they came; empty for a key.
    std::vector<Node> children(const RegistryPath& path);

    // Missing parents are created; an existing key keeps its place. Fails on a directory, below a
    // key, and for a value that an export could not carry.
    void set(const RegistryPath& path, std::string_view value);
    // Does nothing when the directory is there. Fails on a key and below a key.
    void create(const RegistryPath& path);
    // Removes the entry and everything under it; false when it is not there. Fails on the root.
    bool remove(const RegistryPath& path);
    // Creates every directory and sets every key of the tree under the path; deletes nothing.
    void merge(const RegistryPath& path, const Node& directory);

    // Publishes the staged state of the entry and everything under it, and of its parents as far as
    // they are needed to hold it. False when the entry is in neither state.
    bool commit(const RegistryPath& path);

    // What a commit of the root would publish, sorted by path.
    std::vector<Change> changes();

    // Makes what was written durable. Nothing may be called afterwards.
    void finish();

private:
    struct StagedRow {
        std::int64_t id;
        std::optional<Kind> kind;
        std::string value;
    };
    struct CommittedRow {
        std::int64_t id;
        Node node;
    };

    std::optional<CommittedRow> find_committed(const RegistryPath& path);
    std::vector<CommittedRow> committed_children(std::int64_t parent);
    void read_children(std::int64_t id, Node& node);
    std::optional<StagedRow> find_staged(std::int64_t parent, std::string_view name);
    // Lets the staged state hold the entry and returns its row. The path is for the message.
    std::int64_t put(std::int64_t parent, std::string_view name, Kind kind, std::string_view value,
                     const std::function<std::string()>& path);
    std::int64_t put_directories(const RegistryPath& path);
    void merge_children(std::int64_t parent, const RegistryPath& path, const Node& directory);
    std::string path_of(std::int64_t id);

    Database database_;
    Statement find_committed_;
    Statement committed_children_;
    Statement find_staged_;
    Statement insert_;
    Statement stage_new_;
    Statement stage_value_;
    Statement parent_of_;
    std::int64_t next_position_ = 0;
};

}  // namespace regsh
