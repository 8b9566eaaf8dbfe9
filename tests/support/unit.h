/// What every test of the library needs.
#pragma once

#include <gmock/gmock.h>

#include "tests/support/json_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/processes.h"
#include "tests/support/temp_root.h"

/// A test with a device of its own.
struct RootTest : testing::Test {
    RootTest() { ZARO::Relay::Daemon::SetName("zarorelayd"); } // its files are below the root
    TempRoot root_;
};
