// The heart of the watchdog: the singleton, SeAgntMaxNum, the Path clean-up, and the monitor
// threads starting, restarting and switching off real agent processes. Wine has one session, so
// sessions are handed over as records with chosen ids whose shell is Wine's real explorer.exe.
#include <windows.h>

#include <direct.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/SessionRecord.h"
#include "session/SessionAgentMonitor.h"
#include "session/utilWinUserSession.h"
#include "ComponentSupport.h"
#include "LogReader.h"
#include "WinTestEnv.h"
#include "watchdog/QoWatchDog.h"
#include "watchdog/WatchDog.h"

namespace {

const DWORD WAIT_MS = 15000;

using qotest::WineExplorerPid;

SessionRecord Record(DWORD dwSessionId, DWORD dwExplorerPid) {
    return qotest::SessionRecordFor(dwSessionId, dwExplorerPid);
}

// A watchdog initialised like the supervisor's, with the installed agent.
class WatchDogTest : public ::testing::Test {
protected:
    void SetUp() override {
        qotest::ResetTestState();
        ASSERT_TRUE(qotest::DeleteRegValue(qotest::kBrevantInstallKey, qotest::kSeAgntMaxNumValue));
        m_strLog = qotest::UseScratchLog(L"core");
        m_dwExplorer = WineExplorerPid();
        ASSERT_NE(0u, m_dwExplorer);
    }
    void TearDown() override {
        qotest::TerminateTestProcesses();
        qotest::StopUsingScratchLog();
    }

    CWatchDog* Start(const std::wstring& strAgent = qotest::InstalledAgentExe()) {
        CWatchDog* pWatchDog = CWatchDog::GetInstance();
        EXPECT_TRUE(pWatchDog->Init(strAgent.c_str(), qotest::AgentDir().c_str()));
        return pWatchDog;
    }

    // Closes the watchdog as the main loop does, lets every agent end, and waits for every monitor
    // thread; true when all of them ended.
    bool CloseAndWait(CWatchDog* pWatchDog) {
        return qotest::CloseAndWaitForMonitors(pWatchDog, true, WAIT_MS);
    }

    std::wstring m_strLog;
    DWORD m_dwExplorer = 0;
};

TEST_F(WatchDogTest, SingletonLifetimeInitAndCloseEvents) {
    CWatchDog* pFirst = CWatchDog::GetInstance();
    CWatchDog* pSecond = CWatchDog::GetInstance();
    ASSERT_NE(nullptr, pFirst);
    EXPECT_EQ(pFirst, pSecond);
    EXPECT_EQ(2, CWatchDog::GetRefCount());

    EXPECT_FALSE(pFirst->Init(nullptr, L"C:\\"));
    EXPECT_FALSE(pFirst->Init(L"agent.exe", L""));
    EXPECT_TRUE(qotest::LogFile::Read(m_strLog).records().empty())
        << "null or empty paths are refused silently";
    const std::wstring strLong = L"C:\\" + std::wstring(300, L'a');
    EXPECT_FALSE(pFirst->Init(L"agent.exe", strLong.c_str()));
    EXPECT_TRUE(qotest::HasMessage(qotest::LogFile::Read(m_strLog), " Working Path  is empty"));

    // A relative agent path is made absolute against the current directory.
    ASSERT_TRUE(SetCurrentDirectoryW(qotest::PlatformDir().c_str()));
    ASSERT_TRUE(pFirst->Init(L"agent\\QoSessionAgent.exe", L"agent"));
    EXPECT_EQ(qotest::InstalledAgentExe(), pFirst->GetAgentPath());
    EXPECT_EQ(qotest::AgentDir(), pFirst->GetWorkingPath());

    // Each close event is set alone and stays set.
    qotest::OwnedHandle close(OpenEventW(SYNCHRONIZE, FALSE, qotest::kWatchDogCloseEvent));
    qotest::OwnedHandle noStop(OpenEventW(SYNCHRONIZE, FALSE, qotest::kWatchDogCloseNoStopKeldEvent));
    ASSERT_TRUE(close.valid());
    ASSERT_TRUE(noStop.valid());
    EXPECT_TRUE(pFirst->SetCloseEvent(false));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(close.get(), 0));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(noStop.get(), 0));
    EXPECT_TRUE(pFirst->SetCloseEvent(true));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(close.get(), 0));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(close.get(), 0));

    // Without a monitor, RemoveMonitor changes nothing; the last release deletes the instance.
    close.reset();
    noStop.reset();
    pFirst->RemoveMonitor(0);
    CWatchDog::ReleaseInstance();
    EXPECT_EQ(1, CWatchDog::GetRefCount());
    CWatchDog::ReleaseInstance();
    EXPECT_EQ(0, CWatchDog::GetRefCount());
    CWatchDog::ReleaseInstance();
    EXPECT_EQ(0, CWatchDog::GetRefCount());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND),
              OpenEventW(SYNCHRONIZE, FALSE, qotest::kWatchDogCloseNoStopKeldEvent) == nullptr
                  ? GetLastError()
                  : 0u)
        << "the singleton closed its events";
}

