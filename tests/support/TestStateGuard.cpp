// Linked into every test program (not through the library, so the linker keeps it): before the
// tests, bring the prefix back to the installed-client state; after them, end the processes the tests
// started. Each ctest entry runs one test in its own program, so this happens around every test.
// Files are kept after a test (the log, the agent reports) for whoever looks into a failure; the next
// test removes them.
#include <gtest/gtest.h>

#include "WinTestEnv.h"

namespace {

class TestStateGuard : public ::testing::Environment {
public:
    void SetUp() override { qotest::ResetTestState(); }
    // A process left running would keep the test's output pipe open, and ctest would wait for it.
    void TearDown() override { qotest::TerminateTestProcesses(); }
};

[[maybe_unused]] ::testing::Environment* const g_testStateGuard =
    ::testing::AddGlobalTestEnvironment(new TestStateGuard);

}  // namespace
