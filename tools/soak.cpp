/// Half an hour of random faults on a hub and its devices, all of them the real programs, while
/// visitors keep coming. Nothing may leak, stay unreachable, or send a visitor wrong bytes.
///
///   soak [MINUTES] [SEED]
///
/// The faults are dealt from a deck, each once. Every deck begins with the faults that kill a hub
/// or a daemon; the others follow. Figures are taken at rest, at the end of the first deck, which
/// warms everything up, and of the last one. So a process that was restarted has lived through the
/// same faults in both. After the warm-up nothing kills the first device's daemon, nor the hub in
/// the second half of the time: these two show what grows slowly. Exit code 1 when something is
/// wrong.
#include <atomic>
#include <cstdio>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include "tools/soak_faults.h"

namespace {

/// Within this time after the last fault everything must be reachable, and the status must say so.
/// A long poll on a dead line times out after 65 s; after many failures the next one waits up to
/// 300 s.
constexpr milliseconds kRecovers{(65 + 300 + 15) * 1000 * kSlow};
/// Longer than any time limit: 65 s for a long poll, less for an idle connection or a session.
constexpr seconds kRest{75};
/// Until a visitor is served: a fault may have left them waiting for a second or two.
constexpr seconds kServed{15 * kSlow};
constexpr long kTolerance = 2; // per cent

using Random = std::mt19937;
std::size_t Draw(Random& random, std::size_t from, std::size_t to) {
    return std::uniform_int_distribution<std::size_t>(from, to)(random);
}

const auto gStart = Clock::now();
int gWrong = 0;

void Say(const std::string& text) {
    const long at = std::chrono::duration_cast<seconds>(Clock::now() - gStart).count();
    printf("%02ld:%02ld %s\n", at / 60, at % 60, text.c_str());
}

void Expect(bool holds, const std::string& what) {
    if (!holds) {
        ++gWrong;
        Say("WRONG: " + what);
    }
}

// --- visitors

/// One visitor per service, again and again. A fault may cut short what comes back, but may not
/// change it.
class Visitors : NoCopy {
public:
    Visitors(const World& world, unsigned seed) {
        for (const auto& site : world.sites) {
            for (const std::string& name : site->names) {
                threads_.emplace_back([this, &site, name, seed] {
                    Random random(seed + std::hash<std::string>()(name));
                    while (!over_) {
                        if (pause_) {
                            poll(nullptr, 0, 100);
                        } else {
                            Visit(site->device, name, random);
                        }
                    }
                });
            }
        }
    }
    ~Visitors() {
        over_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    void Pause(bool pause) { pause_ = pause; }
    bool IsPaused() const { return pause_; }

    std::atomic<long> served{0};
    std::atomic<long> cut{0};
    std::atomic<long> wrong{0};

private:
    void Visit(const Device& device, const std::string& name, Random& random) {
        const int port = device.RelayPort(name);
        const Visitor visitor(std::max(port, 1));
        bool whole = Takes(name, visitor.Line());
        for (int i = 0; whole && i < 5; ++i) {
            std::string line(Draw(random, 1, 4000), 'x');
            for (char& c : line) {
                c = static_cast<char>(Draw(random, ' ', '~'));
            }
            whole = Takes(line, visitor.Ask(line));
        }
        ++(whole ? served : cut);
        poll(nullptr, 0, whole ? 20 : 200); // a visitor's pace
    }

    bool Takes(const std::string& wanted, const std::string& came) {
        wrong += wanted.compare(0, came.size(), came) != 0;
        return came == wanted;
    }

    std::atomic<bool> over_{false};
    std::atomic<bool> pause_{false};
    std::vector<std::thread> threads_;
};

// --- figures

/// The resources that a process holds. Pages of mapped files come and go, so growth is counted in
/// the process's own memory, relative to all that is resident.
struct Figures {
    long fds = 0;
    long threads = 0;
    long processes = 0;
    long rss = 0; ///< KiB
    long own = 0; ///< KiB

    Figures(pid_t pid, std::size_t family) : processes(static_cast<long>(family)) {
        const std::string folder = "/proc/" + std::to_string(pid);
        const std::string status = ReadFile(folder + "/status");
        const auto number = [&status](const std::string& key) {
            const std::size_t at = status.find("\n" + key + ":");
            return at == status.npos ? 0L : atol(status.c_str() + at + key.size() + 2);
        };
        std::error_code none; // a process that is gone has 0 descriptors, which never fits
        fds = std::distance(std::filesystem::directory_iterator(folder + "/fd", none), {});
        threads = number("Threads");
        rss = number("VmRSS");
        own = number("RssAnon");
    }

    bool Fits(const Figures& base) const {
        return fds == base.fds && threads == base.threads && processes == base.processes &&
               (own - base.own) * 100 <= kTolerance * base.rss;
    }
    void TakeLeast(const Figures& other) {
        for (long Figures::*member : {&Figures::fds, &Figures::threads, &Figures::processes,
                                      &Figures::rss, &Figures::own}) {
            this->*member = std::min(this->*member, other.*member);
        }
    }
    std::string Text() const {
        char text[128];
        snprintf(text, sizeof text,
                 "%3ld descriptors %3ld threads %ld processes %6ld KiB (%ld own)", fds, threads,
                 processes, rss, own);
        return text;
    }
};

/// The hub's figures, then those of the daemons.
std::vector<Figures> Measure(const World& world) {
    std::vector<Figures> all = {Figures(world.hub.Pid(), 1)};
    for (const auto& site : world.sites) {
        all.emplace_back(site->device.Daemon().Pid(), site->device.Processes().size());
    }
    return all;
}

// --- the run

class Soak : NoCopy {
public:
    explicit Soak(unsigned seed) : random_(seed), visitors_(world_, seed) {}