TEST_F(WatchDogTest, SeAgntMaxNumIsLoadedOnceFromADword) {
    ASSERT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSeAgntMaxNumValue, 5));
    std::vector<std::thread> threads;
    std::atomic<int> nWrong(0);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&nWrong] {
            if (GetSeAgntMaxNum() != 5) {
                ++nWrong;
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(0, nWrong.load());
    ASSERT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSeAgntMaxNumValue, 9));
    EXPECT_EQ(5u, GetSeAgntMaxNum()) << "read once per process";
    EXPECT_EQ(1u, qotest::CountMessage(qotest::LogFile::Read(m_strLog), "Load SeAgntMaxNum=5"));
}

TEST_F(WatchDogTest, SeAgntMaxNumOfAnotherTypeKeepsTheDefault) {
    ASSERT_TRUE(qotest::SetRegString(qotest::kBrevantInstallKey, qotest::kSeAgntMaxNumValue, L"5"));
    EXPECT_EQ(SE_AGNT_MAX_NUM_DEFAULT, GetSeAgntMaxNum());
    const qotest::LogFile log = qotest::LogFile::Read(m_strLog);
    EXPECT_TRUE(qotest::HasMessage(log, "Load SeAgntMaxNum=2147483647"));
    EXPECT_EQ(1u, log.records().size());
}

TEST_F(WatchDogTest, SeAgntMaxNumWithoutTheInstallKey) {
    ASSERT_TRUE(qotest::DeleteRegKeyTree(qotest::kBrevantInstallKey));
    EXPECT_EQ(SE_AGNT_MAX_NUM_DEFAULT, GetSeAgntMaxNum());
    ASSERT_TRUE(qotest::CreateRegKey(qotest::kBrevantInstallKey));
    const qotest::LogFile log = qotest::LogFile::Read(m_strLog);
    EXPECT_TRUE(qotest::HasMessage(
        log, "Fail to open Software\\Corvane\\Brevant\\0\\Install key under HKEY_LOCAL_MACHINE. err=2"));
    EXPECT_TRUE(qotest::HasMessage(log, "Load SeAgntMaxNum=2147483647"));
}

TEST_F(WatchDogTest, StartGateWithoutATerminateEventWatchesTheHostAndTheKey) {
    // No terminate event has been made in this process's namespace: the gate does without it.
    qotest::ChildProcess parent = qotest::StartTestParent();
    ASSERT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSetStartEventValue, 1));
    EXPECT_TRUE(WaitForSetStartEvent(parent.handle.get()));

    ASSERT_TRUE(qotest::DeleteRegValue(qotest::kBrevantInstallKey, qotest::kSetStartEventValue));
    ASSERT_TRUE(qotest::MakeTestParentExit(parent.pid));
    EXPECT_FALSE(WaitForSetStartEvent(parent.handle.get()));
    EXPECT_TRUE(qotest::LogFile::Read(m_strLog).InOrder(
        {"no terminated event exists.", "Wait for set start event.", "no terminated event exists.",
         "Wait for set start event.", "Service process is shutdown."}));
}

