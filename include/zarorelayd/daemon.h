/// The daemon facade: logging, the process's life, and status for other programs.
#pragma once

#include <json/value.h>

#include <cstdarg>
#include <string>

#include <zarorelayd/export.h>

// For the daemon executable, 0 at first. The library neither reads nor sets them.
extern ZARORELAYD_API int gblRun;       ///< the loop goes on while it is not 0
extern ZARORELAYD_API int gblShowDebug; ///< a dump is due while it is not 0

namespace ZARO::Relay {

/// Static members only, for one thread. Levels are the syslog priorities: 3 error, 4 warning,
/// 5 notice, 6 informational, 7 debug.
class ZARORELAYD_API Daemon {
public:
    // --- logging

    /// Whether a line of this level would go to standard error. Check it (with 7) before building
    /// an expensive dump.
    static bool IsLogEnable(int level);

    /// Writes one line if `level` is at or below the threshold: to standard error with a time stamp
    /// or, in a forked daemon without a log file, through libdaemon to the system log. `format`
    /// begins with "%s:%d " for source file and line and has no newline. Values are printed whole
    /// and unchanged, so the caller makes texts from outside harmless first. errno stays the same,
    /// and "%m" shows the caller's. Returns what writing the newline to standard error returned
    /// (negative: failed), 0 if the line did not go there.
    static int LogV(int level, const char* format, va_list ap)
        __attribute__((format(printf, 2, 0)));
    /// LogV with the values as arguments.
    static int Log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// Opens `path` for writing with `openFlags` and mode 0600 and makes it descriptor `targetFd`.
    /// Refuses a link; never blocks, and a FIFO that is full loses lines. False, logged and the
    /// descriptor as it was, when the file can't be opened or moved there.
    static bool OpenLogFile(const std::string& path, int targetFd, int openFlags);

    /// Sets the threshold (a negative `level` leaves it) and the log file (empty: none). In a
    /// forked daemon standard error goes there at once, appending; else Fork opens and empties the
    /// file. True in every case; a file that can't be opened is logged.
    static bool SetLogFile(const std::string& path, int level);

    // --- the process's life

    /// Names the daemon "zarorelayd" unless it has a PID file already. Another program calls it
    /// before Kill or Hup; the status functions and the C functions do so themselves. True.
    static bool LibInit();

    /// Names the daemon after the last part of `name`, which is copied: log identity and PID file
    /// (/var/run/NAME.pid). False for null.
    static bool SetName(const char* name);

    /// Sets another PID file, an absolute path. Call SetName before: only then does libdaemon use
    /// this path, and a later SetName would replace it. False for a null, empty or relative path.
    static bool SetPidFile(const char* path);

    /// Path of the PID file, valid until the next SetName or SetPidFile; empty before the first.
    static const char* GetPidFile();

    /// Whether this process went into the background with Fork.
    static bool IsForked();

    /// Goes into the background. True in the child; false, logged, when that can't be made. The
    /// parent does not return: it waits up to 20 s for the child's start-up result and exits with
    /// it, or with 255 when none came.
    static bool Fork();

    /// Start of the daemon executable: resets signals, refuses a second instance, forks if
    /// `doFork`, writes the PID file, routes SIGINT, SIGTERM, SIGQUIT, SIGPIPE, SIGHUP and SIGUSR1
    /// to libdaemon's signal pipe. False, logged, on failure; a parent that waits for the result
    /// gets 4.
    static bool Init(bool doFork);

    /// Ends the running instance with SIGTERM and waits up to 10 s. 0, or 2, logged, when none runs
    /// or it does not end.
    static int Kill();

    /// Makes the running instance reload, with SIGHUP; does not wait. 0, or 2 when none could be
    /// signalled. Prints that on std::cerr; without a name (SetName) it marks std::cerr bad
    /// instead.
    static int Hup();

    // --- status, for other programs; faults go to the system log

    /// Reads the status file. 0: running. 1: no file, or its process is gone or another user's
    /// (`out` then holds the file all the same). 255: unusable file. Can't tell the daemon from
    /// another program that has been given its process id. Links count as no file, as do files of
    /// anyone but root, the caller, the folder's owner and the user of the process named in them.
    static int GetStatus(Json::Value& out);

    /// The status as three texts: server id, state word, error word. With `serviceId`, a service
    /// that no running daemon publishes gives "--", "not_running", "success". False, texts empty,
    /// for an unusable file.
    static bool GetStatus(std::string& serverId, std::string& state, std::string& error,
                          const char* serviceId);

    /// Asks the running daemon for a dump of its state; blocks a few milliseconds. 0: `out` is the
    /// dump. Else `out` is null; 1: not running; 11: another caller is at it, or the daemon was too
    /// slow: retry; 255: the dump file is gone.
    static int DebugStatus(Json::Value& out);

    /// Prints the status (or, with `debug`, the dump) on standard output. 0 running; 1 not running;
    /// 2 no status. With `debug`: DebugStatus's codes.
    static int Status(bool debug);

    // Set by the functions above.
    static int _logLevel;           ///< threshold, 4 at first
    static std::string _strLogFile; ///< path; empty: none
    static bool _isForked;          ///< set by Fork
    static std::string _strPidFile; ///< absolute path; empty before the first SetName
    static bool _isCreated;         ///< for the daemon executable; the library leaves it alone
};

} // namespace ZARO::Relay
