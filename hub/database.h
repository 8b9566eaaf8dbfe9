/// A database in plain SQL, whichever engine it has: failures become exceptions, which the store's
/// methods catch.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace ZARO::RelayHub {

enum class FaultKind {
    Damage,     ///< the file is broken, or no database at all
    Unwritable, ///< nothing can be written at the moment, as on a full disk
    Away,       ///< there is no connection, or it was lost; nothing was kept
    Conflict,   ///< somebody else's change came between; the same work may succeed now
    Busy,       ///< another process had the file locked for too long
    Newer,      ///< the tables are those of a newer hub
    Other,
};

/// What the engine said, without any value. Never leaves the store.
struct DatabaseFault : std::runtime_error {
    explicit DatabaseFault(const std::string& what, FaultKind faultKind = FaultKind::Other)
        : std::runtime_error(what), kind(faultKind) {}
    const FaultKind kind;
};

/// What a statement takes: a number or a text in valid UTF-8 without a NUL.
using Value = std::variant<std::int64_t, std::string>;

/// The text as every engine can keep it: each byte that is no part of valid UTF-8, and each NUL,
/// becomes U+FFFD.
std::string ValidText(const std::string& text);

inline Value ToValue(const std::string& text) {
    return ValidText(text);
}
inline Value ToValue(std::int64_t number) {
    return number;
}
inline Value ToValue(int number) {
    return static_cast<std::int64_t>(number);
}

/// The beginning of a statement, for messages: what it does and to which table.
std::string Summary(const char* sql);

/// The rows that a statement gives.
class Rows {
public:
    virtual ~Rows() = default;
    /// Goes to the next row; false when there is none.
    virtual bool Next() = 0;
    /// Columns count from 0. NULL reads as 0 and "".
    virtual std::int64_t Integer(int column) const = 0;
    virtual std::string Text(int column) const = 0;
};

/// One connection with its prepared statements. For one thread at a time. Methods block, for a few
/// seconds at most, and throw DatabaseFault.
class Database {
public:
    Database() = default;
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    virtual ~Database() = default;

    /// Runs one statement with `values` for its $1, $2 and so on. An engine may do the work only as
    /// far as rows are read, so read them all. The text must be a literal: its address is the key
    /// of the prepared statement.
    virtual std::unique_ptr<Rows> Run(const char* sql, const std::vector<Value>& values) = 0;
    /// Runs statements that give no rows and take no values.
    virtual void Execute(const char* sql) = 0;

    /// Begins a transaction that may write.
    virtual void Begin() = 0;
    virtual void Commit() = 0;
    virtual void Rollback() = 0;

    /// Whether other hosts may use the database at the same time.
    virtual bool IsShared() const = 0;
    /// Whether this connection is of no use for further work.
    virtual bool IsLost() const { return false; }

    /// The text for this engine, where the two differ.
    const char* Sql(const char* sqlite, const char* postgres) const {
        return IsShared() ? postgres : sqlite;
    }
};

/// One use of a statement, with its values in order. Two objects with the same text must not exist
/// at a time.
class Query {
public:
    template <typename... Values>
    Query(Database& database, const char* sql, const Values&... values)
        : rows_(database.Run(sql, std::vector<Value>{ToValue(values)...})) {}

    /// Goes to the next row; false when there is none.
    bool Next() { return rows_->Next(); }
    /// Runs a statement to its end, whatever rows it gives.
    void Run();
    std::int64_t Integer(int column) const { return rows_->Integer(column); }
    int Int(int column) const { return static_cast<int>(rows_->Integer(column)); }
    std::string Text(int column) const { return rows_->Text(column); }

private:
    std::unique_ptr<Rows> rows_;
};

/// A transaction that is rolled back when this object goes, unless it was committed.
class Transaction {
public:
    explicit Transaction(Database& database) : database_(database) { database_.Begin(); }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();
    void Commit();

private:
    Database& database_;
    bool open_ = true;
};

} // namespace ZARO::RelayHub
