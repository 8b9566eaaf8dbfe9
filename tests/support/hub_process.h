/// The hub as the program that it is.
#pragma once

#include <sys/un.h>

#include <memory>
#include <stdexcept>

#include "tests/support/web_service.h"

/// A hundred ports of 127.0.0.1 where nobody is, and which no other test takes while this lives.
struct PortBlock : NoCopy {
    explicit PortBlock(int first) {
        sockaddr_un name = {AF_UNIX, {}};
        snprintf(name.sun_path + 1, sizeof name.sun_path - 1, "zaro-test-ports-%d", first);
        good = bind(claim.fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
        for (int port = first; good && port < first + 100; ++port) {
            good = Listener(port).port == port;
        }
    }

    const Socket claim{AF_UNIX}; ///< other suites on this machine see it, whoever runs them
    bool good = false;
};

/// A hub over a folder of its own, on ports that it keeps when it is started again. It logs all.
class HubProcess : NoCopy {
public:
    /// `hold`: seconds that it holds a wait command; `more`: further options; `ports`: those of
    /// the tunnels, where the ninety that are its own do not do.
    explicit HubProcess(int hold = 50, const std::string& more = "", std::string ports = "")
        : options_(" --log-level 7 --hold " + std::to_string(hold) + " " + more),
          ports_(std::move(ports)) {
        folder_ = (std::filesystem::temp_directory_path() / "zaro-hub.XXXXXX").string();
        if (mkdtemp(folder_.data()) == nullptr) {
            throw std::runtime_error("can't make " + folder_);
        }
        do { // until nobody takes one of the ports in between
            Reserve();
        } while (!Starts());
    }
    ~HubProcess() {
        End();
        std::error_code ignored; // what can't be removed stays in the temporary folder
        std::filesystem::remove_all(folder_, ignored);
    }

    int HttpPort() const { return first_; }
    int HttpsPort() const { return first_ + 1; }
    int RelayPort() const { return first_ + 2; }

    /// From its next start on it gives tunnels `count` of its own ports.
    void UsePorts(int count) { count_ = count; }

    /// Returns when it listens.
    void Start() {
        if (!Starts()) {
            throw std::runtime_error("no hub: " + Log());
        }
    }

    void Kill() { process_.reset(); }
    /// In order, as it always can.
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

    /// Whether it listens; not where somebody else listens.
    bool Starts() {
        const std::size_t starts = Count("relay ssh://");
        const auto port = [this](int offset) { return std::to_string(first_ + offset); };
        const std::string tunnels = port(10) + "-" + port(9 + count_);
        const std::vector<std::string> line =
            Words("--http-port " + port(0) + " --https-port " + port(1) + " --relay-port " +
                      port(2) + options_ + " --ports " + (ports_.empty() ? tunnels : ports_),
                  {ZARO_HUB, "--data", Data()});
        process_ = std::make_unique<Process>(line, LogFile());
        const auto isUp = [&] { return Count("relay ssh://") > starts; };
        const bool over =
            WaitFor([&] { return isUp() || process_->Wait(milliseconds(0)) != Process::kRuns; });
        if (!isUp() && (!over || Count("Address already in use") == 0)) {
            throw std::runtime_error("no hub: " + Log());
        }
        return isUp();
    }

    const std::string options_;
    const std::string ports_;
    int count_ = 90;
    int first_ = 9900;
    std::unique_ptr<PortBlock> block_;
    std::string folder_;
    std::unique_ptr<Process> process_;
};