TEST(PathEntry, OnlyWholeEntriesAreFound) {
    size_t nPos = 0;
    size_t nLen = 0;
    struct Case {
        const wchar_t* pszPath;
        const wchar_t* pszDir;
        bool bFound;
        size_t nPos;
        size_t nLen;
    };
    const Case cases[] = {
        {L"C:\\Windows;D:\\Platform;C:\\Tools", L"D:\\Platform", true, 11, 11},
        {L"D:\\Platform", L"D:\\Platform", true, 0, 11},
        {L"D:\\Platform\\bin;D:\\Platform2;C:\\x", L"D:\\Platform", false, 0, 0},
        {L"D:\\Platform\\bin;D:\\Platform", L"D:\\Platform", true, 16, 11},
        {L"C:\\Windows;D:\\Platform\\;C:\\Tools", L"D:\\Platform", true, 11, 12},
        {L"C:\\Windows;d:\\platform", L"D:\\Platform", false, 0, 0},
        {L"C:\\Windows;%PLATFORM%", L"D:\\Platform", false, 0, 0},
        {L"X:\\D:\\Platform;C:\\x", L"D:\\Platform", false, 0, 0},
        {L"C:\\Windows;C:\\Windows\\system32;C:\\", L"C:\\", true, 31, 3},
        {L"C:\\Windows;C:\\Tools", L"C:\\", false, 0, 0},
        {L"", L"D:\\Platform", false, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(qotest::ToUtf8(c.pszPath));
        EXPECT_EQ(c.bFound, FindPathEntry(c.pszPath, c.pszDir, nPos, nLen));
        if (c.bFound) {
            EXPECT_EQ(c.nPos, nPos);
            EXPECT_EQ(c.nLen, nLen);
        }
    }
}

TEST_F(WatchDogTest, PathCleanupAgainstTheRealValue) {
    std::wstring strOriginal;
    ASSERT_TRUE(GetSystemEnvPath(strOriginal));
    ASSERT_TRUE(SetCurrentDirectoryW(qotest::PlatformDir().c_str()));
    const std::wstring strDir = qotest::PlatformDir();
    CWatchDog* pWatchDog = CWatchDog::GetInstance();

    struct Case {
        std::wstring strBefore;
        std::wstring strAfter;
    };
    const std::vector<Case> cases = {
        {L"C:\\Windows;" + strDir + L";C:\\Tools", L"C:\\Windows;;C:\\Tools"},
        {strDir, L""},
        {strDir + L";C:\\x;" + strDir, L";C:\\x;" + strDir},
        {L"C:\\Windows;" + strDir + L"\\bin;" + strDir + L"2",
         L"C:\\Windows;" + strDir + L"\\bin;" + strDir + L"2"},
        {strDir + L"\\;C:\\x", L";C:\\x"},
        {qotest::ToLower(strDir) + L";C:\\x", qotest::ToLower(strDir) + L";C:\\x"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(qotest::ToUtf8(c.strBefore));
        ASSERT_TRUE(SetSystemEnvPath(c.strBefore));
        qotest::TruncateFile(m_strLog);
        EXPECT_TRUE(pWatchDog->RemoveKeldPathFromSystemPath());
        std::wstring strAfter;
        ASSERT_TRUE(GetSystemEnvPath(strAfter));
        EXPECT_EQ(c.strAfter, strAfter);
        const qotest::LogFile log = qotest::LogFile::Read(m_strLog);
        if (c.strAfter != c.strBefore) {
            ASSERT_EQ(2u, log.records().size());
            EXPECT_EQ("KELD path is found in system path, so remove it!", log.records()[0].message);
            EXPECT_EQ("new system path=" + qotest::ToUtf8(c.strAfter), log.records()[1].message);
        } else {
            EXPECT_TRUE(log.records().empty()) << "nothing found, nothing written";
        }
    }

    // A drive root as the current directory removes only the entry that is the root itself.
    ASSERT_TRUE(SetCurrentDirectoryW(L"C:\\"));
    ASSERT_TRUE(SetSystemEnvPath(L"C:\\Windows;C:\\;C:\\Tools"));
    EXPECT_TRUE(pWatchDog->RemoveKeldPathFromSystemPath());
    std::wstring strAfter;
    ASSERT_TRUE(GetSystemEnvPath(strAfter));
    EXPECT_EQ(L"C:\\Windows;;C:\\Tools", strAfter);
    ASSERT_TRUE(SetSystemEnvPath(L"C:\\Windows;C:\\Tools"));
    EXPECT_TRUE(pWatchDog->RemoveKeldPathFromSystemPath());
    ASSERT_TRUE(GetSystemEnvPath(strAfter));
    EXPECT_EQ(L"C:\\Windows;C:\\Tools", strAfter);

    ASSERT_TRUE(SetSystemEnvPath(strOriginal));
    CWatchDog::ReleaseInstance();
}

TEST_F(WatchDogTest, CrashRestartsGracefulEndSwitchesOffNewShellSwitchesOn) {
    qotest::AgentStartCounter started;
    CWatchDog* pWatchDog = Start();
    pWatchDog->RegisterSessions({Record(1, m_dwExplorer)});
    ASSERT_TRUE(started.WaitForStarts(1, WAIT_MS));
    const DWORD dwFirst = qotest::AgentPidOf(pWatchDog, 1);
    ASSERT_NE(0u, dwFirst);

    // Ungraceful ends: the agent is started again at once, every time.
    DWORD dwAgent = dwFirst;
    for (const DWORD dwCode : {1u, 0xC0000005u, 1u}) {
        ASSERT_TRUE(qotest::MakeAgentExit(dwAgent, dwCode));
        // The start happens while the monitor holds its lock, so the record read next is complete.
        ASSERT_TRUE(started.WaitForStarts(1, WAIT_MS));
        const DWORD dwNext = qotest::AgentPidOf(pWatchDog, 1);
        ASSERT_NE(0u, dwNext);
        EXPECT_NE(dwAgent, dwNext);
        dwAgent = dwNext;
    }

    // Each graceful code switches its session off; sessions 2 to 4 share the monitor.
    pWatchDog->RegisterSessions({Record(2, m_dwExplorer), Record(3, m_dwExplorer), Record(4, m_dwExplorer)});
    ASSERT_TRUE(started.WaitForStarts(3, WAIT_MS));
    const DWORD graceful[] = {0, 0xC0000142, 0x40010004};
    for (DWORD i = 0; i < 3; ++i) {
        ASSERT_TRUE(qotest::MakeAgentExit(qotest::AgentPidOf(pWatchDog, 2 + i), graceful[i]));
        ASSERT_TRUE(
            qotest::WaitForMessage(m_strLog, "session (" + std::to_string(2 + i) + ") is off.", WAIT_MS));
    }
    SessionRecord rec = {};
    ASSERT_TRUE(pWatchDog->GetSessionSnapshot(3, rec));
    EXPECT_TRUE(rec.bOff);
    EXPECT_EQ(nullptr, rec.hAgentProcess);

    // Registered again with the same shell: still off. With another shell process: on again.
    pWatchDog->RegisterSessions({Record(3, m_dwExplorer)});
    ASSERT_TRUE(pWatchDog->GetSessionSnapshot(3, rec));
    EXPECT_TRUE(rec.bOff);
    // When the last agent of the batch has ended gracefully the thread says so and keeps waiting.
    ASSERT_TRUE(qotest::MakeAgentExit(qotest::AgentPidOf(pWatchDog, 1), 0));
    ASSERT_TRUE(qotest::WaitForMessage(m_strLog, "No session to monitor.", WAIT_MS));
    ASSERT_TRUE(pWatchDog->GetSessionSnapshot(3, rec));
    EXPECT_TRUE(rec.bOff);
    EXPECT_EQ(nullptr, rec.hAgentProcess);

    qotest::ChildProcess otherShell = qotest::StartTestParent();
    pWatchDog->RegisterSessions({Record(3, otherShell.pid)});
    ASSERT_TRUE(started.WaitForStarts(1, WAIT_MS));
    EXPECT_NE(0u, qotest::AgentPidOf(pWatchDog, 3));

    const qotest::LogFile log = qotest::LogFile::Read(m_strLog);
    EXPECT_EQ(1u, qotest::CountMessage(log, "session (3) is on again."));
    EXPECT_EQ(3u, log.CountPrefix("Session agent exits, graceful=0, handle="));
    EXPECT_EQ(4u, log.CountPrefix("Session agent exits, graceful=1, handle="));
    EXPECT_TRUE(qotest::HasMessageEndingWith(log, ", exitcode=3221225477"));
    EXPECT_TRUE(qotest::HasMessageEndingWith(log, ", exitcode=3221225794"));
    EXPECT_TRUE(qotest::HasMessageEndingWith(log, ", exitcode=1073807364"));
    for (const qotest::LogRecord& r : log.records()) {
        EXPECT_EQ("INFO", r.level) << r.message;
    }

    // The close ends the monitor after its agents; the singleton goes with the last release.
    ASSERT_TRUE(CloseAndWait(pWatchDog));
    EXPECT_EQ(1, CWatchDog::GetRefCount());
    EXPECT_EQ(0u, pWatchDog->GetLiveMonitorCount());
    const qotest::LogFile closed = qotest::LogFile::Read(m_strLog);
    EXPECT_EQ(1u, qotest::CountMessage(closed, "KELD Stop"));
    EXPECT_TRUE(qotest::HasMessage(closed, "Start to Wait for All Session Agent."));
    EXPECT_TRUE((closed.CountPrefix("Wait for All Session Agent. dwRet=0") > 0));
    CWatchDog::ReleaseInstance();
    EXPECT_EQ(0, CWatchDog::GetRefCount());
}

TEST_F(WatchDogTest, SeAgntMaxNumZeroStartsNothing) {
    ASSERT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSeAgntMaxNumValue, 0));
    CWatchDog* pWatchDog = Start();
    pWatchDog->RegisterSessions({Record(3, m_dwExplorer), Record(5, m_dwExplorer)});
    ASSERT_TRUE(qotest::WaitForMessage(m_strLog, "Load SeAgntMaxNum=0", WAIT_MS));
    // The load happens inside the refresh, under the monitor's lock: the snapshot waits for it.
    SessionRecord rec = {};
    ASSERT_TRUE(pWatchDog->GetSessionSnapshot(5, rec));
    EXPECT_EQ(nullptr, rec.hAgentProcess);
    EXPECT_FALSE(rec.bOff);
    EXPECT_TRUE(qotest::FindProcesses(L"QoSessionAgent*.exe").empty());
    ASSERT_TRUE(CloseAndWait(pWatchDog));
    EXPECT_TRUE(qotest::HasMessage(qotest::LogFile::Read(m_strLog), "No Session Agent Needs to Wait."));
    CWatchDog::ReleaseInstance();
}

