/// The hub, run as a program.
#pragma once

#include <sys/un.h>

#include <memory>
#include <stdexcept>

#include "tests/support/web_service.h"

#ifndef ZARO_HUB_ADMITS
#define ZARO_HUB_ADMITS "--admit open "
#endif

/// A hundred free ports of 127.0.0.1, which no other test takes while this object lives.
struct PortBlock : NoCopy {
    explicit PortBlock(int first) {
        sockaddr_un name = {AF_UNIX, {}};
        snprintf(name.sun_path + 1, sizeof name.sun_path - 1, "zaro-test-ports-%d", first);
        good = bind(claim.fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
        for (int port = first; good && port < first + 100; ++port) {
            good = Listener(port).port == port;
        }
    }

    const Socket claim{AF_UNIX}; ///< all test programs on this machine see it
    bool good = false;
};

/// A hub with a folder of its own, and with ports that it keeps across restarts. It logs
/// everything, and admits every device unless the options say something else.
class HubProcess : NoCopy {
public:
    /// `hold`: how many seconds it holds a wait command. `more`: further options. `ports`: the
    /// range for tunnels, when its own ninety ports are too few. `starter`: a program that starts
    /// it, with arguments.
    explicit HubProcess(int hold = 50, const std::string& more = "", std::string ports = "",
                        std::string starter = "")
        : options_(" --log-level 7 --hold " + std::to_string(hold) + " " +
                   (more.find("--admit") == more.npos ? ZARO_HUB_ADMITS : "") + more),
          ports_(std::move(ports)), starter_(std::move(starter)) {
        folder_ = (fs::temp_directory_path() / "zaro-hub.XXXXXX").string();
        if (mkdtemp(folder_.data()) == nullptr) {
            throw std::runtime_error("can't make " + folder_);
        }
        do { // again, if another process took one of the ports
            Reserve();
        } while (!Starts());
    }
    ~HubProcess() {
        End();
        std::error_code ignored; // what can't be removed stays in the temporary folder
        fs::remove_all(folder_, ignored);
    }

    int HttpPort() const { return first_; }
    int HttpsPort() const { return first_ + 1; }
    int RelayPort() const { return first_ + 2; }

    /// From its next start, tunnels get only this many of its ports.
    void UsePorts(int count) { count_ = count; }

    /// Returns once it listens.
    void Start() {
        if (!Starts()) {
            throw std::runtime_error("no hub: " + Log());
        }
    }

    void Kill() { process_.reset(); }
    /// Ends it in order, and expects that this works.
    void End() const {
        if (process_ != nullptr) {
            process_->Signal(SIGTERM);
            EXPECT_EQ(process_->Wait(seconds(10)), 0) << Log();
        }
    }

    Process& Program() const { return *process_; }
    pid_t Pid() const { return process_->Pid(); }
    std::string Data() const { return folder_ + "/data"; }
    std::string LogFile() const { return folder_ + "/log"; }
    std::string Log() const { return ReadFile(LogFile()); }
    std::size_t Count(const std::string& text) const { return ::Count(Log(), text); }
    std::size_t Registrations() const { return Count(" registered as "); }

private:
    /// Takes the next free block below the ports that the kernel gives out.
    void Reserve() {
        do {
            first_ += 100;
            block_ = std::make_unique<PortBlock>(first_);
            if (first_ > 32600) {
                throw std::runtime_error("no ports left " + Log());
            }
        } while (!block_->good);
    }

    /// Starts it. False when another process has one of its ports.
    bool Starts() {
        const std::size_t starts = Count("relay ssh://");
        const auto port = [this](int offset) { return std::to_string(first_ + offset); };
        const std::string tunnels = port(10) + "-" + port(9 + count_);
        const std::vector<std::string> line =
            Words("--http-port " + port(0) + " --https-port " + port(1) + " --relay-port " +
                      port(2) + options_ + " --ports " + (ports_.empty() ? tunnels : ports_),
                  Words(std::string(ZARO_HUB) + " --data " + Data(), Words(starter_)));
        process_ = std::make_unique<Process>(line, LogFile());
        const auto isUp = [&] { return Count("relay ssh://") > starts; };
        const bool over =
            WaitFor([&] { return isUp() || process_->Wait(milliseconds(0)) != Process::kRuns; });
        if (!isUp() && (!over || Count("Address already in use") == 0)) {
            throw std::runtime_error("no hub: " + Log());
        }
        return isUp();
    }

    const std::string options_, ports_, starter_;
    int count_ = 90, first_ = 9900;
    std::unique_ptr<PortBlock> block_;
    std::string folder_;
    std::unique_ptr<Process> process_;
};
