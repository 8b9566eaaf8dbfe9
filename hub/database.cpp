#include "hub/database.h"

namespace ZARO::RelayHub {

void Database::Close() {
    for (const auto& [sql, statement] : statements_) {
        sqlite3_finalize(statement);
    }
    statements_.clear();
    sqlite3_close(handle_);
    handle_ = nullptr;
}

void Database::Open(const std::string& file) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(file.c_str(), &handle_, flags, nullptr) != SQLITE_OK) {
        Fail("open");
    }
    sqlite3_busy_timeout(handle_, 2000); // an administrator may be reading the file
}

void Database::Execute(const char* sql) {
    if (sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        Fail(sql);
    }
}

sqlite3_stmt* Database::Prepare(const char* sql) {
    sqlite3_stmt*& statement = statements_[sql];
    if (statement == nullptr && sqlite3_prepare_v3(handle_, sql, -1, SQLITE_PREPARE_PERSISTENT,
                                                   &statement, nullptr) != SQLITE_OK) {
        Fail(sql);
    }
    return statement;
}

void Database::Fail(const char* doing) const {
    const std::string what(doing);
    throw DatabaseFault(what.substr(0, what.find_first_of(";(\n")) + ": " + sqlite3_errmsg(handle_),
                        sqlite3_errcode(handle_));
}

Query::~Query() {
    // The result repeats that of the last step, which has been checked.
    (void)sqlite3_reset(statement_);
    (void)sqlite3_clear_bindings(statement_);
}

bool Query::Next() {
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        database_.Fail(sqlite3_sql(statement_));
    }
    return result == SQLITE_ROW;
}

void Query::Run() {
    while (Next()) {
    }
}

std::string Query::Text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
    return text == nullptr ? std::string() : std::string(text, size);
}

void Query::Bind(int place, std::int64_t value) {
    if (sqlite3_bind_int64(statement_, place, value) != SQLITE_OK) {
        database_.Fail("bind");
    }
}

void Query::Bind(int place, const std::string& value) {
    if (sqlite3_bind_text(statement_, place, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
        database_.Fail("bind");
    }
}

Transaction::~Transaction() {
    if (open_) {
        try {
            database_.Execute("ROLLBACK");
        } catch (const DatabaseFault&) {
            // SQLite has rolled back by itself already.
        }
    }
}

void Transaction::Commit() {
    database_.Execute("COMMIT");
    open_ = false;
}

} // namespace ZARO::RelayHub
