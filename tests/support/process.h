/// Programs that a test starts, and the time that they take.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <iostream>

#include <gtest/gtest.h>

#include "tests/support/processes.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// How much longer everything may take under sanitizers.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlow = 8;
#else
constexpr int kSlow = 1;
#endif

/// Whether a condition comes true within `bound`, longer under sanitizers; prints the time taken.
template <class Done>
testing::AssertionResult Takes(const std::string& what, milliseconds bound, Done done) {
    const auto start = Clock::now();
    const bool came = Within(bound * kSlow + seconds(10), done);
    const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    std::cout << "[ measured ] " << what << ": " << took.count() << " ms" << std::endl;
    return came && took <= bound * kSlow ? testing::AssertionSuccess()
                                         : testing::AssertionFailure() << took.count() << " ms";
}

/// How often `part` occurs in `text`.
inline std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size()) {
        ++count;
    }
    return count;
}

/// The processes whose `file` in /proc contains `text`; never one that has ended.
inline std::vector<pid_t> ProcessesWith(const std::string& file, const std::string& text) {
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const pid_t pid = atoi(entry.path().filename().c_str());
        if (pid > 0 && ReadFile(entry.path() / file).find(text) != std::string::npos) {
            found.push_back(pid);
        }
    }
    return found;
}

/// A child process. It outlives neither this object nor this process. For the main thread.
class Process : NoCopy {
public:
    static constexpr int kRuns = -1;

    /// Its output is appended to the file `output`; `variable` is added to its environment.
    explicit Process(std::vector<std::string> arguments, const std::string& output = "/dev/null",
                     const std::string& folder = "/",
                     std::string variable = "ZARO_TEST=", mode_t mask = 022) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGTERM); // also when a time limit kills the test
            umask(mask);
            const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            if (dup2(open("/dev/null", O_RDONLY), 0) == 0 && dup2(out, 1) == 1 &&
                dup2(out, 2) == 2 && chdir(folder.c_str()) == 0 && putenv(variable.data()) == 0) {
                (void)close_range(3, ~0U, 0); // what the test itself inherited
                execv(argv[0], argv.data());
            }
            _exit(126);
        }
    }

    ~Process() {
        Signal(SIGKILL);
        Wait(seconds(10));
    }

    pid_t Pid() const { return pid_; }

    void Signal(int number) const {
        if (code_ == kRuns && pid_ > 0) {
            kill(pid_, number);
        }
    }

    /// The exit code, or 128 and the signal that ended it; kRuns when it has not ended by then.
    int Wait(milliseconds limit) {
        int status = 0;
        if (code_ == kRuns && Within(limit, [&] { return waitpid(pid_, &status, WNOHANG) != 0; })) {
            code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return code_;
    }

private:
    pid_t pid_ = -1;
    int code_ = kRuns;
};

/// Runs a program to its end: its exit code, a blank, and its output.
inline std::string Outcome(const std::vector<std::string>& words, const std::string& folder = "/") {
    const int file = memfd_create("output", MFD_CLOEXEC);
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    const int code = Process(words, path, folder).Wait(seconds(10) * kSlow);
    const std::string output = ReadFile(path);
    close(file);
    return std::to_string(code) + " " + output;
}
