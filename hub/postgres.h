/// The database on a PostgreSQL server that several hosts share, reached with libpq.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <libpq-fe.h>

#include "hub/database.h"

namespace ZARO::RelayHub {

struct ConnectionCloser {
    void operator()(PGconn* connection) const { PQfinish(connection); }
};
using PostgresConnection = std::unique_ptr<PGconn, ConnectionCloser>;

/// Connects, and checks that the server is one that the hub can work with. Blocks for at most 3 s
/// per address and as long as the host name's look-up takes. Throws DatabaseFault, whose text never
/// holds the password.
PostgresConnection ConnectPostgres(const std::string& url);

/// One connection. A call takes at most 5 s; a connection that does not answer is lost.
class Postgres : public Database {
public:
    /// Connects as ConnectPostgres does.
    explicit Postgres(const std::string& url);

    std::unique_ptr<Rows> Run(const char* sql, const std::vector<Value>& values) override;
    void Execute(const char* sql) override;
    void Begin() override { Execute("BEGIN"); }
    void Commit() override;
    void Rollback() override { Execute("ROLLBACK"); }
    bool IsShared() const override { return true; }
    /// Also when a transaction is left open on it.
    bool IsLost() const override;
    /// For what needs libpq itself; null once it is lost.
    PGconn* Connection() const { return connection_.get(); }

private:
    struct ResultClearer {
        void operator()(PGresult* result) const { PQclear(result); }
    };
    using Result = std::unique_ptr<PGresult, ResultClearer>;
    using Deadline = std::chrono::steady_clock::time_point;
    class ResultRows;

    /// The name of the prepared statement for `sql`.
    const std::string& Prepare(const char* sql, const std::vector<Value>& values);
    /// Sees to it that a call was taken, and waits for the last result of it. Throws what the
    /// server refused.
    Result Finish(bool sent, const char* sql);
    /// Waits until the next result can be read without blocking.
    void WaitForResult(Deadline deadline);
    /// Drops the connection and throws.
    [[noreturn]] void Lose(const std::string& why);

    PostgresConnection connection_;
    std::map<const char*, std::string> names_; ///< of the prepared statements
};

} // namespace ZARO::RelayHub
