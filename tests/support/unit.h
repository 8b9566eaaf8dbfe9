/// What every test of the library needs.
#pragma once

#include <gmock/gmock.h>

#include "tests/support/json_values.h"
#include "tests/support/log_capture.h"
#include "tests/support/processes.h"
#include "tests/support/temp_root.h"

/// Gives a file to another user, if this process runs as root.
inline void GiveAway(const std::string& path, uid_t user) {
    EXPECT_EQ(geteuid() == 0 ? chown(path.c_str(), user, user) : 0, 0);
}

/// A plus for each step that went well, a minus for each that did not.
inline std::string Signs(const std::vector<bool>& steps) {
    std::string signs;
    for (const bool good : steps) {
        signs += good ? '+' : '-';
    }
    return signs;
}

/// A test with a device of its own.
struct RootTest : testing::Test {
    RootTest() { ZARO::Relay::Daemon::SetName("zarorelayd"); } // its files are below the root
    TempRoot root_;
};
