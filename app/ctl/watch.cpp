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
#include "base/json.h"
#include "base/paths.h"
#include "base/terminal.h"
#include "base/unique_fd.h"

namespace ZARO::Relay::ctl {

namespace {

using app::Clock;
using app::milliseconds;

constexpr milliseconds kEvery{1000};
constexpr int kRowsUnknown = 24;

/// The terminal's second screen, without cursor and line wrap. The user's own stays as it was.
class Screen {
public:
    Screen() { Enter(); }
    ~Screen() { Leave(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    void Enter() const { std::cout << "\033[?1049h\033[?25l\033[?7l" << std::flush; }
    void Leave() const { std::cout << "\033[?7h\033[?25h\033[?1049l" << std::flush; }

    /// Draws over the former text, as many lines as fit.
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

/// Turns signals and changes of the status file into events.
class Events {
public:
    Events() {
        sigset_t wanted;
        sigemptyset(&wanted);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) {
            sigaddset(&wanted, number);
        }
        (void)sigprocmask(SIG_BLOCK, &wanted, &before_); // can't fail with a set of real signals
        signals_ = UniqueFd(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
        changes_ = UniqueFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        const std::string path = paths::StatusFile();
        name_ = path.substr(path.rfind('/') + 1);
        // If it fails, the redraw once per second shows the change.
        (void)inotify_add_watch(changes_.Get(), path.substr(0, path.rfind('/')).c_str(),
                                IN_MOVED_TO | IN_DELETE | IN_CLOSE_WRITE);
    }

    ~Events() { (void)sigprocmask(SIG_SETMASK, &before_, nullptr); }

    Events(const Events&) = delete;
    Events& operator=(const Events&) = delete;

    /// Waits for the next event, a second at most. Gives Stop when signals can't be received.
    Event Next() {
        const auto deadline = Clock::now() + kEvery;
        pollfd entries[] = {{signals_.Get(), POLLIN, 0}, {changes_.Get(), POLLIN, 0}};
        while (signals_.IsOpen()) {
            const auto left =
                std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
            // However many notices come of other files, the redraw is on time.
            if (poll(entries, 2, static_cast<int>(std::max<long>(left, 0))) == 0 || left <= 0) {
                return Event::Redraw;
            }
            signalfd_siginfo signal{};
            if (read(signals_.Get(), &signal, sizeof signal) == sizeof signal) {
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

    /// Reads all notices, of which many are of other files in that folder.
    bool StatusChanged() const {
        alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
        bool changed = false;
        ssize_t length = 0;
        while ((length = read(changes_.Get(), buffer, sizeof buffer)) > 0) {
            for (ssize_t at = 0; at < length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                changed = changed || (event->len > 0 && name_ == event->name);
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        return changed;
    }

    sigset_t before_{};
    UniqueFd signals_;
    UniqueFd changes_;
    std::string name_;
};

std::string Text(const Status& status, const StatusOptions& options) {
    return options.json ? json::OneLine(status.document)
                        : RenderStatus(status.document, time(nullptr), WantsColour());
}

/// For pipes: prints each status that differs from the one before.
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
    std::cout << last << std::flush; // so that it stays in view
    return code;
}

} // namespace ZARO::Relay::ctl
