/// Children, deadlines and orphans.
#pragma once

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

inline std::vector<std::string> Words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

/// Waits for a condition; false when it does not come true within 10 s.
template <class Done> bool WaitFor(Done done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool met = done();
    for (; !met && std::chrono::steady_clock::now() < deadline; met = done()) {
        poll(nullptr, 0, 1);
    }
    return met;
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
