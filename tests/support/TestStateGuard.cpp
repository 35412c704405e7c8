// Linked into every test program (not through the library, so the linker keeps it): before the
// tests, bring the prefix back to the installed-client state; after them, end the processes the tests
// started. Each ctest entry runs one test in its own program, so this happens around every test.
// Files are kept after a test (the log, the agent reports) for whoever looks into a failure; the next
// test removes them.
#include <gtest/gtest.h>

#include <cstdio>

#include "WinTestEnv.h"

namespace {

// Output to ctest's pipe is unbuffered, so a test program that is killed (a timeout, a crash) still
// shows how far it came.
[[maybe_unused]] const int g_unbufferedOutput =
    std::setvbuf(stdout, nullptr, _IONBF, 0) | std::setvbuf(stderr, nullptr, _IONBF, 0);

class TestStateGuard : public ::testing::Environment {
public:
    void SetUp() override { qotest::ResetTestState(); }
    // A process left running would hold the test's output pipe, and ctest would wait for it until the
    // test's timeout.
    void TearDown() override { qotest::TerminateTestProcesses(); }
};

[[maybe_unused]] ::testing::Environment* const g_testStateGuard =
    ::testing::AddGlobalTestEnvironment(new TestStateGuard);

}  // namespace
