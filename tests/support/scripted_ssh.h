/// An SSH client that writes down how it was called and then does what a test tells it.
#pragma once

#include "tests/support/temp_root.h"

/// Installs ssh and ps below the root and puts them first in PATH. `then`: what the client does
/// after it has written down its call; by default it logs in and leaves a background process that
/// ps shows. That process ends with this object.
class ScriptedSsh : NoCopy {
public:
    explicit ScriptedSsh(const TempRoot& root, const std::string& then = "background; exit 0")
        : root_(root), path_(getenv("PATH")) {
        prctl(PR_SET_CHILD_SUBREAPER, 1); // so that the background process can be reaped
        root.Write("/ssh.ps", "");
        root.Write("/usr/zaro/bin/ps", "#!/bin/sh\ncat \"$ZARO_ROOT/ssh.ps\"\n", 0755);
        root.Write("/usr/zaro/bin/ssh", std::string(kClient) + then + "\n", 0755);
        setenv("PATH", (root.Path("/usr/zaro/bin:") + path_).c_str(), 1);
    }

    ~ScriptedSsh() {
        if (Pid() > 0 && kill(Pid(), SIGKILL) == 0) {
            Reap();
        }
        setenv("PATH", path_.c_str(), 1);
    }

    /// Arguments, each in angle brackets; mode, a blank and content of the password file.
    std::string Argv() const { return root_.Read("/ssh.argv"); }
    std::string Password() const { return root_.Read("/ssh.password"); }

    /// The background process; 0 when none was started.
    pid_t Pid() const { return atoi(root_.Read("/ssh.pid").c_str()); }

    /// Waits for the end of the background process; gives the signal that ended it, 0 for none.
    int Reap() const {
        int status = 0;
        const bool gone = WaitFor([&] { return waitpid(Pid(), &status, WNOHANG) != 0; });
        return gone && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

private:
    static constexpr char kClient[] = R"(#!/bin/bash
file=$2
printf '<%s>' "$0" "$@" > "$ZARO_ROOT/ssh.argv"
{ stat -c %a "$file"; cat "$file"; } > "$ZARO_ROOT/ssh.password"
background() {
  (exec -a "ssh -d $file" sleep 600 < /dev/null > /dev/null 2>&1) &
  echo $! > "$ZARO_ROOT/ssh.pid"
  echo " $! ?  S  0:00 ssh -d $file" > "$ZARO_ROOT/ssh.ps"
}
)";
    const TempRoot& root_;
    const std::string path_;
};
