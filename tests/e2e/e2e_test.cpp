// The real program through its lives, as the client's components see it: the processes it starts,
// the events it creates and answers, the registry values it waits for, its exit codes and its log.
#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ComponentSupport.h"
#include "LogReader.h"
#include "WinTestEnv.h"
#include "test_agent_protocol.h"

namespace {

const DWORD WAIT_MS = 20000;
const DWORD EXIT_FAILED = 0xFFFFFFFF;

using qotest::EventExists;
using qotest::SetNamedEvent;

class Supervisor : public ::testing::Test {
protected:
    void SetUp() override {
        qotest::ResetTestState();
        ASSERT_TRUE(qotest::DeleteRegValue(qotest::kBrevantInstallKey, qotest::kSeAgntMaxNumValue));
        ASSERT_TRUE(m_started.valid());
    }
    void TearDown() override { qotest::TerminateTestProcesses(); }

    qotest::LogFile Log() const { return qotest::LogFile::Read(qotest::WatchDogLogPath()); }
    bool WaitLine(const std::string& message, size_t count = 1) const {
        return qotest::WaitForLogCount(qotest::WatchDogLogPath(), qotest::MessageIs(message), count, WAIT_MS);
    }
    bool WaitPrefix(const std::string& prefix, size_t count = 1) const {
        return qotest::WaitForLogCount(qotest::WatchDogLogPath(), qotest::MessageStartsWith(prefix), count,
                                       WAIT_MS);
    }
    // A run-key instance, as the Run key starts it at a log-on; its exit code.
    DWORD RunKeyInstance(const std::wstring& strArguments = std::wstring()) {
        qotest::ChildProcess child =
            qotest::StartProcess(qotest::WatchDogExe(), strArguments, qotest::PlatformDir());
        EXPECT_TRUE(child.handle.valid());
        return qotest::WaitForExitCode(child.handle.get(), WAIT_MS).value_or(0xDEAD);
    }
    std::optional<DWORD> ExitOf(const qotest::ChildProcess& child) {
        return qotest::WaitForExitCode(child.handle.get(), WAIT_MS);
    }
    // Starts a supervisor whose start gate is already open and waits for its first agent.
    qotest::ChildProcess StartRunning(const qotest::ChildProcess& parent) {
        EXPECT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSetStartEventValue, 1));
        qotest::ChildProcess supervisor = qotest::StartWatchDog(parent.pid);
        EXPECT_TRUE(m_started.WaitForStarts(1, WAIT_MS));
        return supervisor;
    }
    // The one agent the test expects to run.
    DWORD OnlyAgent() {
        const std::vector<DWORD> agents = qotest::FindProcesses(L"QoSessionAgent*.exe");
        EXPECT_EQ(1u, agents.size());
        return agents.empty() ? 0 : agents.front();
    }

    qotest::AgentStartCounter m_started;
};

