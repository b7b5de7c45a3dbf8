#include "KXSandboxDatabase.h"

#include <cstdlib>

namespace kxsandbox {

namespace {

constexpr int kBusyTimeoutMilliseconds = 10000;

// Tenants are base paths ("/KXFrontier", "/ZandrelService/rest/bu/BU1"); every resource of a
// tenant carries it. JSON columns hold compact JSON text.
constexpr const char* kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS clients(
    client_id TEXT PRIMARY KEY, secret TEXT NOT NULL, source TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS tokens(
    token TEXT PRIMARY KEY, client_id TEXT NOT NULL, expires_at INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS domains(
    id TEXT PRIMARY KEY, name TEXT NOT NULL, description TEXT NOT NULL,
    delete_forbidden INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS tenants(base_path TEXT PRIMARY KEY, seeded INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS guests(
    tenant TEXT NOT NULL, external_id TEXT NOT NULL, external_id_type TEXT,
    language_pref TEXT, bu_creative_label TEXT, tags TEXT NOT NULL,
    bu_properties TEXT NOT NULL, created_at INTEGER NOT NULL,
    PRIMARY KEY(tenant, external_id));
CREATE TABLE IF NOT EXISTS profiles(
    tenant TEXT NOT NULL, guest_id TEXT NOT NULL, id TEXT NOT NULL, channel TEXT NOT NULL,
    attributes TEXT NOT NULL, enabled INTEGER NOT NULL, tags TEXT NOT NULL,
    PRIMARY KEY(tenant, id));
CREATE INDEX IF NOT EXISTS profiles_by_guest ON profiles(tenant, guest_id);
CREATE TABLE IF NOT EXISTS memberships(
    tenant TEXT NOT NULL, guest_id TEXT NOT NULL, profile_id TEXT NOT NULL,
    list_id TEXT NOT NULL, language_pref TEXT, enabled INTEGER NOT NULL,
    PRIMARY KEY(tenant, profile_id, list_id));
CREATE INDEX IF NOT EXISTS memberships_by_list ON memberships(tenant, list_id);
CREATE TABLE IF NOT EXISTS lists(
    tenant TEXT NOT NULL, external_id TEXT NOT NULL, name TEXT NOT NULL,
    description TEXT, type TEXT NOT NULL, tags TEXT NOT NULL, bu_properties TEXT NOT NULL,
    base_counts TEXT NOT NULL, created_at INTEGER NOT NULL,
    PRIMARY KEY(tenant, external_id));
CREATE TABLE IF NOT EXISTS messages(
    tenant TEXT NOT NULL, guest_id TEXT NOT NULL, domain_id TEXT NOT NULL, id TEXT NOT NULL,
    subject TEXT NOT NULL, content_type TEXT NOT NULL, content TEXT NOT NULL,
    sender TEXT NOT NULL, date_received INTEGER NOT NULL, read INTEGER NOT NULL,
    PRIMARY KEY(tenant, id));
DROP INDEX IF EXISTS messages_by_inbox;
CREATE INDEX IF NOT EXISTS messages_by_inbox_covering
    ON messages(tenant, guest_id, domain_id, date_received DESC, id, subject, content_type, sender,
                read);
CREATE TABLE IF NOT EXISTS sessions(
    tenant TEXT NOT NULL, id TEXT NOT NULL, guest_id TEXT, started_at INTEGER NOT NULL,
    updated_at INTEGER NOT NULL, closed INTEGER NOT NULL, updates INTEGER NOT NULL,
    PRIMARY KEY(tenant, id));
CREATE TABLE IF NOT EXISTS session_documents(
    tenant TEXT NOT NULL, session_id TEXT NOT NULL, kind TEXT NOT NULL,
    received_at INTEGER NOT NULL, document TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS documents_by_session ON session_documents(tenant, session_id);
)SQL";

[[noreturn]] void fail(sqlite3* db, const std::string& what) {
    throw DatabaseError(what + ": " + (db != nullptr ? sqlite3_errmsg(db) : "out of memory"));
}

}  // namespace

Statement::~Statement() {
    if (statement_ != nullptr) {
        sqlite3_reset(statement_);
    }
}

Statement& Statement::bind(const std::vector<Value>& values) & {
    for (std::size_t i = 0; i < values.size(); ++i) {
        const int index = static_cast<int>(i) + 1;
        int result = SQLITE_OK;
        if (std::holds_alternative<std::nullptr_t>(values[i])) {
            result = sqlite3_bind_null(statement_, index);
        } else if (const auto* integer = std::get_if<std::int64_t>(&values[i])) {
            result = sqlite3_bind_int64(statement_, index, *integer);
        } else if (const auto* real = std::get_if<double>(&values[i])) {
            result = sqlite3_bind_double(statement_, index, *real);
        } else {
            const std::string& text = std::get<std::string>(values[i]);
            result = sqlite3_bind_text(statement_, index, text.data(),
                                       static_cast<int>(text.size()), SQLITE_TRANSIENT);
        }
        if (result != SQLITE_OK) {
            fail(db_, "bind");
        }
    }
    return *this;
}

bool Statement::step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) {
        return true;
    }
    if (result == SQLITE_DONE) {
        return false;
    }
    fail(db_, "step");
}

int Statement::run() {
    while (step()) {
    }
    return sqlite3_changes(db_);
}

std::int64_t Statement::integer(int column) const {
    return sqlite3_column_int64(statement_, column);
}

std::optional<std::string> Statement::text(int column) const {
    if (isNull(column)) {
        return std::nullopt;
    }
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
}

std::string_view Statement::view(int column) const {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    if (bytes == nullptr) {
        return {};
    }
    return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

bool Statement::isNull(int column) const {
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

Connection::Connection(const std::filesystem::path& file) {
    if (sqlite3_open_v2(file.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        const std::string message = "cannot open " + file.string();
        sqlite3* db = db_;
        db_ = nullptr;
        if (db != nullptr) {
            const std::string reason = sqlite3_errmsg(db);
            sqlite3_close(db);
            throw DatabaseError(message + ": " + reason);
        }
        throw DatabaseError(message);
    }
    sqlite3_busy_timeout(db_, kBusyTimeoutMilliseconds);
    execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON;");
}

Connection::~Connection() {
    for (auto& [sql, statement] : statements_) {
        sqlite3_finalize(statement);
    }
    sqlite3_close(db_);
}

Statement Connection::prepare(const std::string& sql) {
    auto found = statements_.find(sql);
    if (found == statements_.end()) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v3(db_, sql.c_str(), static_cast<int>(sql.size()),
                               SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
            fail(db_, "prepare");
        }
        found = statements_.emplace(sql, statement).first;
    }
    sqlite3_reset(found->second);
    sqlite3_clear_bindings(found->second);
    return Statement(db_, found->second);
}

void Connection::execute(const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string reason = message != nullptr ? message : "unknown error";
        sqlite3_free(message);
        throw DatabaseError(reason);
    }
}

int Connection::run(const std::string& sql, const std::vector<Value>& values) {
    return prepare(sql).bind(values).run();
}

std::optional<std::int64_t> Connection::integer(const std::string& sql,
                                                const std::vector<Value>& values) {
    Statement statement = prepare(sql).bind(values);
    if (!statement.step()) {
        return std::nullopt;
    }
    return statement.integer(0);
}

Transaction::Transaction(Connection& connection) : connection_(connection) {
    connection_.execute("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (!done_) {
        try {
            connection_.execute("ROLLBACK");
        } catch (const DatabaseError&) {
            // SQLite already rolled back (for example after a full disk); nothing is left open.
        }
    }
}

void Transaction::commit() {
    connection_.execute("COMMIT");
    done_ = true;
}

ReadTransaction::ReadTransaction(Connection& connection) : connection_(connection) {
    connection_.run("BEGIN");
}

ReadTransaction::~ReadTransaction() {
    try {
        connection_.run("COMMIT");
    } catch (const DatabaseError&) {
        // Nothing was written: ending it either way leaves the connection ready for the next
        // borrower.
        try {
            connection_.execute("ROLLBACK");
        } catch (const DatabaseError&) {
            // Already ended.
        }
    }
}

Database::Database(std::filesystem::path file) : file_(std::move(file)) {
    // Before SQLite initialises: without memory statistics, its allocations take no mutex that
    // every connection shares.
    static std::once_flag configured;
    std::call_once(configured, [] { sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); });
    if (file_.has_parent_path()) {
        std::filesystem::create_directories(file_.parent_path());
    }
    Lease connection = borrow();
    connection->execute(kSchema);
}

Database::Lease Database::borrow() {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            std::unique_ptr<Connection> connection = std::move(idle_.back());
            idle_.pop_back();
            return Lease(*this, std::move(connection));
        }
    }
    return Lease(*this, std::make_unique<Connection>(file_));
}

void Database::giveBack(std::unique_ptr<Connection> connection) {
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(connection));
}

std::filesystem::path Database::defaultFile() {
    std::filesystem::path base;
    if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && *data != '\0') {
        base = data;
    } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
        base = std::filesystem::path(home) / ".local" / "share";
    } else {
        base = ".";
    }
    return base / "kxsandbox" / "sandbox.db";
}

}  // namespace kxsandbox