    void Run(Clock::time_point end) {
        const auto half = Clock::now() + (end - Clock::now()) / 2;
        Recover();
        Deal(true, false);
        Rest();
        std::vector<Figures> base = Measure(world_);
        (void)Within(kRest, [&] { // resources still being released show up
            const std::vector<Figures> now = Measure(world_);
            for (std::size_t i = 0; i < now.size(); ++i) {
                base[i].TakeLeast(now[i]);
            }
            poll(nullptr, 0, 500);
            return false;
        });
        Say("warmed up");
        do {
            visitors_.Pause(false);
            Deal(false, Clock::now() > half);
        } while (Clock::now() < end && gWrong == 0);
        Rest();
        Compare(base);
        Expect(visitors_.wrong == 0, std::to_string(visitors_.wrong) + " visitors got wrong bytes");
    }

private:
    void Deal(bool isWarmUp, bool spareHub) {
        std::vector<Fault> deck = MakeDeck();
        deck.erase(deck.begin(), deck.begin() + (spareHub ? 1 : 0)); // not the fault that kills it
        std::shuffle(deck.begin(), deck.end(), random_);
        std::stable_partition(deck.begin(), deck.end(), [](const Fault& f) { return !f.kills; });
        for (int step = 1; !deck.empty() && gWrong == 0; ++step) {
            Befall(deck, isWarmUp ? 0 : 1);
            if (step % 8 == 0 || deck.empty()) {
                Recover();
            }
        }
    }

    /// Lets one fault happen, or two at once. `first`: the first device whose daemon may be killed.
    void Befall(std::vector<Fault>& deck, std::size_t first) {
        std::vector<Heal> heals;
        std::set<std::size_t> struck;
        std::string names;
        for (int left = Draw(random_, 0, 2) == 0 ? 2 : 1; left > 0 && !deck.empty(); --left) {
            const Fault fault = deck.back();
            const std::size_t place = Draw(random_, fault.kills ? first : 0, kDevices - 1);
            const std::size_t service = Draw(random_, 0, kServices - 1);
            if (!struck.insert(fault.place + (fault.place == kDevice ? place : 0)).second) {
                break;
            }
            deck.pop_back();
            names += (names.empty() ? "" : ", ") + fault.name +
                     (fault.place == kDevice ? " (" + std::to_string(place) + ")" : "");
            heals.push_back(fault.strike(world_, *world_.sites[place], service));
        }
        // Now and then long enough for a dead line to be noticed.
        const std::size_t hold = Draw(random_, 0, 4) == 0 ? 17000 : Draw(random_, 200, 4000);
        Say(names + ", " + std::to_string(hold) + " ms");
        poll(nullptr, 0, static_cast<int>(hold));
        for (const Heal& heal : heals) {
            heal();
        }
        poll(nullptr, 0, static_cast<int>(Draw(random_, 0, 2000)));
    }

    void Recover() {
        const auto start = Clock::now();
        const bool well = Within(kRecovers, [this] {
            poll(nullptr, 0, 100);
            return world_.IsWell();
        });
        const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
        Say("all reachable after " + std::to_string(took.count()) + " ms; visitors: " +
            std::to_string(visitors_.served) + " served, " + std::to_string(visitors_.cut) +
            " cut short or refused; hub " + std::to_string(Measure(world_)[0].rss) + " KiB");
        const long before = visitors_.served;
        Expect(!well || visitors_.IsPaused() ||
                   Within(kServed, [&] { return visitors_.served > before; }),
               "no visitor is served, though all are reachable");
        if (!well) {
            Expect(false, "not all reachable");
            for (const auto& site : world_.sites) {
                Say(Compact(site->device.Status()));
            }
        }
    }

    /// Stops the visitors and ends the connections that a path has lost.
    void Rest() {
        visitors_.Pause(true);
        for (FaultProxy& path : world_.paths) {
            path.Set();
            path.Cut();
        }
        Recover();
    }

    void Compare(const std::vector<Figures>& base) {
        std::vector<Figures> now = Measure(world_);
        (void)Within(kRest, [&] {
            poll(nullptr, 0, 500);
            now = Measure(world_);
            return std::equal(now.begin(), now.end(), base.begin(),
                              [](const Figures& a, const Figures& b) { return a.Fits(b); });
        });
        for (std::size_t i = 0; i < now.size(); ++i) {
            const std::string who = i == 0 ? "hub     " : "daemon " + std::to_string(i - 1);
            Say(who + " after the warm-up: " + base[i].Text());
            Say(who + " in the end:        " + now[i].Text());
            Expect(now[i].Fits(base[i]),
                   who + " differs by more than " + std::to_string(kTolerance) + " per cent");
        }
        Expect(world_.IsWell(), "not all reachable in the end");
    }

    Random random_;
    World world_;
    Visitors visitors_;
};

} // namespace

int main(int argc, char** argv) {
    const int minutes = argc > 1 ? atoi(argv[1]) : 30;
    const auto seed = argc > 2 ? static_cast<unsigned>(strtoul(argv[2], nullptr, 10))
                               : static_cast<unsigned>(std::random_device()());
    if (argc > 3 || minutes < 1 || minutes > 10000) {
        fprintf(stderr, "usage: soak [MINUTES] [SEED]\n");
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Say(std::to_string(minutes) + " minutes, seed " + std::to_string(seed));
    try {
        Soak(seed).Run(Clock::now() + std::chrono::minutes(minutes));
    } catch (const std::exception& fault) {
        Expect(false, fault.what());
    }
    const bool good = gWrong == 0 && !testing::UnitTest::GetInstance()->Failed();
    Say(good ? "all is well" : "NOT well");
    return good ? 0 : 1;
}
