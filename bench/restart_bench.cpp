// bench_restart: how long a session is without its agent after a crash, in the watchdog core.
//
// One session (id 0, Wine's explorer.exe as its shell) is registered with the installed agent
// stand-in. Each round ends the agent with exit code 1 and takes the time from its end to the start
// of the replacement the monitor thread creates (the replacement counts its start on
// Global\QoTestAgentStarted). The reference, in alternate rounds of the same run: CreateProcessW of
// the agent stand-in that exits at once, and a wait for its end.
//
//   bench_restart [--rounds 50] [--warmup 3]
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "ComponentSupport.h"
#include "LogReader.h"
#include "WinTestEnv.h"
#include "foundation/SessionRecord.h"
#include "foundation/logging.h"
#include "session/SessionAgentMonitor.h"
#include "watchdog/QoWatchDog.h"
#include "watchdog/WatchDog.h"

namespace {

using qobench::Fail;
using qobench::Format;
using qobench::Say;

const DWORD SESSION_ID = 0;
const DWORD START_TIMEOUT_MS = 15000;
const DWORD MONITOR_END_TIMEOUT_MS = 30000;

int Run(int rounds, int warmup) {
    const DWORD explorer = qobench::ResetMachine();
    if (!qobench::InstallExitingAgent()) {
        Fail("cannot install QoSessionAgent_exit0.exe");
    }
    const std::wstring logDir = qotest::MakeScratchDirectory(L"bench-restart");
    if (logDir.empty()) {
        Fail("cannot make the scratch directory");
    }
    const std::wstring logPath = qotest::JoinPath(logDir, L"QoWatchDog.log");
    GetLogger().set_file(logPath.c_str());

    qobench::StartCounter started;
    CWatchDog* watchDog = CWatchDog::GetInstance();
    if (watchDog == nullptr ||
        !watchDog->Init(qotest::InstalledAgentExe().c_str(), qotest::AgentDir().c_str())) {
        Fail("CWatchDog::Init failed");
    }
    watchDog->RegisterSessions({qotest::SessionRecordFor(SESSION_ID, explorer)});
    if (!started.TakeOne(START_TIMEOUT_MS)) {
        Fail("the first agent did not start");
    }
    const DWORD first = qotest::AgentPidOf(watchDog, SESSION_ID);
    if (first == 0) {
        Fail("the session holds no agent");
    }

    // The replacement is started while the monitor holds its lock, so once it has counted its
    // start the snapshot already holds it.
    const qobench::RestartRun run =
        qobench::MeasureRestarts(rounds, warmup, first, started,
                                 [watchDog](DWORD) { return qotest::AgentPidOf(watchDog, SESSION_ID); });

    if (!qotest::CloseAndWaitForMonitors(watchDog, true, MONITOR_END_TIMEOUT_MS)) {
        Fail("the monitor thread did not end after the close event");
    }
    CWatchDog::ReleaseInstance();
    WaitForAllMonitorThreads();
    qotest::ResetAllAgentsExit();
    GetLogger().set_file(nullptr);

    const qotest::LogFile log = qotest::LogFile::Read(logPath);
    const size_t crashes = log.CountPrefix("Session agent exits, graceful=0,");
    if (crashes != static_cast<size_t>(rounds + warmup)) {
        Fail(Format("the log shows %lu crashes for %d rounds", static_cast<unsigned long>(crashes),
                    rounds + warmup));
    }
    qobench::FailOnErrorLine(log, "the watchdog");

    Say("Agent restart latency, watchdog core (one session, agent ends with exit code 1)");
    qobench::ReportRestarts(run);
    qobench::ResetMachine();
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) { return qobench::RestartMain(argc, argv, "bench_restart", Run); }
