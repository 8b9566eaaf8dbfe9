#include "hub/postgres.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "hub/database_url.h"

namespace ZARO::RelayHub {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kOldestServer = 130000;               // as libpq counts versions
constexpr auto kCallTime = std::chrono::seconds(5); // longer than the server's own bound below
constexpr char kSettings[] = "SET statement_timeout = 4000;"
                             // A host that dies within a transaction must not keep its locks.
                             "SET idle_in_transaction_session_timeout = 10000;"
                             "SET client_min_messages = error";

std::string FirstLine(const char* message) {
    const std::string whole = message == nullptr ? "" : message;
    return whole.substr(0, whole.find('\n'));
}

bool Begins(const std::string& state, const char* with) {
    return state.rfind(with, 0) == 0;
}

/// What a code of five letters and digits means, which the SQL standard calls SQLSTATE.
FaultKind KindOf(const std::string& state) {
    if (Begins(state, "40") || state == "23505") { // the loser of two that add the same
        return FaultKind::Conflict;
    }
    if (Begins(state, "08") || Begins(state, "57P") || state == "53300") {
        return FaultKind::Away;
    }
    if (Begins(state, "53") || Begins(state, "58") || state == "25006") { // a standby can only read
        return FaultKind::Unwritable;
    }
    return Begins(state, "XX") ? FaultKind::Damage : FaultKind::Other;
}

int MillisecondsUntil(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
}

bool IsFailure(const PGresult* result) {
    const ExecStatusType status = PQresultStatus(result);
    return status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_EMPTY_QUERY;
}

} // namespace

PostgresConnection ConnectPostgres(const std::string& url) {
    const std::string fault = FaultOfUrl(url);
    if (!fault.empty()) {
        throw DatabaseFault(fault);
    }
    // What the URL may override comes before it.
    const std::pair<const char*, const char*> kOptions[] = {
        {"connect_timeout", "3"},  {"tcp_user_timeout", "5000"},
        {"keepalives_idle", "5"},  {"keepalives_interval", "2"},
        {"keepalives_count", "3"}, {"fallback_application_name", "zarorelay-hub"},
        {"dbname", url.c_str()},   {"client_encoding", "UTF8"},
        {nullptr, nullptr}};
    std::vector<const char*> keywords, values;
    for (const auto& [keyword, value] : kOptions) {
        keywords.push_back(keyword);
        values.push_back(value);
    }
    PostgresConnection connection(PQconnectdbParams(keywords.data(), values.data(), 1));
    if (connection == nullptr || PQstatus(connection.get()) != CONNECTION_OK) {
        throw DatabaseFault(connection == nullptr ? "out of memory"
                                                  : FirstLine(PQerrorMessage(connection.get())),
                            FaultKind::Away);
    }
    if (PQserverVersion(connection.get()) < kOldestServer) {
        throw DatabaseFault("the server is older than PostgreSQL 13");
    }
    const auto ignore = [](void*, const PGresult*) {};
    (void)PQsetNoticeReceiver(connection.get(), ignore, nullptr); // else it writes to our stderr
    return connection;
}

/// All rows of a result, which libpq keeps in memory.
class Postgres::ResultRows : public Rows {
public:
    explicit ResultRows(Result result) : result_(std::move(result)) {}

    bool Next() override { return ++row_ < PQntuples(result_.get()); }
    std::int64_t Integer(int column) const override {
        return strtoll(PQgetvalue(result_.get(), row_, column), nullptr, 10);
    }
    std::string Text(int column) const override {
        return {PQgetvalue(result_.get(), row_, column),
                static_cast<std::size_t>(PQgetlength(result_.get(), row_, column))};
    }

private:
    Result result_;
    int row_ = -1;
};

Postgres::Postgres(const std::string& url) : connection_(ConnectPostgres(url)) {
    (void)PQsetnonblocking(connection_.get(), 1); // fails for a lost connection, as do the calls
    Execute(kSettings);
}