TEST_F(WatchDogTest, SeAgntMaxNumOneServesTheNextSessionAfterAGracefulEnd) {
    ASSERT_TRUE(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSeAgntMaxNumValue, 1));
    qotest::AgentStartCounter started;
    CWatchDog* pWatchDog = Start();
    pWatchDog->RegisterSessions({Record(3, m_dwExplorer), Record(5, m_dwExplorer)});
    ASSERT_TRUE(started.WaitForStarts(1, WAIT_MS));
    EXPECT_NE(0u, qotest::AgentPidOf(pWatchDog, 3));
    EXPECT_EQ(0u, qotest::AgentPidOf(pWatchDog, 5));
    EXPECT_EQ(1u, qotest::FindProcesses(L"QoSessionAgent*.exe").size());

    ASSERT_TRUE(qotest::MakeAgentExit(qotest::AgentPidOf(pWatchDog, 3), 0));
    ASSERT_TRUE(started.WaitForStarts(1, WAIT_MS));
    EXPECT_NE(0u, qotest::AgentPidOf(pWatchDog, 5));
    EXPECT_EQ(1u, qotest::FindProcesses(L"QoSessionAgent*.exe").size());
    ASSERT_TRUE(CloseAndWait(pWatchDog));
    CWatchDog::ReleaseInstance();
}

