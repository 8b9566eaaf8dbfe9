/// The hub as the program that it is.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "tests/support/process.h"

/// A hub over a folder of its own, on ports that it keeps when it is started again. It logs all.
class HubProcess : NoCopy {
public:
    /// `hold`: seconds that it holds a wait command; `more`: further options; `ports`: those of
    /// the tunnels, where the ninety that are its own do not do.
    explicit HubProcess(int hold = 50, const std::string& more = "", std::string ports = "")
        : options_(" --log-level 7 --hold " + std::to_string(hold) + " " + more),
          ports_(std::move(ports)) {
        ReservePorts();
        if (ports_.empty()) {
            UsePorts(90);
        }
        folder_ = (std::filesystem::temp_directory_path() / "zaro-hub.XXXXXX").string();
        if (mkdtemp(folder_.data()) == nullptr) {
            throw std::runtime_error("can't make " + folder_);
        }
        Start();
    }
    ~HubProcess() {
        End();
        std::error_code ignored; // what can't be removed stays in the temporary folder
        std::filesystem::remove_all(folder_, ignored);
        close(reservation_);
    }

    int HttpPort() const { return first_; }
    int HttpsPort() const { return first_ + 1; }
    int RelayPort() const { return first_ + 2; }

    /// From its next start on it gives tunnels so many of its own ports.
    void UsePorts(int count) {
        ports_ = std::to_string(first_ + 10) + "-" + std::to_string(first_ + 9 + count);
    }

    /// Returns when it listens.
    void Start() {
        const std::size_t starts = Count("relay ssh://");
        const auto port = [this](int offset) { return std::to_string(first_ + offset); };
        process_ = std::make_unique<Process>(
            Words(ZARO_HUB " --data " + Data() + " --http-port " + port(0) + " --https-port " +
                  port(1) + " --relay-port " + port(2) + " --ports " + ports_ + options_),
            LogFile());
        if (!WaitFor([&] { return Count("relay ssh://") > starts; })) {
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

    int pool = 90; ///< how many ports the next start has for tunnels

private:
    /// Takes a hundred ports below those that the kernel gives out; other tests run beside us.
    void ReservePorts() {
        for (first_ = 10000; first_ < 20000; first_ += 100) {
            sockaddr_un name = {};
            name.sun_family = AF_UNIX;
            snprintf(name.sun_path + 1, sizeof name.sun_path - 1, "zaro-test-ports-%d", first_);
            reservation_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            if (bind(reservation_, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) {
                return;
            }
            close(reservation_);
        }
        throw std::runtime_error("no ports left");
    }

    const std::string options_;
    std::string ports_;
    int first_ = 0;
    int reservation_ = -1;
    std::string folder_;
    std::unique_ptr<Process> process_;
};