TEST_F(Supervisor, WholeLifeGateCrashGracefulEndLogOnStopReloadTerminate) {
    qotest::ChildProcess parent = qotest::StartTestParent();
    qotest::ChildProcess supervisor = qotest::StartWatchDog(parent.pid);
    ASSERT_TRUE(supervisor.handle.valid());

    // The start gate: a REG_SZ "1" is not the permission; the DWORD 1 is.
    ASSERT_TRUE(WaitLine("Wait for set start event."));
    EXPECT_TRUE(EventExists(qotest::kStartServiceEvent)) << "exists while the gate waits";
    ASSERT_TRUE(qotest::SetRegString(qotest::kBrevantInstallKey, qotest::kSetStartEventValue, L"1"));
    ASSERT_TRUE(WaitLine("Regkey is changed. check again."));
    EXPECT_TRUE(qotest::IsRunning(supervisor.handle.get()));
    EXPECT_TRUE(qotest::FindProcesses(L"QoSessionAgent*.exe").empty());
    ASSERT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSetStartEventValue, 1));
    ASSERT_TRUE(m_started.WaitForStarts(1, WAIT_MS));
    ASSERT_TRUE(WaitLine("Enter WaitForMultipleObjects Main Loop"));
    EXPECT_FALSE(EventExists(qotest::kStartServiceEvent));
    const DWORD dwFirst = OnlyAgent();
    const qotest::AgentReport report = qotest::ReadAgentReport(dwFirst);
    EXPECT_EQ(qotest::AgentDir(), report.Get(qotest::kReportCwd));
    EXPECT_EQ(0u, report.Get(qotest::kReportPath).find(qotest::PlatformDir() + L";"));

    // A crash: started again at once.
    ASSERT_TRUE(qotest::MakeAgentExit(dwFirst, qotest::kAccessViolationCode));
    ASSERT_TRUE(m_started.WaitForStarts(1, WAIT_MS));
    const DWORD dwSecond = OnlyAgent();
    EXPECT_NE(dwFirst, dwSecond);

    // A graceful end: the session is off, and a log-on with the same shell leaves it off.
    ASSERT_TRUE(qotest::MakeAgentExit(dwSecond, 0));
    ASSERT_TRUE(WaitLine("No session to monitor."));
    EXPECT_EQ(0u, RunKeyInstance());
    ASSERT_TRUE(WaitLine("Session Reload!!"));

    // A new shell in the session (a new log-on): the session is on again and gets an agent.
    const std::wstring strShellDir = qotest::MakeScratchDirectory(L"shell");
    ASSERT_TRUE(qotest::CopyFileTo(qotest::TestParentExe(), strShellDir + L"\\explorer.exe"));
    qotest::ChildProcess shell = qotest::StartProcess(strShellDir + L"\\explorer.exe");
    qotest::EndOnExit endShell(shell.handle.get());
    EXPECT_EQ(0u, RunKeyInstance(L"0"));
    ASSERT_TRUE(m_started.WaitForStarts(1, WAIT_MS));
    EXPECT_TRUE(WaitLine("session (1) is on again."));

    // Stop: the monitor ends once its agent has ended; the supervisor keeps running.
    ASSERT_TRUE(SetNamedEvent(qotest::kStopServiceEvent));
    ASSERT_TRUE(WaitLine("KELD Stop"));
    ASSERT_TRUE(qotest::MakeAllAgentsExit(0));
    ASSERT_TRUE(WaitPrefix("Wait for All Session Agent. dwRet="));
    qotest::ResetAllAgentsExit();
    EXPECT_TRUE(qotest::IsRunning(supervisor.handle.get()));

    // A reload after the stop supervises anew.
    ASSERT_TRUE(SetNamedEvent(qotest::kReloadEvent));
    ASSERT_TRUE(m_started.WaitForStarts(1, WAIT_MS));

    // Terminate: the agents end, then the supervisor, with 0.
    ASSERT_TRUE(SetNamedEvent(qotest::kTerminateEvent));
    ASSERT_TRUE(WaitLine("KELD Stop", 2));
    ASSERT_TRUE(qotest::MakeAllAgentsExit(0));
    EXPECT_EQ(0u, ExitOf(supervisor).value_or(0xDEAD));

    const qotest::LogFile log = Log();
    EXPECT_TRUE(log.malformed().empty()) << log.DescribeMalformed();
    // The main thread's lines, then the monitor threads', each in its own order.
    EXPECT_TRUE(log.InOrder({"Start Watch Dog", "Watch Dog started", "Wait for set start event.",
                             "Regkey is changed. check again.", "Exit Reload User Session on Startup",
                             "Enter WaitForMultipleObjects Main Loop", "Session Reload!!", "Session Reload!!",
                             "Product Adapter Stop Event!!", "Session Reload!!",
                             "Product Adapter Terminate Event!!", "Start to Wait for All Monitor Thread.",
                             "Wait for All Monitor Thread. dwRet=0", "Watch Dog finished"}));
    EXPECT_TRUE(log.InOrder({"Load SeAgntMaxNum=2147483647", "Session agent exits, graceful=0",
                             "Session agent exits, graceful=1", "session (1) is off.",
                             "No session to monitor.", "session (1) is on again.", "KELD Stop",
                             "Start to Wait for All Session Agent.", "Wait for All Session Agent. dwRet=0",
                             "KELD Stop", "Wait for All Session Agent. dwRet=0"}));
    EXPECT_TRUE(qotest::HasMessageEndingWith(log, ", exitcode=3221225477"));
    EXPECT_EQ("Watch Dog finished", log.records().back().message);
    for (const qotest::LogRecord& record : log.Containing("Watch Dog")) {
        if (record.source == ".\\QoWatchDog" && record.message == "Watch Dog finished") {
            EXPECT_EQ(supervisor.pid, record.pid);
        }
    }
    EXPECT_EQ(0u, qotest::CountMessage(log, "WaitForMultipleObjects Error"));
    EXPECT_EQ(0u, log.Count([](const qotest::LogRecord& r) { return r.IsError(); })) << "a clean life";
}