TEST_F(WatchDogTest, FailingStartDropsTheRecordAndBatchesGetTheirOwnThreads) {
    // A missing agent: the start fails and the record is forgotten until registered again.
    CWatchDog* pWatchDog = Start(qotest::AgentDir() + L"\\Missing.exe");
    pWatchDog->RegisterSessions({Record(7, m_dwExplorer)});
    ASSERT_TRUE(qotest::WaitForMessage(m_strLog, " Create Session Agent failed session ID = 7", WAIT_MS));
    SessionRecord rec = {};
    EXPECT_FALSE(pWatchDog->GetSessionSnapshot(7, rec));

    // Sessions 61 and 62 belong to monitors 0 and 1, each with its own thread; ids past the last
    // monitor are refused.
    pWatchDog->RegisterSessions(
        {Record(61, m_dwExplorer), Record(62, m_dwExplorer), Record(3038, m_dwExplorer)});
    EXPECT_EQ(2u, pWatchDog->GetLiveMonitorCount());
    EXPECT_EQ(2u, g_vecMonitorThreads.size());
    const qotest::LogFile log = qotest::LogFile::Read(m_strLog);
    EXPECT_TRUE(qotest::HasMessage(log, "m_shpSessionManager->IsCreated Ret=-1"));

    ASSERT_TRUE(CloseAndWait(pWatchDog));
    EXPECT_EQ(0u, pWatchDog->GetLiveMonitorCount());
    EXPECT_EQ(2u, qotest::CountMessage(qotest::LogFile::Read(m_strLog), "KELD Stop"));

    // After the close, a reload resets the event and each batch gets a new monitor and thread:
    // one for Wine's own session, one for session 62.
    pWatchDog->ReloadSessions();
    pWatchDog->RegisterSessions({Record(62, m_dwExplorer)});
    EXPECT_EQ(2u, pWatchDog->GetLiveMonitorCount());
    EXPECT_EQ(4u, g_vecMonitorThreads.size());
    ASSERT_TRUE(CloseAndWait(pWatchDog));
    EXPECT_EQ(1, CWatchDog::GetRefCount());
    CWatchDog::ReleaseInstance();
}

