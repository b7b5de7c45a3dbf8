#pragma once

// The sandbox's storage: one SQLite file in WAL mode with durable commits (synchronous=FULL), so
// an answered write survives a kill of the process. Each thread borrows a connection of its own
// from a pool; readers never wait for the writer, writers queue on SQLite's busy timeout.

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace kxsandbox {

/// A failure of the database itself (disk full, damaged file, locked beyond the busy timeout).
class DatabaseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A value bound to a statement parameter: NULL, integer, real or text.
using Value = std::variant<std::nullptr_t, std::int64_t, double, std::string>;

/// One prepared statement of a connection, reset and rebound for each use. It is reset again
/// when this handle goes, so no finished read keeps its snapshot of the database open.
class Statement {
public:
    Statement(sqlite3* db, sqlite3_stmt* statement) : db_(db), statement_(statement) {}
    ~Statement();
    Statement(Statement&& other) noexcept
        : db_(other.db_), statement_(std::exchange(other.statement_, nullptr)) {}
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    Statement& operator=(Statement&&) = delete;

    /// Binds `values` to the parameters ?1, ?2, ... in order.
    Statement& bind(const std::vector<Value>& values) &;
    Statement&& bind(const std::vector<Value>& values) && { return std::move(bind(values)); }
    /// Steps once: true while a row is available.
    bool step();
    /// Runs a statement that returns no rows; the number of rows it changed.
    int run();

    std::int64_t integer(int column) const;
    std::optional<std::string> text(int column) const;
    /// Text of a NOT NULL column (empty when NULL).
    std::string string(int column) const { return text(column).value_or(std::string()); }
    /// The text of a column without a copy (empty when NULL), valid until the next step or reset.
    std::string_view view(int column) const;
    bool isNull(int column) const;

private:
    sqlite3* db_;
    sqlite3_stmt* statement_;
};

/// One open connection with its cache of prepared statements.
class Connection {
public:
    explicit Connection(const std::filesystem::path& file);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// The prepared statement for `sql`, reset and ready to bind.
    Statement prepare(const std::string& sql);
    /// Runs `sql` (one or more statements without parameters).
    void execute(const std::string& sql);
    /// Runs a statement with parameters; the number of rows it changed.
    int run(const std::string& sql, const std::vector<Value>& values = {});
    /// The single integer a query returns, or absent when it returns no row.
    std::optional<std::int64_t> integer(const std::string& sql,
                                        const std::vector<Value>& values = {});

private:
    sqlite3* db_ = nullptr;
    std::unordered_map<std::string, sqlite3_stmt*> statements_;
};

/// A write transaction: BEGIN IMMEDIATE now, COMMIT on commit(), ROLLBACK when dropped without
/// one. commit() returns only once the commit is on disk.
class Transaction {
public:
    explicit Transaction(Connection& connection);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Connection& connection_;
    bool done_ = false;
};

/// A read transaction: BEGIN now, COMMIT when dropped. The queries made meanwhile see one
/// snapshot of the database and share one acquisition of its locks.
class ReadTransaction {
public:
    explicit ReadTransaction(Connection& connection);
    ~ReadTransaction();
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;

private:
    Connection& connection_;
};

/// Connections to one database file, handed out one per borrower.
class Database {
public:
    /// Opens (creating it and its folder when missing) the file and brings its schema up to date.
    explicit Database(std::filesystem::path file);

    class Lease {
    public:
        Lease(Database& owner, std::unique_ptr<Connection> connection)
            : owner_(owner), connection_(std::move(connection)) {}
        ~Lease() { owner_.giveBack(std::move(connection_)); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        Connection& operator*() { return *connection_; }
        Connection* operator->() { return connection_.get(); }

    private:
        Database& owner_;
        std::unique_ptr<Connection> connection_;
    };

    Lease borrow();
    const std::filesystem::path& file() const { return file_; }

    /// The default file: $XDG_DATA_HOME/kxsandbox/sandbox.db (~/.local/share when unset).
    static std::filesystem::path defaultFile();

private:
    void giveBack(std::unique_ptr<Connection> connection);

    std::filesystem::path file_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Connection>> idle_;
};

}  // namespace kxsandbox