TEST_F(Supervisor, HostEndFinalWaitHandOverStartsKeldAndASecondInstanceIsRefused) {
    ASSERT_TRUE(qotest::StopKeldService());
    qotest::OwnedHandle keldRunning(CreateEventW(nullptr, TRUE, FALSE, qotest::kKeldRunningEvent));
    qotest::ChildProcess firstParent = qotest::StartTestParent();
    qotest::ChildProcess first = StartRunning(firstParent);

    // The host process ends: the agents are told to close, and the supervisor waits, holding its mutex.
    ASSERT_TRUE(qotest::MakeTestParentExit(firstParent.pid));
    ASSERT_TRUE(WaitLine("Product Adapter Ombrine Crash Event!!"));
    ASSERT_TRUE(qotest::MakeAllAgentsExit(0));
    ASSERT_TRUE(qotest::WaitForLogLine(qotest::WatchDogLogPath(),
                                       qotest::MessageStartsWith("Wait for All Session"), WAIT_MS));
    EXPECT_TRUE(qotest::IsRunning(first.handle.get()));
    EXPECT_TRUE(qotest::MutexExists(qotest::kWatchDogMutex));
    qotest::ResetAllAgentsExit();

    // A successor asks it to start Keld and waits until it is gone, then takes over.
    qotest::ChildProcess secondParent = qotest::StartTestParent();
    qotest::ChildProcess second = StartRunning(secondParent);
    EXPECT_EQ(0u, ExitOf(first).value_or(0xDEAD));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(keldRunning.get(), WAIT_MS));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), qotest::KeldServiceState());
    ASSERT_TRUE(WaitLine("Enter WaitForMultipleObjects Main Loop", 2));

    // A third start while the successor runs and nobody waits to hand over: refused at once.
    qotest::ChildProcess third = qotest::StartWatchDog(secondParent.pid);
    EXPECT_EQ(EXIT_FAILED, ExitOf(third).value_or(0xDEAD));

    ASSERT_TRUE(SetNamedEvent(qotest::kTerminateEvent));
    ASSERT_TRUE(qotest::MakeAllAgentsExit(0));
    EXPECT_EQ(0u, ExitOf(second).value_or(0xDEAD));

    const qotest::LogFile log = Log();
    EXPECT_TRUE(log.InOrder({"Product Adapter Ombrine Crash Event!!", "Start Watch Dog",
                             "event BREVANT_START_KELD_WITHOUT_UAC exists", "Start KELD service.",
                             "event BREVANT_START_KELD_WITHOUT_UAC and instance pre-checking done",
                             "Enter WaitForMultipleObjects Main Loop", "Another instance is running!!"}));
    const size_t nRefused = log.IndexOf(qotest::MessageIs("Another instance is running!!"));
    ASSERT_NE(qotest::LogFile::npos, nRefused);
    EXPECT_EQ(third.pid, log.records()[nRefused].pid);
    EXPECT_EQ(1u,
              qotest::CountMessage(
                  log, "event BREVANT_START_KELD_WITHOUT_UAC or another watch dog instance still exists"));
    EXPECT_EQ("ERROR", log.records()[nRefused].level);
    EXPECT_TRUE(qotest::StopKeldService());
}