TEST_F(WatchDogTest, AgentGoneAtItsRestartEndsTheMonitorAfterItsOtherAgents) {
    // The agent program is moved away (an uninstall, say) while its agents run; one of them crashes.
    const std::wstring strAgent = qotest::AgentDir() + L"\\QoSessionAgentMoved.exe";
    const std::wstring strAway = strAgent + L".away";
    ASSERT_TRUE(qotest::CopyFileTo(qotest::InstalledAgentExe(), strAgent));
    DeleteFileW(strAway.c_str());
    qotest::AgentStartCounter started;
    CWatchDog* pWatchDog = Start(strAgent);
    pWatchDog->RegisterSessions({Record(1, m_dwExplorer), Record(2, m_dwExplorer)});
    ASSERT_TRUE(started.WaitForStarts(2, WAIT_MS));
    const DWORD dwOther = qotest::AgentPidOf(pWatchDog, 2);
    ASSERT_TRUE(MoveFileW(strAgent.c_str(), strAway.c_str()));
    ASSERT_TRUE(qotest::MakeAgentExit(qotest::AgentPidOf(pWatchDog, 1), 1));

    ASSERT_TRUE(qotest::WaitForMessage(m_strLog, "Session Agent re-create failed", WAIT_MS));
    // The thread waits for the batch's other agent before it removes its monitor.
    const qotest::OwnedHandle other(OpenProcess(SYNCHRONIZE, FALSE, dwOther));
    ASSERT_TRUE(other.valid());
    EXPECT_TRUE(qotest::IsRunning(other.get()));
    EXPECT_EQ(1u, pWatchDog->GetLiveMonitorCount());
    ASSERT_TRUE(qotest::MakeAgentExit(dwOther, 0));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_vecMonitorThreads.front(), WAIT_MS));
    EXPECT_EQ(0u, pWatchDog->GetLiveMonitorCount());

    const qotest::LogFile log = qotest::LogFile::Read(m_strLog);
    EXPECT_TRUE(log.InOrder(
        {"CreateProcessAsUser GetLastError=2", "session (1) is off.", "Session Agent re-create failed"}));
    EXPECT_EQ(0u, log.CountPrefix("KELD Stop")) << "no close was asked for";
    EXPECT_EQ(1, CWatchDog::GetRefCount());
    CWatchDog::ReleaseInstance();

    // With every monitor thread gone, the final wait has nothing to wait for.
    WaitForAllMonitorThreads();
    WaitForAllMonitorThreads();
    EXPECT_TRUE(qotest::HasMessage(qotest::LogFile::Read(m_strLog), "No Monitor Thread to be Waited."));
    DeleteFileW(strAway.c_str());
}

