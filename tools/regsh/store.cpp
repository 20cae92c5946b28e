#include "tools/regsh/store.h"

#include <algorithm>
#include <utility>

namespace regsh {

namespace {

constexpr std::int64_t root_id = 1;

constexpr std::string_view find_committed_sql =
    "SELECT id, kind, value FROM node WHERE parent = ?1 AND name = ?2 AND kind IS NOT NULL";
constexpr std::string_view committed_children_sql =
    "SELECT id, kind, value, name FROM node WHERE parent = ?1 AND kind IS NOT NULL"
    " ORDER BY position";
constexpr std::string_view find_staged_sql =
    "SELECT id, iif(changed, staged_kind, kind), iif(changed, staged_value, value)"
    " FROM node WHERE parent = ?1 AND name = ?2";
constexpr std::string_view insert_sql =
    "INSERT INTO node (parent, name, changed, staged_kind, staged_value, staged_position)"
    " VALUES (?1, ?2, 1, ?3, ?4, ?5) RETURNING id";
constexpr std::string_view stage_new_sql =
    "UPDATE node SET changed = 1, staged_kind = ?2, staged_value = ?3, staged_position = ?4"
    " WHERE id = ?1";
constexpr std::string_view stage_value_sql =
    "UPDATE node SET staged_kind = iif(changed, staged_kind, kind),"
    " staged_position = iif(changed, staged_position, position), staged_value = ?2, changed = 1"
    " WHERE id = ?1";
constexpr std::string_view parent_of_sql = "SELECT parent, name FROM node WHERE id = ?1";

// Rows of an entry and of everything under it in either state.
constexpr std::string_view below_sql =
    " id IN (WITH RECURSIVE below (id) AS (SELECT ?1 UNION ALL SELECT node.id FROM node"
    " JOIN below ON node.parent = below.id) SELECT id FROM below)";

constexpr std::string_view publish_sql =
    "UPDATE node SET kind = staged_kind, value = staged_value, position = staged_position,"
    " changed = 0, staged_kind = NULL, staged_value = '', staged_position = NULL"
    " WHERE changed = 1 AND";
constexpr std::string_view publish_removal_sql =
    "DELETE FROM node WHERE changed = 1 AND staged_kind IS NULL AND";
constexpr std::string_view everything_sql = " ?1 = ?1";

constexpr std::string_view changes_sql =
    "SELECT id, kind, value, staged_kind, staged_value FROM node WHERE changed = 1"
    " AND NOT (kind IS staged_kind AND value = staged_value AND position IS staged_position)";

Kind to_kind(std::int64_t number) {
    return number == static_cast<std::int64_t>(Kind::key) ? Kind::key : Kind::directory;
}

std::optional<Node> state_at(const Statement& row, int kind_column, int value_column) {
    if (row.is_null(kind_column)) {
        return std::nullopt;
    }
    return Node{to_kind(row.number(kind_column)), {}, row.text(value_column), {}};
}

std::string joined(std::string_view first, std::string_view second) {
    return std::string(first) + std::string(second);
}

[[noreturn]] void refuse_kind(const std::string& path, Kind kind) {
    throw RegistryError(path + (kind == Kind::key ? " is a key" : " is a directory"));
}

}  // namespace

Store::Store(const std::string& file, Database::Access access)
    : database_(file, access),
      find_committed_(database_.prepare(find_committed_sql)),
      committed_children_(database_.prepare(committed_children_sql)),
      find_staged_(database_.prepare(find_staged_sql)),
      insert_(database_.prepare(insert_sql)),
      stage_new_(database_.prepare(stage_new_sql)),
      stage_value_(database_.prepare(stage_value_sql)),
      parent_of_(database_.prepare(parent_of_sql)) {
    Statement counter = database_.prepare("SELECT next_position FROM counter");
    counter.step();
    next_position_ = counter.number(0);
}

std::optional<Store::CommittedRow> Store::find_committed(const RegistryPath& path) {
    CommittedRow row{root_id, Node{Kind::directory, "root", {}, {}}};
    for (const std::string& name : path) {
        find_committed_.bind(1, row.id).bind(2, name);
        const bool found = find_committed_.step();
        if (found) {
            row.id = find_committed_.number(0);
            row.node = Node{to_kind(find_committed_.number(1)), name, find_committed_.text(2), {}};
        }
        find_committed_.reset();
        if (!found) {
            return std::nullopt;
        }
    }
    return row;
}

std::optional<Node> Store::find(const RegistryPath& path) {
    std::optional<CommittedRow> row = find_committed(path);
    if (!row) {
        return std::nullopt;
    }
    return std::move(row->node);
}

std::vector<Store::CommittedRow> Store::committed_children(std::int64_t parent) {
    std::vector<CommittedRow> rows;
    committed_children_.bind(1, parent);
    while (committed_children_.step()) {
        rows.push_back({committed_children_.number(0), Node{to_kind(committed_children_.number(1)),
                                                            committed_children_.text(3),
                                                            committed_children_.text(2),
                                                            {}}});
    }
    committed_children_.reset();
    return rows;
}

std::vector<Node> Store::children(const RegistryPath& path) {
    std::vector<Node> nodes;
    const std::optional<CommittedRow> row = find_committed(path);
    if (row) {
        for (CommittedRow& child : committed_children(row->id)) {
            nodes.push_back(std::move(child.node));
        }
    }
    return nodes;
}

// The depth of the recursion is bounded by maximum_depth.
void Store::read_children(std::int64_t id, Node& node) {
    for (CommittedRow& child : committed_children(id)) {
        Node& added = node.children.emplace_back(std::move(child.node));
        if (added.kind == Kind::directory) {
            read_children(child.id, added);
        }
    }
}

std::optional<Node> Store::read_tree(const RegistryPath& path) {
    std::optional<CommittedRow> row = find_committed(path);
    if (!row) {
        return std::nullopt;
    }
    read_children(row->id, row->node);
    return std::move(row->node);
}

std::optional<Store::StagedRow> Store::find_staged(std::int64_t parent, std::string_view name) {
    std::optional<StagedRow> row;
    find_staged_.bind(1, parent).bind(2, name);
    if (find_staged_.step()) {
        row = StagedRow{find_staged_.number(0), std::nullopt, {}};
        if (!find_staged_.is_null(1)) {
            row->kind = to_kind(find_staged_.number(1));
            row->value = find_staged_.text(2);
        }
    }
    find_staged_.reset();
    return row;
}

std::int64_t Store::put(std::int64_t parent, std::string_view name, Kind kind,
                        std::string_view value, const std::function<std::string()>& path) {
    const std::optional<StagedRow> row = find_staged(parent, name);
    const auto kind_number = static_cast<std::int64_t>(kind);
    if (!row) {
        insert_.bind(1, parent).bind(2, name).bind(3, kind_number).bind(4, value);
        insert_.bind(5, next_position_++);
        insert_.step();
        const std::int64_t id = insert_.number(0);
        insert_.run();
        return id;
    }
    if (!row->kind) {
        stage_new_.bind(1, row->id).bind(2, kind_number).bind(3, value);
        stage_new_.bind(4, next_position_++).run();
    } else if (*row->kind != kind) {
        refuse_kind(path(), *row->kind);
    } else if (row->value != value) {
        stage_value_.bind(1, row->id).bind(2, value).run();
    }
    return row->id;
}

std::int64_t Store::put_directories(const RegistryPath& path) {
    std::int64_t id = root_id;
    for (std::size_t depth = 0; depth < path.size(); ++depth) {
        id = put(id, path[depth], Kind::directory, {}, [&path, depth] {
            const auto end = path.begin() + static_cast<RegistryPath::difference_type>(depth) + 1;
            return to_text(RegistryPath(path.begin(), end));
        });
    }
    return id;
}

void Store::set(const RegistryPath& path, std::string_view value) {
    if (path.empty()) {
        refuse_kind(to_text(path), Kind::directory);
    }
    if (has_forbidden_character(value)) {
        throw RegistryError("the value for " + to_text(path) +
                            " holds a control character that an export cannot carry");
    }
    const RegistryPath parents(path.begin(), path.end() - 1);
    put(put_directories(parents), path.back(), Kind::key, value, [&path] { return to_text(path); });
}

void Store::create(const RegistryPath& path) {
    put_directories(path);
}

bool Store::remove(const RegistryPath& path) {
    if (path.empty()) {
        throw RegistryError("the root cannot be deleted");
    }
    std::int64_t id = root_id;
    for (const std::string& name : path) {
        const std::optional<StagedRow> row = find_staged(id, name);
        if (!row || !row->kind) {
            return false;
        }
        id = row->id;
    }
    // What was never committed disappears at once; it has nothing committed under it.
    database_.prepare(joined("DELETE FROM node WHERE kind IS NULL AND", below_sql))
        .bind(1, id)
        .run();
    database_
        .prepare(joined("UPDATE node SET changed = 1, staged_kind = NULL, staged_value = '',"
                        " staged_position = NULL WHERE",
                        below_sql))
        .bind(1, id)
        .run();
    return true;
}

// The depth of the recursion is bounded by that of the document.
void Store::merge_children(std::int64_t parent, const RegistryPath& path, const Node& directory) {
    RegistryPath child_path = path;
    for (const Node& child : directory.children) {
        child_path.push_back(child.name);
        const std::int64_t id = put(parent, child.name, child.kind, child.value,
                                    [&child_path] { return to_text(child_path); });
        if (child.kind == Kind::directory) {
            merge_children(id, child_path, child);
        }
        child_path.pop_back();
    }
}

void Store::merge(const RegistryPath& path, const Node& directory) {
    merge_children(put_directories(path), path, directory);
}

// 1. Walk down to the entry by its row, whatever state it is in.
// 2. A parent that is committed already stays as it is committed, even where its staged state
//    differs: it is not part of what was asked for. One that is not a committed directory is
//    published alone, for it has to hold the entry. (Then its staged state is a directory: a row
//    below it that is staged needs that, and a row that is committed has only committed directories
//    above it.)
// 3. The entries to be removed go first. Under one of them nothing is staged, so the same step
//    removes everything below it.
// 4. The staged state of the others becomes the committed one.
bool Store::commit(const RegistryPath& path) {
    std::vector<std::int64_t> rows{root_id};
    for (const std::string& name : path) {
        const std::optional<StagedRow> row = find_staged(rows.back(), name);
        if (!row) {
            return false;
        }
        rows.push_back(row->id);
    }
    const std::int64_t target = rows.back();
    rows.pop_back();
    Statement publish_parent = database_.prepare(joined(publish_sql, " id = ?1 AND kind IS NOT 1"));
    for (const std::int64_t parent : rows) {
        publish_parent.bind(1, parent).run();
    }
    const std::string_view which = path.empty() ? everything_sql : below_sql;
    database_.prepare(joined(publish_removal_sql, which)).bind(1, target).run();
    database_.prepare(joined(publish_sql, which)).bind(1, target).run();
    return true;
}

std::string Store::path_of(std::int64_t id) {
    RegistryPath path;
    while (id != root_id) {
        parent_of_.bind(1, id).step();
        path.push_back(parent_of_.text(1));
        id = parent_of_.number(0);
        parent_of_.reset();
    }
    std::reverse(path.begin(), path.end());
    return to_text(path);
}

std::vector<Change> Store::changes() {
    std::vector<Change> result;
    Statement rows = database_.prepare(changes_sql);
    while (rows.step()) {
        result.push_back({path_of(rows.number(0)), state_at(rows, 1, 2), state_at(rows, 3, 4)});
    }
    std::sort(result.begin(), result.end(),
              [](const Change& left, const Change& right) { return left.path < right.path; });
    return result;
}

void Store::finish() {
    database_.prepare("UPDATE counter SET next_position = ?1").bind(1, next_position_).run();
    database_.commit();
}

}  // namespace regsh