std::unique_ptr<Rows> Postgres::Run(const char* sql, const std::vector<Value>& values) {
    const std::string& name = Prepare(sql, values);
    std::vector<std::string> texts;
    std::vector<const char*> pointers;
    texts.reserve(values.size()); // they must not move
    for (const Value& value : values) {
        const auto* text = std::get_if<std::string>(&value);
        pointers.push_back(
            text != nullptr
                ? text->c_str()
                : texts.emplace_back(std::to_string(std::get<std::int64_t>(value))).c_str());
    }
    const bool sent =
        PQsendQueryPrepared(connection_.get(), name.c_str(), static_cast<int>(pointers.size()),
                            pointers.data(), nullptr, nullptr, 0) == 1;
    return std::make_unique<ResultRows>(Finish(sent, sql));
}

void Postgres::Execute(const char* sql) {
    (void)Finish(PQsendQuery(connection_.get(), sql) == 1, sql);
}

void Postgres::Commit() {
    try {
        Execute("COMMIT");
    } catch (const DatabaseFault& fault) {
        if (fault.kind == FaultKind::Away) { // repeating the work would be wrong
            throw DatabaseFault("it is unknown whether a change was kept: " +
                                std::string(fault.what()));
        }
        throw;
    }
}

bool Postgres::IsLost() const {
    return connection_ == nullptr || PQtransactionStatus(connection_.get()) != PQTRANS_IDLE;
}

const std::string& Postgres::Prepare(const char* sql, const std::vector<Value>& values) {
    constexpr Oid kBigint = 20;
    const auto known = names_.find(sql);
    if (known != names_.end()) {
        return known->second;
    }
    std::vector<Oid> types; // 0 = as the statement has it
    types.reserve(values.size());
    for (const Value& value : values) {
        types.push_back(std::holds_alternative<std::string>(value) ? 0 : kBigint);
    }
    const std::string name = "s" + std::to_string(names_.size());
    (void)Finish(PQsendPrepare(connection_.get(), name.c_str(), sql, static_cast<int>(types.size()),
                               types.data()) == 1,
                 sql);
    return names_[sql] = name;
}

Postgres::Result Postgres::Finish(bool sent, const char* sql) {
    if (connection_ == nullptr) {
        throw DatabaseFault("the connection is lost", FaultKind::Away);
    }
    if (!sent) {
        Lose(FirstLine(PQerrorMessage(connection_.get())));
    }
    const Deadline deadline = Clock::now() + kCallTime;
    Result last;
    for (;;) {
        WaitForResult(deadline);
        Result next(PQgetResult(connection_.get()));
        if (next == nullptr) {
            break;
        }
        if (last == nullptr || !IsFailure(last.get())) {
            last = std::move(next);
        }
    }
    if (last != nullptr && !IsFailure(last.get())) {
        return last;
    }
    const char* state = PQresultErrorField(last.get(), PG_DIAG_SQLSTATE);
    const char* message = PQresultErrorField(last.get(), PG_DIAG_MESSAGE_PRIMARY);
    if (PQstatus(connection_.get()) != CONNECTION_OK || state == nullptr) {
        Lose(message != nullptr ? message : FirstLine(PQerrorMessage(connection_.get())));
    }
    throw DatabaseFault(Summary(sql) + ": " + FirstLine(message), KindOf(state));
}

void Postgres::WaitForResult(Deadline deadline) {
    PGconn* connection = connection_.get();
    for (;;) {
        const int unsent = PQflush(connection);
        // A failed flush may have left the server's last words to be read.
        if (unsent <= 0 && PQisBusy(connection) == 0) {
            return;
        }
        const short wanted = static_cast<short>(POLLIN | (unsent > 0 ? POLLOUT : 0));
        pollfd wait{PQsocket(connection), wanted, 0};
        const int ready = poll(&wait, 1, MillisecondsUntil(deadline));
        if (ready == 0) {
            Lose("the server does not answer");
        }
        if (ready < 0 && errno != EINTR) {
            Lose(strerror(errno));
        }
        if (ready > 0 && PQconsumeInput(connection) == 0) {
            Lose(FirstLine(PQerrorMessage(connection)));
        }
    }
}

void Postgres::Lose(const std::string& why) {
    connection_ = nullptr;
    throw DatabaseFault(why, FaultKind::Away);
}

} // namespace ZARO::RelayHub
