// Linked into every test program: each ctest entry runs one test in a program of its own, which
// starts from the installed client and ends every process it started (one left running would hold
// ctest's output pipe). Output is unbuffered, so a killed test still shows how far it came.
#include <gtest/gtest.h>

#include <cstdio>

#include "Harness.h"

namespace {

class ResetAround : public ::testing::Environment {
public:
    void SetUp() override {
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        qt::Reset();
    }
    void TearDown() override {
        // A failed test's log stays beside the test's output, for the one who reads the failure.
        if (::testing::UnitTest::GetInstance()->Failed()) {
            const std::wstring kept =
                L"failed-" + std::to_wstring(GetCurrentProcessId()) + L"-QoWatchDog.log";
            if (CopyFileW(qt::LogPath().c_str(), kept.c_str(), FALSE))
                std::printf("the watchdog's log is kept as %s\n", qt::ToUtf8(kept).c_str());
        }
        qt::Reset();
        if (::testing::UnitTest::GetInstance()->Failed()) {
            // Its processes are ended: a thread of ours still stuck in a wait or a launch must not
            // keep the failed run from ending.
            std::printf("[  FAILED  ] the test program ends here\n");  // unbuffered
            TerminateProcess(GetCurrentProcess(), 1);
        }
    }
};

[[maybe_unused]] ::testing::Environment* const g_resetAround =
    ::testing::AddGlobalTestEnvironment(new ResetAround);

}  // namespace
