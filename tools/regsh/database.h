#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace regsh {

// A prepared statement. Texts are bound without a copy: they must live until the next reset().
// Every failure of SQLite is a RegistryError.
class Statement {
public:
    Statement(sqlite3* connection, std::string_view sql);

    // Parameters and columns count as SQLite does: parameters from 1, columns from 0.
    Statement& bind(int index, std::int64_t number);
    Statement& bind(int index, std::string_view text);

    // True when there is a row to read.
    bool step();
    void reset();
    // Steps to the end and makes the statement ready for its next use.
    void run();

    [[nodiscard]] bool is_null(int column) const;
    [[nodiscard]] std::int64_t number(int column) const;
    [[nodiscard]] std::string text(int column) const;

private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// An open store inside one transaction, which ends without a trace unless commit() is called.
//
// A reader sees one state from its start to its end and creates nothing: a store that does not
// exist yet reads as an empty registry. A writer creates the file and its folders, and other
// clients wait for it, and it for them, for up to ten seconds. The rollback journal makes a client
// that is killed leave the state before or after its transaction.
class Database {
public:
    enum class Access { read, write };

    // Throws RegistryError when the file cannot be opened, created or understood.
    Database(const std::string& file, Access access);

    [[nodiscard]] Statement prepare(std::string_view sql) const;
    void execute(const char* sql) const;
    void commit() const;

private:
    struct Close {
        void operator()(sqlite3* connection) const;
    };
    using Connection = std::unique_ptr<sqlite3, Close>;

    static Connection open(const std::string& file, int flags);
    static Connection open_existing(const std::string& file);
    [[nodiscard]] std::int64_t layout_version() const;
    void begin_reading(const std::string& file);
    void begin_writing(const std::string& file);
    void check_layout(const std::string& file, std::int64_t version) const;

    Connection connection_;
};

}  // namespace regsh