TEST_F(Supervisor, FinalWaitEndsOnTerminateAndUpdateWaitsForTheCloseFromOutside) {
    ASSERT_TRUE(qotest::StopKeldService());
    qotest::ChildProcess parent = qotest::StartTestParent();

    // "Close agents and wait", then terminate: no Keld start, exit 0.
    qotest::ChildProcess first = StartRunning(parent);
    ASSERT_TRUE(SetNamedEvent(qotest::kAgentAndWaitingEvent));
    ASSERT_TRUE(WaitLine("Close Session Agent and Waiting Event!!"));
    ASSERT_TRUE(qotest::MakeAllAgentsExit(0));
    ASSERT_TRUE(WaitPrefix("Wait for All Session Agent. dwRet="));
    EXPECT_TRUE(EventExists(qotest::kStartKeldEvent));
    ASSERT_TRUE(SetNamedEvent(qotest::kTerminateEvent));
    EXPECT_EQ(0u, ExitOf(first).value_or(0xDEAD));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), qotest::KeldServiceState());
    EXPECT_FALSE(EventExists(qotest::kStartKeldEvent));
    qotest::ResetAllAgentsExit();

    // The update request closes without stopping Keld: the monitors keep supervising until the
    // close event comes from elsewhere.
    qotest::ChildProcess second = StartRunning(parent);
    qotest::OwnedHandle noStop(OpenEventW(SYNCHRONIZE, FALSE, qotest::kWatchDogCloseNoStopKeldEvent));
    ASSERT_TRUE(SetNamedEvent(qotest::kShutdownUiFrameworkEvent));
    // The first supervisor wrote this line already: wait for the second one's.
    ASSERT_TRUE(WaitLine("Start to Wait for All Monitor Thread.", 2));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(noStop.get(), 0));
    ASSERT_TRUE(qotest::MakeAgentExit(OnlyAgent(), 1));
    ASSERT_TRUE(m_started.WaitForStarts(1, WAIT_MS)) << "still restarting crashed agents";
    EXPECT_TRUE(qotest::IsRunning(second.handle.get()));
    ASSERT_TRUE(SetNamedEvent(qotest::kWatchDogCloseEvent));
    ASSERT_TRUE(qotest::MakeAllAgentsExit(0));
    EXPECT_EQ(0u, ExitOf(second).value_or(0xDEAD));

    const qotest::LogFile log = Log();
    EXPECT_TRUE(
        log.InOrder({"Close Session Agent and Waiting Event!!", "Start to Wait for All Monitor Thread.",
                     "Watch Dog finished", "Update Event!!", "Start to Wait for All Monitor Thread.",
                     "Session agent exits, graceful=0", "KELD Stop", "Watch Dog finished"}));
    EXPECT_EQ(0u, qotest::CountMessage(log, "Start KELD service."));
}

TEST_F(Supervisor, TerminatePendingAtStartAndRefusedStartGates) {
    qotest::ChildProcess parent = qotest::StartTestParent();

    // A terminate request pending at start ends the supervisor; the check consumes it.
    {
        qotest::OwnedHandle terminate(CreateEventW(nullptr, FALSE, TRUE, qotest::kTerminateEvent));
        qotest::ChildProcess early = qotest::StartWatchDog(parent.pid);
        EXPECT_EQ(EXIT_FAILED, ExitOf(early).value_or(0xDEAD));
        EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(terminate.get(), 0));
    }

    // The next start waits at the gate; a terminate request there refuses the start.
    qotest::ChildProcess gated = qotest::StartWatchDog(parent.pid);
    ASSERT_TRUE(WaitLine("Wait for set start event.", 1));
    ASSERT_TRUE(SetNamedEvent(qotest::kTerminateEvent));
    EXPECT_EQ(EXIT_FAILED, ExitOf(gated).value_or(0xDEAD));

    // The host process ends while the gate waits.
    qotest::ChildProcess orphan = qotest::StartWatchDog(parent.pid);
    ASSERT_TRUE(WaitLine("Wait for set start event.", 2));
    ASSERT_TRUE(qotest::MakeTestParentExit(parent.pid));
    EXPECT_EQ(EXIT_FAILED, ExitOf(orphan).value_or(0xDEAD));

    // A negative id is a supervisor whose host cannot be opened.
    qotest::ChildProcess negative = qotest::StartProcess(qotest::WatchDogExe(), L"-5", qotest::PlatformDir());
    EXPECT_EQ(EXIT_FAILED, ExitOf(negative).value_or(0xDEAD));
    EXPECT_TRUE(qotest::FindProcesses(L"QoSessionAgent*.exe").empty());

    const qotest::LogFile log = Log();
    EXPECT_TRUE(log.InOrder({"Watch Dog started", "Product Adapter notifies Watch Dog to terminate.",
                             "Wait for set start event.", "service notify terminate while installation.",
                             "Wait Start Event failed", "Wait for set start event.",
                             "Service process is shutdown.", "Wait Start Event failed",
                             "OpenProcess dwPID=4294967291 , Err=", "Wait Start Event failed"}));
    EXPECT_EQ("Wait Start Event failed", log.records().back().message);
}