TEST(SessionManager, RangesAndRefusedIds) {
    CSessionManager manager(WATCHDOG_MAX_SESSIONS);
    EXPECT_EQ(49u, manager.GetMonitorCount());
    EXPECT_EQ(3037u, manager.GetMaxSessionId());
    EXPECT_EQ(0, manager.IsCreated(3037));
    EXPECT_EQ(-1, manager.IsCreated(3038));
    EXPECT_EQ(-1, manager.InsertSession(Record(3038, 1)));
    manager.RemoveMonitor(-1);
    manager.RemoveMonitor(62);
    manager.RemoveMonitor(5);
    EXPECT_EQ(0u, manager.GetLiveMonitorCount());
}

TEST_F(WatchDogTest, StressManySessionsRandomCrashesThenClose) {
    const DWORD nSessions = 248;  // four full monitors
    qotest::AgentStartCounter started;
    const DWORD dwHandlesBefore = qotest::ProcessHandleCount();
    CWatchDog* pWatchDog = Start();
    std::vector<SessionRecord> records;
    for (DWORD id = 0; id < nSessions; ++id) {
        records.push_back(Record(id, m_dwExplorer));
    }
    pWatchDog->RegisterSessions(records);
    ASSERT_TRUE(started.WaitForStarts(static_cast<int>(nSessions), 120000));
    EXPECT_EQ(4u, pWatchDog->GetLiveMonitorCount());

    // Random crashes, ten at a time in the same instant, spread over the monitors; every one is
    // restarted.
    std::mt19937 random(20261123);
    std::vector<DWORD> ids(nSessions);
    for (DWORD id = 0; id < nSessions; ++id) {
        ids[id] = id;
    }
    for (int nRound = 0; nRound < 12; ++nRound) {
        std::shuffle(ids.begin(), ids.end(), random);
        for (int i = 0; i < 10; ++i) {
            const DWORD dwAgent = qotest::AgentPidOf(pWatchDog, ids[i]);
            ASSERT_NE(0u, dwAgent);
            ASSERT_TRUE(qotest::MakeAgentExit(dwAgent, (i % 2 == 0) ? 1u : 0xC0000005u));
        }
        ASSERT_TRUE(started.WaitForStarts(10, 60000)) << "round " << nRound;
    }

    // Every session has exactly one agent, and that agent is alive.
    std::vector<DWORD> agents = qotest::FindProcesses(L"QoSessionAgent*.exe");
    EXPECT_EQ(nSessions, agents.size());
    for (DWORD id = 0; id < nSessions; ++id) {
        SessionRecord rec = {};
        ASSERT_TRUE(pWatchDog->GetSessionSnapshot(id, rec));
        ASSERT_NE(nullptr, rec.hAgentProcess) << "session " << id;
        EXPECT_NE(agents.end(), std::find(agents.begin(), agents.end(), GetProcessId(rec.hAgentProcess)));
        EXPECT_FALSE(rec.bOff);
    }

    ASSERT_TRUE(CloseAndWait(pWatchDog));
    EXPECT_EQ(4u, qotest::CountMessage(qotest::LogFile::Read(m_strLog), "KELD Stop"));
    EXPECT_EQ(1, CWatchDog::GetRefCount());
    CWatchDog::ReleaseInstance();
    WaitForAllMonitorThreads();
    EXPECT_TRUE(g_vecMonitorThreads.empty());
    // Agent handles, reload events, close events and thread handles are all given back.
    EXPECT_LE(qotest::ProcessHandleCount(), dwHandlesBefore + 4);
}

}  // namespace
