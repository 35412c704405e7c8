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
    void TearDown() override { qt::Reset(); }
};

[[maybe_unused]] ::testing::Environment* const g_resetAround =
    ::testing::AddGlobalTestEnvironment(new ResetAround);

}  // namespace