TEST(Entry, LogLocationFallbacksAndBrokenConfigurations) {
    qotest::ResetTestState();
    const std::wstring strTempLog = qotest::JoinPath(qotest::GetEnv(L"TEMP"), L"QoWatchDog.log");
    auto runKey = [] {
        qotest::ChildProcess child = qotest::StartProcess(qotest::WatchDogExe(), L"", qotest::PlatformDir());
        return qotest::WaitForExitCode(child.handle.get(), WAIT_MS).value_or(0xDEAD);
    };

    // The install directory with a trailing backslash gives the same debug directory.
    ASSERT_TRUE(qotest::SetRegString(qotest::kKeldKey, qotest::kKeldInstallDirValue,
                                     qotest::KeldInstallDir() + L"\\"));
    EXPECT_EQ(EXIT_FAILED, runKey()) << "no supervisor to notify";
    qotest::LogFile log = qotest::LogFile::Read(qotest::WatchDogLogPath());
    ASSERT_EQ(4u, log.records().size());
    EXPECT_EQ("Start Watch Dog", log.records()[0].message);
    EXPECT_EQ("Open Watch Dog Reload Event failed. Err=2", log.records()[2].message);
    EXPECT_EQ("Exit Watch Dog From Run Key. nRet=-1", log.records()[3].message);

    // Each broken platform setting sends the log to TEMP, and its second line says why.
    struct Case {
        std::function<void()> breakIt;
        std::string strWhy;
    };
    const std::wstring strMissingDir = L"C:\\QoTestMissing\\Keld";
    const std::vector<Case> cases = {
        {[] { qotest::DeleteRegKeyTree(qotest::kKeldKey); }, "RegOpenKeyExW failed. GetLastError="},
        {[] { qotest::SetRegString(qotest::kKeldKey, qotest::kKeldInstallDirValue, L""); },
         "InstallDir is empty"},
        {[&] { qotest::SetRegString(qotest::kKeldKey, qotest::kKeldInstallDirValue, strMissingDir); },
         "CreateDirectoryW failed. GetLastError=3, path=C:\\QoTestMissing\\Keld\\debug"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.strWhy);
        DeleteFileW(strTempLog.c_str());
        c.breakIt();
        EXPECT_EQ(EXIT_FAILED, runKey());
        log = qotest::LogFile::Read(strTempLog);
        ASSERT_GE(log.records().size(), 2u);
        EXPECT_EQ("Start Watch Dog", log.records()[0].message);
        EXPECT_EQ("ERROR", log.records()[1].level);
        EXPECT_EQ(0u, log.records()[1].message.find("GetKeldDebugLogPath failed. msg:" + c.strWhy))
            << log.records()[1].message;
        qotest::ResetTestState();
    }

    // "debug" is a file: the directory counts as there, and the lines are lost without a word.
    qotest::RemoveDirectoryTree(qotest::WatchDogLogDir());
    qotest::WriteFileBytes(qotest::WatchDogLogDir(), "not a directory");
    DeleteFileW(strTempLog.c_str());
    EXPECT_EQ(EXIT_FAILED, runKey());
    EXPECT_FALSE(qotest::FileExists(strTempLog));
    EXPECT_FALSE(qotest::DirectoryExists(qotest::WatchDogLogDir()));
    DeleteFileW(qotest::WatchDogLogDir().c_str());

    // A platform directory whose Session_Agent.ini lacks the agent's name.
    const std::wstring strPlatform = qotest::MakeScratchDirectory(L"platform");
    qotest::WriteFileBytes(strPlatform + L"\\Session_Agent.ini", "[Session_Agent]\r\nPath=agent\r\n");
    qotest::ChildProcess parent = qotest::StartTestParent();
    qotest::ChildProcess noName = qotest::StartWatchDog(parent.pid, qotest::WatchDogExe(), strPlatform);
    EXPECT_EQ(EXIT_FAILED, qotest::WaitForExitCode(noName.handle.get(), WAIT_MS).value_or(0xDEAD));
    log = qotest::LogFile::Read(qotest::WatchDogLogPath());
    EXPECT_EQ("Fail to get Session Agent path!!", log.records().back().message);
    qotest::TerminateTestProcesses();
}

