#include "hub/backup.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <sqlite3.h>

#include "base/replace_file.h"
#include "base/unique_fd.h"

namespace ZARO::RelayHub {

namespace {

constexpr int kPatienceMs = 10000; // for another process that locks the database

/// One database file, closed when this goes.
class Opened {
public:
    explicit Opened(const std::string& file) {
        sqlite3* handle = nullptr;
        result_ = sqlite3_open_v2(file.c_str(), &handle,
                                  SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr);
        handle_.reset(handle);
        if (result_ == SQLITE_OK) {
            result_ = sqlite3_busy_timeout(handle, kPatienceMs);
        }
    }
    int Result() const { return result_; }
    sqlite3* Get() const { return handle_.get(); }

private:
    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> handle_{nullptr, sqlite3_close};
    int result_ = SQLITE_OK;
};

/// A new file with a name of its own, which goes again unless it was placed.
class NewCopy {
public:
    explicit NewCopy(const std::string& file) : name_(file + ".XXXXXX") {
        made_ = UniqueFd(mkostemp(name_.data(), O_CLOEXEC)).IsOpen();
    }
    NewCopy(const NewCopy&) = delete;
    NewCopy& operator=(const NewCopy&) = delete;
    ~NewCopy() {
        if (made_) {
            (void)unlink(name_.c_str()); // nothing can be done about a failure
        }
    }
    bool IsMade() const { return made_; }
    const std::string& Name() const { return name_; }

    /// Gives it the name unless a file has that. False with errno.
    bool Place(const std::string& file) {
        if (link(name_.c_str(), file.c_str()) == 0) {
            return true;
        }
        if (errno != EPERM && errno != EOPNOTSUPP) {
            return false;
        }
        made_ = rename(name_.c_str(), file.c_str()) != 0; // a file system without links
        return !made_;
    }

private:
    std::string name_;
    bool made_ = false;
};

/// Copies one whole database into an empty one. SQLite's result.
int Copy(const std::string& from, const std::string& to) {
    const Opened source(from);
    const Opened target(to);
    if (source.Result() != SQLITE_OK || target.Result() != SQLITE_OK) {
        return source.Result() != SQLITE_OK ? source.Result() : target.Result();
    }
    sqlite3_backup* const backup = sqlite3_backup_init(target.Get(), "main", source.Get(), "main");
    if (backup == nullptr) {
        return sqlite3_errcode(target.Get());
    }
    // All in one step: the writers of a database with a write-ahead log do not wait for readers.
    const int copied = sqlite3_backup_step(backup, -1);
    const int finished = sqlite3_backup_finish(backup);
    return copied == SQLITE_DONE ? finished : copied;
}

bool Fail(const std::string& doing, std::string& error) {
    error = doing + ": " + strerror(errno);
    return false;
}

} // namespace

bool BackUp(const std::string& data, const std::string& file, std::string& error) {
    const std::string database = data + "/hub.db";
    if (access(database.c_str(), R_OK) != 0) {
        return Fail("can't read " + database, error);
    }
    if (access(file.c_str(), F_OK) == 0) {
        errno = EEXIST; // before the work is done; Place looks again
        return Fail("can't write " + file, error);
    }
    NewCopy copy(file);
    if (!copy.IsMade()) {
        return Fail("can't write " + file, error);
    }
    const int result = Copy(database, copy.Name());
    if (result != SQLITE_OK) {
        error = "can't copy " + database + " to " + file + ": " + sqlite3_errstr(result);
        return false;
    }
    if (!copy.Place(file)) {
        return Fail("can't write " + file, error);
    }
    SyncFolder(FolderOf(file));
    return true;
}

} // namespace ZARO::RelayHub
