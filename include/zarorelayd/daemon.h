/// The daemon facade: logging, the process's life, and status for other programs.
#pragma once

#include <json/value.h>

#include <cstdarg>
#include <string>

#include <zarorelayd/export.h>

/// For the daemon executable: its loop's run flag and its debug switch. The library leaves them
/// alone.
extern ZARORELAYD_API int gblRun;
extern ZARORELAYD_API int gblShowDebug;

namespace ZARO::Relay {

/// Static members only; one thread. Levels are the syslog priorities: 3 error, 4 warning,
/// 5 notice, 6 informational, 7 debug.
class ZARORELAYD_API Daemon {
public:
    // --- logging

    /// Whether a line of this level would be written to standard error. Ask it (with 7) before
    /// building an expensive dump.
    static bool IsLogEnable(int level);

    /// Emits one line if `level` is at or below the threshold: to standard error with a time stamp
    /// or, in a forked daemon without a log file, through libdaemon to the system log. `format`
    /// begins with "%s:%d " for source file and line and has no newline. Prints what it is given,
    /// whole and unchanged: who passes foreign texts sees to it that they are harmless. errno is
    /// the same afterwards, and "%m" is the caller's. Returns what the last output call returned; 0
    /// where nothing was written.
    static int LogV(int level, const char* format, va_list ap)
        __attribute__((format(printf, 2, 0)));
    static int Log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// Opens `path` for writing with `openFlags` and mode 0600 and makes it descriptor `targetFd`.
    /// False, logged, when it can't be opened or moved; the descriptor then stays as it was.
    static bool OpenLogFile(const std::string& path, int targetFd, int openFlags);

    /// Sets the threshold (a negative `level` leaves it) and the log file (empty: none). A forked
    /// daemon's standard error goes there from now on, appending. True in every case.
    static bool SetLogFile(const std::string& path, int level);

    // --- the process's life

    /// Names the daemon "zarorelayd" unless it has a PID file already. Every entry from a separate
    /// program calls it first. True.
    static bool LibInit();

    /// Names the daemon after the last part of `name`: log identity, PID file. False for null.
    static bool SetName(const char* name);

    /// Sets another PID file, an absolute path. libdaemon uses it once SetName has been called at
    /// any time; LibInit does not call SetName any more. False for a null, empty or relative path.
    static bool SetPidFile(const char* path);

    /// Path of the PID file; it lives until the next SetName or SetPidFile.
    static const char* GetPidFile();

    static bool IsForked();

    /// Goes into the background. In the parent it waits up to 20 s for the child's start-up result
    /// and exits with it (255 when none came); it returns in the child, true, and, when it failed,
    /// in the caller, false.
    static bool Fork();

    /// Start of the daemon executable: resets signals, refuses a second instance, forks if
    /// `doFork`, writes the PID file, routes SIGINT, SIGTERM, SIGQUIT, SIGPIPE, SIGHUP and SIGUSR1
    /// to libdaemon's signal pipe. False, logged, on failure; the waiting parent gets 4.
    static bool Init(bool doFork);

    /// Stops a running instance with SIGTERM, waiting up to 10 s for its end. 0, or 2 when there
    /// is none or it did not end.
    static int Kill();

    /// Makes a running instance reload with SIGHUP. 0, or 2 when there is none (told on standard
    /// error).
    static int Hup();

    // --- status, for other programs; faults go to the system log

    /// Reads the status file: 0 running; 1 not running (no file, or its process is gone; `out` then
    /// keeps a stale file's content; also a process that may not be asked because it is another
    /// user's); 255 unusable file. It can't tell the daemon from another live program that has been
    /// given its process id. A link counts as no file, and so does a file whose owner is neither
    /// root, nor the asker, nor the folder's owner, nor the user of the process that it names.
    static int GetStatus(Json::Value& out);

    /// The status as three texts. With `serviceId`, a service that the running daemon does not
    /// publish gives "--", "not_running", "success". False, texts empty, for an unusable file.
    static bool GetStatus(std::string& serverId, std::string& state, std::string& error,
                          const char* serviceId);

    /// Asks the running daemon for a dump of its state; blocks a few milliseconds. 0, and `out` is
    /// what the dump file holds as soon as that is JSON; 1 not running; 11 another asker is at it
    /// or the daemon was too slow: ask again; 255 dump file gone. `out` is null but for 0.
    static int DebugStatus(Json::Value& out);

    /// Prints the status (or, with `debug`, the dump) on standard output. 0 running; 1 not running;
    /// 2 no status; DebugStatus's codes with `debug`.
    static int Status(bool debug);

    static int _logLevel;
    static std::string _strLogFile;
    static bool _isForked;
    static std::string _strPidFile;
    /// For the daemon executable; the library leaves it alone.
    static bool _isCreated;
};

} // namespace ZARO::Relay
