/// What the daemon knows about its child processes.
#include <sys/resource.h>

#include "app/daemon/child_watch.h"
#include "app/daemon/lost_sockets.h"
#include "tests/support/web_service.h"

namespace app = ZARO::Relay::app;

TEST(Children, AreReapedWhetherWatchedOrNot) {
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    for (const auto& [watched, most] : {std::pair(true, limit.rlim_cur), {true, 3}, {false, 3}}) {
        app::ChildWatch watch;
        const rlimit some = {most, limit.rlim_max}; // 3: no pidfd, as on an old kernel
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &some), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(0);
        }
        ASSERT_GT(pid, 0);
        EXPECT_EQ(watched && watch.Add(pid), watched);
        EXPECT_TRUE(WaitFor([&] {
            watch.Reap(Clock::now());
            return kill(pid, 0) != 0;
        }));
        waitpid(pid, nullptr, WNOHANG);
    }
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(Children, OnAnIPv6AddressHaveNotLostIt) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const Socket server(AF_INET6), client(AF_INET6);
    if (bind(server.fd, generic, size) != 0) {
        GTEST_SKIP() << "no IPv6 here";
    }
    EXPECT_EQ(listen(server.fd, 1) + getsockname(server.fd, generic, &size), 0);
    EXPECT_EQ(connect(client.fd, generic, size), 0);
    EXPECT_FALSE(app::LostSockets().Has(getpid()));
}
