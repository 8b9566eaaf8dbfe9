/// A thin layer over SQLite: failures become exceptions, which the store's methods catch.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

#include <sqlite3.h>

namespace ZARO::RelayHub {

/// What SQLite said. Never leaves the store.
struct DatabaseFault : std::runtime_error {
    /// `code` is SQLite's own result; 0 = the fault is not SQLite's.
    explicit DatabaseFault(const std::string& what, int code = 0)
        : std::runtime_error(what), code_(code & 0xff) {}
    /// Whether the file is broken, or no database at all.
    bool IsDamage() const { return code_ == SQLITE_CORRUPT || code_ == SQLITE_NOTADB; }
    /// Whether nothing can be written at the moment, as on a full disk.
    bool IsUnwritable() const { return code_ == SQLITE_FULL || code_ == SQLITE_IOERR; }

private:
    int code_;
};

/// One connection with its prepared statements. For one thread at a time.
class Database {
public:
    Database() = default;
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database() { Close(); }

    void Open(const std::string& file);
    void Close();
    /// Runs statements that give no rows.
    void Execute(const char* sql);
    /// The statement for `sql`, prepared at its first use. The text must be a literal: its address
    /// is the key.
    sqlite3_stmt* Prepare(const char* sql);
    /// Throws what SQLite last reported. `doing` is the SQL or a word for what failed.
    [[noreturn]] void Fail(const char* doing) const;

private:
    sqlite3* handle_ = nullptr;
    std::map<const char*, sqlite3_stmt*> statements_;
};

/// One use of a prepared statement, with its values bound in order. Two objects with the same text
/// must not exist at a time.
class Query {
public:
    template <typename... Values>
    Query(Database& database, const char* sql, const Values&... values)
        : database_(database), statement_(database.Prepare(sql)) {
        int place = 0;
        (Bind(++place, values), ...);
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;
    ~Query();

    /// Goes to the next row; false when there is none.
    bool Next();
    /// Runs a statement to its end, whatever rows it gives.
    void Run();
    std::int64_t Integer(int column) const { return sqlite3_column_int64(statement_, column); }
    int Int(int column) const { return sqlite3_column_int(statement_, column); }
    std::string Text(int column) const;

private:
    void Bind(int place, std::int64_t value);
    void Bind(int place, int value) { Bind(place, static_cast<std::int64_t>(value)); }
    void Bind(int place, const std::string& value);

    Database& database_;
    sqlite3_stmt* statement_;
};

/// A transaction that is rolled back when this object goes, unless it was committed.
class Transaction {
public:
    explicit Transaction(Database& database) : database_(database) {
        database_.Execute("BEGIN IMMEDIATE");
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();
    void Commit();

private:
    Database& database_;
    bool open_ = true;
};

} // namespace ZARO::RelayHub
