#include "app/ctl/watch.h"

#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>

#include "app/common/clock.h"
#include "app/ctl/report.h"
#include "app/ctl/text.h"
#include "base/json.h"
#include "base/paths.h"

namespace ZARO::Relay::ctl {

namespace {

using app::Clock;
using app::milliseconds;

constexpr milliseconds kEvery{1000};
constexpr int kRowsUnknown = 24;

/// A second screen without cursor and line wrap, which leaves the user's own as it is.
class Screen {
public:
    Screen() { Enter(); }
    ~Screen() { Leave(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    void Enter() const { std::cout << "\033[?1049h\033[?25l\033[?7l" << std::flush; }
    void Leave() const { std::cout << "\033[?7h\033[?25h\033[?1049l" << std::flush; }

    /// Draws over what was there, as many lines as fit.
    void Draw(const std::string& text) const {
        winsize size{};
        const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
        const int rows = known ? size.ws_row : kRowsUnknown;
        std::string drawn = "\033[H";
        std::size_t at = 0;
        for (int row = 0; row < rows && at < text.size(); ++row) {
            const std::size_t end = std::min(text.find('\n', at), text.size());
            drawn += (row == 0 ? "" : "\r\n") + text.substr(at, end - at) + "\033[K";
            at = end + 1;
        }
        std::cout << drawn << "\033[J" << std::flush;
    }
};

enum class Event { Redraw, Suspend, Stop };

/// Signals and changes of the status file, as events.
class Events {
public:
    Events() {
        sigset_t wanted;
        sigemptyset(&wanted);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) {
            sigaddset(&wanted, number);
        }
        (void)sigprocmask(SIG_BLOCK, &wanted, &before_); // can't fail with a set of real signals
        signals_ = signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK);
        changes_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        const std::string path = paths::StatusFile();
        name_ = path.substr(path.rfind('/') + 1);
        // Without it the look once a second finds the change.
        (void)inotify_add_watch(changes_, path.substr(0, path.rfind('/')).c_str(),
                                IN_MOVED_TO | IN_DELETE | IN_CLOSE_WRITE);
    }

    ~Events() {
        close(signals_);
        close(changes_);
        (void)sigprocmask(SIG_SETMASK, &before_, nullptr);
    }

    Events(const Events&) = delete;
    Events& operator=(const Events&) = delete;

    /// Waits for the next one, a second at most. Without signals to wait for it ends at once.
    Event Next() {
        const auto deadline = Clock::now() + kEvery;
        pollfd entries[] = {{signals_, POLLIN, 0}, {changes_, POLLIN, 0}};
        while (signals_ >= 0) {
            const auto left =
                std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
            // Notices of other files, however many, must not put the redraw off.
            if (poll(entries, 2, static_cast<int>(std::max<long>(left, 0))) == 0 || left <= 0) {
                return Event::Redraw;
            }
            signalfd_siginfo signal{};
            if (read(signals_, &signal, sizeof signal) == sizeof signal) {
                return EventOf(static_cast<int>(signal.ssi_signo));
            }
            if (StatusChanged()) {
                return Event::Redraw;
            }
        }
        return Event::Stop;
    }

private:
    static Event EventOf(int number) {
        if (number == SIGWINCH) {
            return Event::Redraw;
        }
        return number == SIGTSTP ? Event::Suspend : Event::Stop;
    }

    /// Takes all notices; other files come and go in that folder too.
    bool StatusChanged() const {
        alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
        bool changed = false;
        ssize_t length = 0;
        while ((length = read(changes_, buffer, sizeof buffer)) > 0) {
            for (ssize_t at = 0; at < length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                changed = changed || (event->len > 0 && name_ == event->name);
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        return changed;
    }

    sigset_t before_{};
    int signals_;
    int changes_;
    std::string name_;
};

std::string Text(const Status& status, const StatusOptions& options) {
    return options.json ? json::Compact(status.document) + "\n"
                        : RenderStatus(status.document, time(nullptr), WantsColour());
}

/// For pipes: each status that differs from the one before.
int WatchInto(const StatusOptions& options, Events& events) {
    Status shown;
    do {
        const Status status = ReadStatus(options.service);
        if (status.document != shown.document) {
            std::cout << (options.json || shown.document.isNull() ? "" : "\n")
                      << Text(status, options) << std::flush;
        }
        shown = status;
    } while (std::cout.good() && events.Next() != Event::Stop);
    return shown.code;
}

int WatchOn(const StatusOptions& options, Events& events, std::string& last) {
    const Screen screen;
    for (;;) {
        const Status status = ReadStatus(options.service);
        last = Text(status, options);
        screen.Draw(last);
        switch (events.Next()) {
        case Event::Stop:
            return status.code;
        case Event::Suspend:
            screen.Leave();
            (void)raise(SIGSTOP);
            screen.Enter();
            break;
        case Event::Redraw:
            break;
        }
        if (!std::cout.good()) { // the terminal is gone
            return status.code;
        }
    }
}

} // namespace

int Watch(const StatusOptions& options) {
    Events events;
    if (options.json || !IsTerminal()) {
        return WatchInto(options, events);
    }
    std::string last;
    const int code = WatchOn(options, events, last);
    std::cout << last << std::flush; // stays in view
    return code;
}

} // namespace ZARO::Relay::ctl
