/// Children, deadlines and orphans.
#pragma once

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

/// Appends the words of a text to `all`.
inline std::vector<std::string> Words(const std::string& text, std::vector<std::string> all = {}) {
    std::istringstream in(text);
    all.insert(all.end(), std::istream_iterator<std::string>(in), {});
    return all;
}

/// Waits for a condition up to `limit` from now.
template <class Done> bool Within(std::chrono::milliseconds limit, Done done) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    bool met = done();
    for (; !met && std::chrono::steady_clock::now() < deadline; met = done()) {
        poll(nullptr, 0, 1);
    }
    return met;
}

/// Waits for a condition; false when it does not come true within 10 s.
template <class Done> bool WaitFor(Done done) {
    return Within(std::chrono::seconds(10), done);
}

/// The content of a file; empty when it can't be read, as a file in /proc of an ended process.
inline std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/// Runs `code` in a child and gives its exit code, or 128 + the signal that ended it. Orphans
/// become this process's children and are reaped meanwhile: a zombie would look alive to signal 0.
template <class Code> int InChild(Code code) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        _exit(code());
    }
    int status = 0;
    for (pid_t ended = 0; ended != child && (ended >= 0 || errno == EINTR);) {
        ended = waitpid(-1, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
