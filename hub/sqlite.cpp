#include "hub/sqlite.h"

#include <cstddef>

namespace ZARO::RelayHub {

namespace {

FaultKind KindOf(int code) {
    switch (code & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return FaultKind::Damage;
    case SQLITE_FULL:
    case SQLITE_IOERR:
        return FaultKind::Unwritable;
    case SQLITE_BUSY:
        return FaultKind::Busy;
    default:
        return FaultKind::Other;
    }
}

/// Puts a value in the place of "$`number`", which a statement may leave out.
int Bind(sqlite3_stmt* statement, std::size_t number, const Value& value) {
    const int place =
        sqlite3_bind_parameter_index(statement, ("$" + std::to_string(number)).c_str());
    if (place == 0) {
        return SQLITE_OK;
    }
    if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        return sqlite3_bind_int64(statement, place, *integer);
    }
    const auto& text = std::get<std::string>(value);
    return sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()),
                             SQLITE_TRANSIENT);
}

/// Borrows a prepared statement for one use.
class SqliteRows : public Rows {
public:
    SqliteRows(const Sqlite& database, sqlite3_stmt* statement)
        : database_(database), statement_(statement) {}
    SqliteRows(const SqliteRows&) = delete;
    SqliteRows& operator=(const SqliteRows&) = delete;
    ~SqliteRows() override {
        // The result repeats that of the last step, which has been checked.
        (void)sqlite3_reset(statement_);
        (void)sqlite3_clear_bindings(statement_);
    }

    bool Next() override {
        const int result = sqlite3_step(statement_);
        if (result != SQLITE_ROW && result != SQLITE_DONE) {
            database_.Fail(sqlite3_sql(statement_));
        }
        return result == SQLITE_ROW;
    }
    std::int64_t Integer(int column) const override {
        return sqlite3_column_int64(statement_, column);
    }
    std::string Text(int column) const override {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
        return text == nullptr ? std::string() : std::string(text, size);
    }

private:
    const Sqlite& database_;
    sqlite3_stmt* statement_;
};

} // namespace

Sqlite::Sqlite(const std::string& file) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    sqlite3* handle = nullptr;
    const int result = sqlite3_open_v2(file.c_str(), &handle, flags, nullptr);
    handle_.reset(handle); // there is one even after most failures
    if (result != SQLITE_OK) {
        Fail("open");
    }
    sqlite3_busy_timeout(handle, 2000); // an administrator may be reading the file
}

Sqlite::~Sqlite() {
    for (const auto& [sql, statement] : statements_) {
        sqlite3_finalize(statement);
    }
}

std::unique_ptr<Rows> Sqlite::Run(const char* sql, const std::vector<Value>& values) {
    sqlite3_stmt* statement = Prepare(sql);
    auto rows = std::make_unique<SqliteRows>(*this, statement);
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (Bind(statement, i + 1, values[i]) != SQLITE_OK) {
            Fail("bind");
        }
    }
    return rows;
}

void Sqlite::Execute(const char* sql) {
    if (sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        Fail(sql);
    }
}

sqlite3_stmt* Sqlite::Prepare(const char* sql) {
    sqlite3_stmt*& statement = statements_[sql];
    if (statement == nullptr &&
        sqlite3_prepare_v3(handle_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement,
                           nullptr) != SQLITE_OK) {
        Fail(sql);
    }
    return statement;
}

void Sqlite::Fail(const char* doing) const {
    throw DatabaseFault(Summary(doing) + ": " + sqlite3_errmsg(handle_.get()),
                        KindOf(sqlite3_errcode(handle_.get())));
}

} // namespace ZARO::RelayHub
