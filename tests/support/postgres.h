/// A PostgreSQL server of a test's own.
#pragma once

#include <pwd.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

#include <libpq-fe.h>

#include "tests/support/process.h"

/// A cluster in a temporary folder, reached over a Unix socket in it. The server and the folder go
/// with this object, and also when the test program is killed. For the main thread. Methods throw
/// when the server doesn't do what it should.
class PostgresCluster : NoCopy {
public:
    /// Makes the cluster and starts it, which takes about a second.
    PostgresCluster() {
        if (mkdtemp(folder_.data()) == nullptr) {
            throw std::runtime_error("can't make " + folder_);
        }
        const passwd* const user = geteuid() == 0 ? getpwnam("postgres") : nullptr;
        if (user != nullptr && chown(folder_.c_str(), user->pw_uid, user->pw_gid) != 0) {
            throw std::runtime_error("can't give away " + folder_);
        }
        RemoveAfterwards();
        Process initdb(Line("initdb", "--no-sync --no-locale -E UTF8 -A trust -U postgres"
                                      " --wal-segsize=1 -D " +
                                          Data()),
                       LogFile());
        if (initdb.Wait(seconds(60) * kSlow) != 0) {
            throw std::runtime_error("no cluster: " + Log());
        }
        Start();
    }
    ~PostgresCluster() {
        End(SIGQUIT);
        std::error_code ignored; // what stays, RemoveAfterwards() removes
        fs::remove_all(folder_, ignored);
    }

    /// The one that the tests of a program share, made at its first use.
    static PostgresCluster& Shared() {
        static PostgresCluster cluster;
        return cluster;
    }

    /// Of a database that is there from the start, or of another one.
    std::string Url(const std::string& database = "postgres") const {
        return "postgresql://postgres@/" + database + "?host=" + folder_;
    }
    /// Makes an empty database and returns its URL.
    std::string Database(const std::string& name) const {
        Run("CREATE DATABASE " + name);
        return Url(name);
    }
    /// Runs SQL on a connection of its own. The first column of the first row, if there is one.
    std::string Run(const std::string& sql, const std::string& database = "postgres") const {
        const std::unique_ptr<PGconn, void (*)(PGconn*)> link(PQconnectdb(Url(database).c_str()),
                                                              &PQfinish);
        const std::unique_ptr<PGresult, void (*)(PGresult*)> result(PQexec(link.get(), sql.c_str()),
                                                                    &PQclear);
        const ExecStatusType status = PQresultStatus(result.get());
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
            throw std::runtime_error(PQerrorMessage(link.get()));
        }
        return PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
    }
    /// Cuts every connection to a database.
    void Cut(const std::string& database) const {
        Run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '" + database +
            "' AND pid <> pg_backend_pid()");
    }

    /// Returns once the server answers.
    void Start() {
        server_ = std::make_unique<Process>(
            Line("postgres", "-D " + Data() + " -k " + folder_ +
                                 " -c listen_addresses= -c fsync=off -c shared_buffers=16MB"
                                 " -c max_connections=100"),
            LogFile());
        const auto answers = [this] {
            return PQping(Url().c_str()) == PQPING_OK ||
                   server_->Wait(milliseconds(0)) != Process::kRuns;
        };
        if (!Within(seconds(30) * kSlow, answers) ||
            server_->Wait(milliseconds(0)) != Process::kRuns) {
            throw std::runtime_error("no server: " + Log());
        }
    }
    /// Ends the server in order; its connections are cut.
    void Stop() { End(SIGINT); }
    /// Ends every process of the server at once, as a failing machine does.
    void Kill() {
        const std::string pid = std::to_string(server_->Pid());
        server_->Signal(SIGSTOP); // so that it starts no process meanwhile
        for (const std::string& child :
             Words(ReadFile("/proc/" + pid + "/task/" + pid + "/children"))) {
            kill(std::stoi(child), SIGKILL);
        }
        End(SIGKILL);
    }
    std::string Log() const { return ReadFile(LogFile()); }

private:
    std::string Data() const { return folder_ + "/data"; }
    std::string LogFile() const { return folder_ + "/log"; }

    /// A command line that ends its program with this one. The programs refuse to run as root.
    static std::vector<std::string> Line(const std::string& program, const std::string& options) {
        const char* const user =
            geteuid() == 0 ? "--reuid=postgres --regid=postgres --init-groups " : "";
        return Words(user + ("--pdeathsig QUIT " + Programs() + "/" + program + " " + options),
                     {"/usr/bin/setpriv"});
    }
    /// The folder with the programs of the newest version.
    static std::string Programs() {
        std::string newest;
        std::error_code none;
        for (const auto& entry : fs::directory_iterator("/usr/lib/postgresql", none)) {
            newest = std::max(newest, (entry.path() / "bin").string());
        }
        return !newest.empty() ? newest : throw std::runtime_error("PostgreSQL is not installed");
    }

    void End(int signal) {
        if (server_ != nullptr) {
            server_->Signal(signal);
            (void)server_->Wait(seconds(20) * kSlow);
            server_.reset();
        }
    }

    /// Starts a shell that removes the folder when this program has ended in any way. It is
    /// nobody's child, as a time limit kills the test's children too.
    void RemoveAfterwards() const {
        const char script[] =
            "tail -s 0.2 --pid=$0 -f /dev/null; until rm -rf $1; do sleep 1; done";
        Process shell(
            {"/usr/bin/setsid", "-f", "/bin/sh", "-c", script, std::to_string(getpid()), folder_});
        (void)shell.Wait(seconds(10) * kSlow);
    }

    std::string folder_ = (fs::temp_directory_path() / "zaro-pg.XXXXXX").string();
    std::unique_ptr<Process> server_; ///< null while it is down
};
