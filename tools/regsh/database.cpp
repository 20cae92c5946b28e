#include "tools/regsh/database.h"

#include "tools/regsh/node.h"

#include <sqlite3.h>

#include <filesystem>

namespace regsh {

namespace {

constexpr int wait_for_other_clients_milliseconds = 10000;
constexpr std::int64_t layout = 1;

// One row holds both states of an entry. kind, value and position are the committed state, and a
// null kind means that the entry is not there. While changed is 1 the staged_ columns hold the
// staged state in the same way; while it is 0 the staged state is the committed one. A row that is
// in neither state does not exist.
constexpr const char* create_layout = R"(
    CREATE TABLE node (
        id INTEGER PRIMARY KEY,
        parent INTEGER NOT NULL,
        name TEXT NOT NULL,
        kind INTEGER,
        value TEXT NOT NULL DEFAULT '',
        position INTEGER,
        changed INTEGER NOT NULL DEFAULT 0,
        staged_kind INTEGER,
        staged_value TEXT NOT NULL DEFAULT '',
        staged_position INTEGER,
        UNIQUE (parent, name));
    CREATE INDEX changed_node ON node (id) WHERE changed = 1;
    CREATE TABLE counter (next_position INTEGER NOT NULL);
    INSERT INTO counter VALUES (1);
    INSERT INTO node (id, parent, name, kind, position) VALUES (1, 0, 'root', 1, 0);
    PRAGMA user_version = 1;
)";

void check(sqlite3* connection, int result) {
    if (result != SQLITE_OK) {
        throw RegistryError(std::string("the registry store failed: ") +
                            sqlite3_errmsg(connection));
    }
}

[[noreturn]] void refuse_file(const std::string& file, const std::string& why) {
    throw RegistryError("cannot open the registry store " + file + ": " + why);
}

void create_folder_of(const std::string& file) {
    const std::filesystem::path folder = std::filesystem::path(file).parent_path();
    if (folder.empty()) {
        return;
    }
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        refuse_file(file, "cannot create its folder: " + error.message());
    }
}

}  // namespace

void Statement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

Statement::Statement(sqlite3* connection, std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    check(connection, sqlite3_prepare_v2(connection, sql.data(), static_cast<int>(sql.size()),
                                         &statement, nullptr));
    statement_.reset(statement);
}

Statement& Statement::bind(int index, std::int64_t number) {
    check(sqlite3_db_handle(statement_.get()), sqlite3_bind_int64(statement_.get(), index, number));
    return *this;
}

Statement& Statement::bind(int index, std::string_view text) {
    // A null data pointer would bind NULL instead of the empty text.
    const char* data = text.empty() ? "" : text.data();
    check(sqlite3_db_handle(statement_.get()),
          sqlite3_bind_text64(statement_.get(), index, data, text.size(), nullptr, SQLITE_UTF8));
    return *this;
}

bool Statement::step() {
    const int result = sqlite3_step(statement_.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        check(sqlite3_db_handle(statement_.get()), result);
    }
    return result == SQLITE_ROW;
}

void Statement::reset() {
    sqlite3_reset(statement_.get());
}

void Statement::run() {
    while (step()) {
    }
    reset();
}

bool Statement::is_null(int column) const {
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::int64_t Statement::number(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

std::string Statement::text(int column) const {
    const void* data = sqlite3_column_blob(statement_.get(), column);
    const int size = sqlite3_column_bytes(statement_.get(), column);
    if (data == nullptr) {
        return {};
    }
    return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
}

void Database::Close::operator()(sqlite3* connection) const {
    sqlite3_close_v2(connection);
}

Database::Connection Database::open(const std::string& file, int flags) {
    sqlite3* handle = nullptr;
    const int result = sqlite3_open_v2(file.c_str(), &handle, flags, nullptr);
    Connection connection(handle);
    if (result != SQLITE_OK) {
        refuse_file(file, handle == nullptr ? sqlite3_errstr(result) : sqlite3_errmsg(handle));
    }
    sqlite3_busy_timeout(handle, wait_for_other_clients_milliseconds);
    return connection;
}

Database::Connection Database::open_existing(const std::string& file) {
    std::error_code error;
    if (!std::filesystem::exists(file, error) && !error) {
        return nullptr;
    }
    // Not read-only: a reader must be able to undo what a killed writer left half done.
    return open(file, SQLITE_OPEN_READWRITE);
}

Database::Database(const std::string& file, Access access) {
    if (access == Access::read) {
        begin_reading(file);
    } else {
        begin_writing(file);
    }
}

Statement Database::prepare(std::string_view sql) const {
    return {connection_.get(), sql};
}

void Database::execute(const char* sql) const {
    check(connection_.get(), sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr));
}

void Database::commit() const {
    execute("COMMIT");
}

std::int64_t Database::layout_version() const {
    Statement statement = prepare("PRAGMA user_version");
    statement.step();
    return statement.number(0);
}

void Database::check_layout(const std::string& file, std::int64_t version) const {
    if (version != layout) {
        refuse_file(file, "its layout " + std::to_string(version) + " is unknown");
    }
}

void Database::begin_reading(const std::string& file) {
    connection_ = open_existing(file);
    std::int64_t version = 0;
    if (connection_ != nullptr) {
        execute("BEGIN");
        version = layout_version();
    }
    if (version == 0) {
        // No file, or one whose first writer was killed: the registry is empty.
        connection_ = open(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        execute(create_layout);
        execute("BEGIN");
        return;
    }
    check_layout(file, version);
}

void Database::begin_writing(const std::string& file) {
    create_folder_of(file);
    connection_ = open(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    execute("PRAGMA synchronous = FULL");
    // A whole import fits, so that nothing is written before the end of the transaction.
    execute("PRAGMA cache_size = -65536");
    execute("BEGIN IMMEDIATE");
    const std::int64_t version = layout_version();
    if (version == 0) {
        execute(create_layout);
        return;
    }
    check_layout(file, version);
}

}  // namespace regsh
