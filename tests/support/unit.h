/// What every test of the library needs.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/json_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/processes.h"
#include "tests/support/temp_root.h"

/// A test with a device of its own.
struct RootTest : testing::Test {
    TempRoot root_;
};
