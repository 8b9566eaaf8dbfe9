#include "hub/bus_link.h"

#include <poll.h>

#include <algorithm>
#include <cstdint>

#include "hub/database_url.h"
#include "hub/postgres.h"
#include "hub/sqlite.h"

namespace ZARO::RelayHub {

namespace {

using std::chrono::milliseconds;

/// Messages are rows, which every process looks for when the file has changed.
class SqliteLink : public BusLink {
public:
    explicit SqliteLink(const std::string& file) : database_(file) {
        database_.Execute("PRAGMA synchronous = NORMAL");
        (void)HasChanged();
        Query newest(database_, "SELECT coalesce(max(seq), 0) FROM event");
        last_ = newest.Next() ? newest.Integer(0) : 0;
    }

    void Send(const std::string& text) override {
        Transaction transaction(database_);
        Query(database_, "INSERT INTO event(made, text) VALUES(unixepoch(), $1)", text).Run();
        // The newest row stays, so that who missed the others sees a gap.
        Query(database_, "DELETE FROM event WHERE made < unixepoch() - 60"
                         " AND seq < (SELECT max(seq) FROM event)")
            .Run();
        transaction.Commit();
    }

    bool Receive(milliseconds limit, const Waker& waker, std::vector<std::string>& texts) override {
        constexpr milliseconds kPause(50);
        const auto end = std::chrono::steady_clock::now() + limit;
        do {
            if (HasChanged()) {
                return ReadNew(texts);
            }
        } while (!waker.WaitFor(static_cast<int>(std::min(limit, kPause).count())) &&
                 std::chrono::steady_clock::now() < end);
        return true;
    }

private:
    /// Whether another connection has changed the file since the last call.
    bool HasChanged() {
        Query query(database_, "PRAGMA data_version");
        const std::int64_t before = version_;
        version_ = query.Next() ? query.Integer(0) : 0;
        return version_ != before;
    }

    bool ReadNew(std::vector<std::string>& texts) {
        bool complete = true;
        Query rows(database_, "SELECT seq, text FROM event WHERE seq > $1 ORDER BY seq", last_);
        while (rows.Next()) {
            complete = complete && rows.Integer(0) == last_ + 1;
            last_ = rows.Integer(0);
            texts.push_back(rows.Text(1));
        }
        return complete;
    }

    Sqlite database_;
    std::int64_t version_ = 0;
    std::int64_t last_ = 0; ///< message that was read
};

/// Messages are the server's notifications.
class PostgresLink : public BusLink {
public:
    explicit PostgresLink(const std::string& url) : database_(url) {
        database_.Execute("LISTEN zarorelay");
    }

    void Send(const std::string& text) override {
        Query(database_, "SELECT pg_notify('zarorelay', $1)", text).Run();
    }

    bool Receive(milliseconds limit, const Waker& waker, std::vector<std::string>& texts) override {
        Collect(texts); // what came with the answer to a call
        if (!texts.empty()) {
            return true;
        }
        PGconn* const connection = database_.Connection();
        pollfd waits[] = {{PQsocket(connection), POLLIN, 0}, {waker.Get(), POLLIN, 0}};
        if (poll(waits, 2, static_cast<int>(limit.count())) > 0 && waits[0].revents != 0 &&
            PQconsumeInput(connection) == 0) {
            throw DatabaseFault("the connection is lost", FaultKind::Away);
        }
        Collect(texts);
        return true;
    }

private:
    void Collect(std::vector<std::string>& texts) {
        using Notice = std::unique_ptr<PGnotify, decltype(&PQfreemem)>;
        while (Notice notice{PQnotifies(database_.Connection()), &PQfreemem}) {
            texts.emplace_back(notice->extra);
        }
    }

    Postgres database_;
};

} // namespace

std::unique_ptr<BusLink> BusLink::Open(const std::string& target) {
    if (IsPostgresUrl(target)) {
        return std::make_unique<PostgresLink>(target);
    }
    return std::make_unique<SqliteLink>(target);
}

} // namespace ZARO::RelayHub
