/// The database as one file of this host.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "hub/database.h"

namespace ZARO::RelayHub {

/// One connection to a file. Several connections and processes may use the file at the same time.
class Sqlite : public Database {
public:
    /// Opens or makes the file. Throws DatabaseFault.
    explicit Sqlite(const std::string& file);
    ~Sqlite() override;

    std::unique_ptr<Rows> Run(const char* sql, const std::vector<Value>& values) override;
    void Execute(const char* sql) override;
    /// Waits for another writer for 2 s.
    void Begin() override { Execute("BEGIN IMMEDIATE"); }
    void Commit() override { Execute("COMMIT"); }
    void Rollback() override { Execute("ROLLBACK"); }
    bool IsShared() const override { return false; }

    /// Throws what SQLite last reported. `doing` is the SQL or a word for what failed.
    [[noreturn]] void Fail(const char* doing) const;

private:
    sqlite3_stmt* Prepare(const char* sql);

    struct Closer {
        void operator()(sqlite3* handle) const { sqlite3_close(handle); }
    };
    std::unique_ptr<sqlite3, Closer> handle_;
    std::map<const char*, sqlite3_stmt*> statements_;
};

} // namespace ZARO::RelayHub