TEST(Entry, RunKeyInstancesAtOneLogOnStormKeepEveryLineWhole) {
    qotest::ResetTestState();
    // Many users log on at once: their run-key instances all write the same log at the same moment.
    const int nInstances = 16;
    std::vector<qotest::ChildProcess> instances;
    for (int i = 0; i < nInstances; ++i) {
        instances.push_back(qotest::StartProcess(qotest::WatchDogExe(), L"", qotest::PlatformDir()));
    }
    for (const qotest::ChildProcess& instance : instances) {
        EXPECT_EQ(EXIT_FAILED, qotest::WaitForExitCode(instance.handle.get(), WAIT_MS).value_or(0xDEAD));
    }
    const qotest::LogFile log = qotest::LogFile::Read(qotest::WatchDogLogPath());
    EXPECT_TRUE(log.malformed().empty()) << log.DescribeMalformed();
    EXPECT_TRUE(log.unfinishedTail().empty());
    ASSERT_EQ(4u * nInstances, log.records().size());
    for (const qotest::ChildProcess& instance : instances) {
        std::vector<std::string> lines;
        for (const qotest::LogRecord& record : log.records()) {
            if (record.pid == instance.pid) {
                lines.push_back(record.message);
            }
        }
        const std::vector<std::string> expected = {"Start Watch Dog", "Watch Dog started by runkey",
                                                   "Open Watch Dog Reload Event failed. Err=2",
                                                   "Exit Watch Dog From Run Key. nRet=-1"};
        EXPECT_EQ(expected, lines) << "instance " << instance.pid;
    }
}

TEST(Entry, NamesHeldByObjectsOfAnotherType) {
    // Each of the supervisor's named objects, its name held by an object of another type (an event
    // for the mutex, a mutex for each event): the supervisor logs why, in this order, and ends with -1
    // before its main loop.
    struct Case {
        const wchar_t* pszName;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {qotest::kTerminateEvent, {"Failed to create watch dog terminate event"}},
        {qotest::kWatchDogMutex, {"create mutex fail!!"}},
        {qotest::kWatchDogCloseEvent,
         {"CreateEvent(EVENT_ID_BREVANT_WATCHDOG_CLOSE) Err=6",
          "CEvent(EVENT_ID_BREVANT_WATCHDOG_CLOSE) Err=6", "Wait Start Event failed"}},
        {qotest::kStartServiceEvent,
         {"CEvent(EVENT_ID_BREVANT_START_SERVICE) Err=6", "Wait Start Event failed"}},
        {qotest::kReloadEvent, {"Failed to create watch dog reload event"}},
        {qotest::kStopServiceEvent, {"CEvent(EVENT_ID_BREVANT_STOP_SERVICE) Failed"}},
        {qotest::kAgentAndWaitingEvent, {"Failed to create Close Session Agent and Waiting event"}},
        {qotest::kShutdownUiFrameworkEvent, {"Failed to create shutdown uiFramework event"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(qotest::ToUtf8(c.pszName));
        qotest::ResetTestState();
        qotest::ChildProcess parent = qotest::StartTestParent();
        ASSERT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSetStartEventValue, 1));
        const bool bMutex = std::wstring(c.pszName) == qotest::kWatchDogMutex;
        qotest::OwnedHandle squatter(bMutex ? CreateEventW(nullptr, TRUE, FALSE, c.pszName)
                                            : CreateMutexW(nullptr, FALSE, c.pszName));
        ASSERT_TRUE(squatter.valid());
        qotest::ChildProcess supervisor = qotest::StartWatchDog(parent.pid);
        EXPECT_EQ(EXIT_FAILED, qotest::WaitForExitCode(supervisor.handle.get(), WAIT_MS).value_or(0xDEAD));
        // Sessions registered before the failure have monitors that may still log: look, not count.
        const qotest::LogFile log = qotest::LogFile::Read(qotest::WatchDogLogPath());
        EXPECT_TRUE(log.InOrder(c.lines));
        for (const std::string& line : c.lines) {
            const qotest::LogRecord* pLine = log.First(qotest::MessageIs(line));
            ASSERT_NE(nullptr, pLine) << line;
            EXPECT_EQ("ERROR", pLine->level) << line;
        }
        EXPECT_EQ(0u, log.CountPrefix("Enter WaitForMultipleObjects Main Loop"));
    }

    // The close event without Keld's stop is only used at an update: the supervisor logs and serves.
    qotest::ResetTestState();
    qotest::ChildProcess parent = qotest::StartTestParent();
    ASSERT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSetStartEventValue, 1));
    qotest::OwnedHandle squatter(CreateMutexW(nullptr, FALSE, qotest::kWatchDogCloseNoStopKeldEvent));
    qotest::ChildProcess supervisor = qotest::StartWatchDog(parent.pid);
    ASSERT_TRUE(
        qotest::WaitForMessage(qotest::WatchDogLogPath(), "Enter WaitForMultipleObjects Main Loop", WAIT_MS));
    EXPECT_TRUE(qotest::HasMessage(qotest::LogFile::Read(qotest::WatchDogLogPath()),
                                   "CreateEvent(EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD) Err=6"));
    qotest::TerminateTestProcesses();
}

}  // namespace
