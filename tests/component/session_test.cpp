// Finding the user sessions and starting the agent as a session's user, through Wine's real
// explorer.exe, token functions and CreateProcessAsUserW.
#include <windows.h>

#include <direct.h>
#include <userenv.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/SessionRecord.h"
#include "session/utilInteractiveProcess.h"
#include "session/utilWinUserSession.h"
#include "ComponentSupport.h"
#include "LogReader.h"
#include "WinTestEnv.h"
#include "watchdog/QoWatchDog.h"

namespace {

DWORD OwnSession() {
    DWORD dwSession = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &dwSession);
    return dwSession;
}

using qotest::WineExplorerPid;

SessionRecord RecordFor(DWORD dwExplorerPid) { return qotest::SessionRecordFor(OwnSession(), dwExplorerPid); }

TEST(EnumUserSession, FindsExplorerByFileNameOnly) {
    qotest::ResetTestState();
    const std::wstring strDir = qotest::MakeScratchDirectory(L"enum");
    // Our own processes under shell-like names: any letter case counts, a longer name does not.
    ASSERT_TRUE(qotest::CopyFileTo(qotest::TestParentExe(), strDir + L"\\EXPLORER.EXE"));
    ASSERT_TRUE(qotest::CopyFileTo(qotest::TestParentExe(), strDir + L"\\iexplorer.exe"));
    qotest::ChildProcess upper = qotest::StartProcess(strDir + L"\\EXPLORER.EXE");
    qotest::ChildProcess longer = qotest::StartProcess(strDir + L"\\iexplorer.exe");
    // Not among the names the harness cleans up: ended here, whatever the test's outcome.
    qotest::EndOnExit endUpper(upper.handle.get());
    qotest::EndOnExit endLonger(longer.handle.get());
    ASSERT_TRUE(upper.handle.valid());
    ASSERT_TRUE(longer.handle.valid());

    std::vector<SessionRecord> sessions(1, SessionRecord{99, 99, nullptr, true});  // appended to, not cleared
    ASSERT_TRUE(EnumUserSession(sessions));
    std::vector<DWORD> pids;
    for (size_t i = 1; i < sessions.size(); ++i) {
        EXPECT_EQ(OwnSession(), sessions[i].dwSessionId);
        EXPECT_EQ(nullptr, sessions[i].hAgentProcess);
        EXPECT_FALSE(sessions[i].bOff);
        pids.push_back(sessions[i].dwExplorerPid);
    }
    EXPECT_EQ(99u, sessions[0].dwSessionId);
    EXPECT_EQ(2u, pids.size()) << "Wine's explorer.exe and our EXPLORER.EXE, one record each";
    EXPECT_NE(pids.end(), std::find(pids.begin(), pids.end(), WineExplorerPid()));
    EXPECT_NE(pids.end(), std::find(pids.begin(), pids.end(), upper.pid));
    EXPECT_EQ(pids.end(), std::find(pids.begin(), pids.end(), longer.pid));

    // The run-key wait sees the shell of its own session at the first look.
    const DWORD dwStart = GetTickCount();
    EXPECT_TRUE(waitExplorerProcessReady(EXPLORER_READY_TIMEOUT_MS));
    EXPECT_LT(GetTickCount() - dwStart, 2000u);
}

TEST(CEnvBlock, EditsAndLayout) {
    HANDLE hRaw = nullptr;
    ASSERT_TRUE(
        OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE, &hRaw));
    qotest::OwnedHandle token(hRaw);
    CEnvBlock env(token.get(), FALSE);
    ASSERT_FALSE(env.GetEntries().empty());
    const std::vector<std::wstring> before = env.GetEntries();

    // The search path is found in any letter case and keeps the entry's spelling of its name.
    const auto itPath = std::find_if(before.begin(), before.end(), [](const std::wstring& e) {
        return _wcsnicmp(e.c_str(), L"path=", 5) == 0;
    });
    ASSERT_NE(before.end(), itPath);
    const size_t nPath = static_cast<size_t>(itPath - before.begin());
    EXPECT_TRUE(env.PrependValue(L"PATH", L"C:\\Front"));
    EXPECT_EQ(itPath->substr(0, 5) + L"C:\\Front;" + itPath->substr(5), env.GetEntries()[nPath]);
    EXPECT_FALSE(env.PrependValue(L"QoTestNoSuchList", L"C:\\x"));
    EXPECT_FALSE(env.PrependValue(nullptr, L"C:\\x"));

    // A variable that is there is replaced in place; one that is not is appended.
    env.SetVariable(env.GetEntries()[0].substr(0, env.GetEntries()[0].find(L'=')).c_str(), L"replaced");
    EXPECT_EQ(before.size(), env.GetEntries().size());
    EXPECT_NE(std::wstring::npos, env.GetEntries()[0].find(L"=replaced"));
    env.SetVariable(L"QoTestAppended", L"value");
    EXPECT_EQ(L"QoTestAppended=value", env.GetEntries().back());

    // The block holds every entry with its NUL and ends with one more.
    const wchar_t* pBlock = static_cast<const wchar_t*>(env.GetBlock());
    ASSERT_NE(nullptr, pBlock);
    size_t nOffset = 0;
    for (const std::wstring& strEntry : env.GetEntries()) {
        EXPECT_EQ(strEntry, std::wstring(pBlock + nOffset));
        nOffset += strEntry.size() + 1;
    }
    EXPECT_EQ(L'\0', pBlock[nOffset]);
    EXPECT_GE(static_cast<size_t>(env.GetSize()), (nOffset + 1) * sizeof(wchar_t));

    // A token for which no environment can be built leaves the object empty; its block is just NULs.
    CEnvBlock none(INVALID_HANDLE_VALUE, FALSE);
    if (none.GetEntries().empty()) {
        const wchar_t* pEmpty = static_cast<const wchar_t*>(none.GetBlock());
        ASSERT_NE(nullptr, pEmpty);
        EXPECT_EQ(L'\0', pEmpty[0]);
        EXPECT_FALSE(none.PrependValue(L"Path", L"C:\\x")) << "no search path to extend";
    }
}

class CreateSessionAgentTest : public ::testing::Test {
protected:
    void SetUp() override {
        qotest::ResetTestState();
        m_strLog = qotest::UseScratchLog(L"create_agent");
        ASSERT_NE(0u, WineExplorerPid());
    }
    void TearDown() override {
        qotest::TerminateTestProcesses();
        qotest::StopUsingScratchLog();
    }
    std::wstring m_strLog;
};

TEST_F(CreateSessionAgentTest, AgentRunsAsTheSessionUserWithItsEnvironmentAndExitCodesComeBack) {
    qotest::AgentStartCounter started;
    ASSERT_TRUE(started.valid());
    wchar_t* pszCwd = _wgetcwd(nullptr, 0);
    ASSERT_NE(nullptr, pszCwd);
    const std::wstring strOwnDir(pszCwd);
    free(pszCwd);

    const DWORD codes[] = {0, 0xC0000142, 0x40010004, 0xC0000005, 1};
    for (const DWORD dwCode : codes) {
        SessionRecord rec = RecordFor(WineExplorerPid());
        ASSERT_TRUE(CreateSessionAgent(qotest::InstalledAgentExe(), qotest::AgentDir(), rec));
        ASSERT_NE(nullptr, rec.hAgentProcess);
        qotest::OwnedHandle agent(rec.hAgentProcess);
        ASSERT_TRUE(started.WaitForStarts(1, 10000));
        const DWORD dwPid = GetProcessId(agent.get());

        const qotest::AgentReport report = qotest::ReadAgentReport(dwPid);
        ASSERT_TRUE(report.found);
        std::wstring strCmdline = report.Get(qotest::kReportCmdline);
        strCmdline.erase(std::remove(strCmdline.begin(), strCmdline.end(), L'"'), strCmdline.end());
        EXPECT_EQ(qotest::InstalledAgentExe(), strCmdline) << "its path is its whole command line";
        EXPECT_EQ(qotest::AgentDir(), report.Get(qotest::kReportCwd));
        EXPECT_EQ(std::to_wstring(OwnSession()), report.Get(qotest::kReportSession));
        EXPECT_EQ(0u, report.Get(qotest::kReportPath).find(strOwnDir + L";"))
            << "the watchdog's directory leads the search path: "
            << qotest::ToUtf8(report.Get(qotest::kReportPath));
        for (const char* pszName : {qotest::kReportCommonProgramFilesX86, qotest::kReportCommonProgramW6432,
                                    qotest::kReportProgramFilesX86, qotest::kReportProgramW6432}) {
            const std::wstring strName = qotest::FromUtf8(pszName);
            EXPECT_EQ(qotest::GetEnv(strName.c_str()), report.Get(pszName)) << pszName;
        }

        ASSERT_TRUE(qotest::MakeAgentExit(dwPid, dwCode));
        const std::optional<DWORD> exitCode = qotest::WaitForExitCode(agent.get(), 10000);
        ASSERT_TRUE(exitCode.has_value());
        EXPECT_EQ(dwCode, *exitCode);
    }

    const qotest::LogFile log = qotest::LogFile::Read(m_strLog);
    const std::string strSuccess =
        " Create Session Agent successfully session ID = " + std::to_string(OwnSession());
    EXPECT_EQ(5u, log.CountPrefix("Newly created process id="));
    EXPECT_EQ(5u, qotest::CountMessage(log, strSuccess));
    // Success, then the shell's id, in that order.
    const size_t nSuccess = log.IndexOf(qotest::MessageIs(strSuccess));
    ASSERT_NE(qotest::LogFile::npos, nSuccess);
    EXPECT_EQ("Explorer.exe PID=" + std::to_string(WineExplorerPid()),
              log.records().at(nSuccess + 1).message);
    EXPECT_EQ(".\\utilWinUserSession", log.records().at(nSuccess).source);
    EXPECT_TRUE(log.malformed().empty());
}

TEST_F(CreateSessionAgentTest, ExitedShellAndMissingAgent) {
    // The shell has exited: its process cannot be opened, and the record is left as it was.
    qotest::ChildProcess shell = qotest::StartTestParent();
    ASSERT_TRUE(shell.handle.valid());
    TerminateProcess(shell.handle.get(), 0);
    WaitForSingleObject(shell.handle.get(), 10000);
    shell.handle.reset();
    Sleep(1000);  // until Wine has let go of the ended process's id
    SessionRecord gone = RecordFor(shell.pid);
    gone.hAgentProcess = reinterpret_cast<HANDLE>(0x1234);
    EXPECT_FALSE(CreateSessionAgent(qotest::InstalledAgentExe(), qotest::AgentDir(), gone));
    EXPECT_EQ(reinterpret_cast<HANDLE>(0x1234), gone.hAgentProcess);

    // The agent is missing: the launch fails after the token steps, and the process is back on its
    // own window station, not impersonating.
    HWINSTA hStationBefore = GetProcessWindowStation();
    SessionRecord rec = RecordFor(WineExplorerPid());
    EXPECT_FALSE(CreateSessionAgent(qotest::AgentDir() + L"\\Missing.exe", qotest::AgentDir(), rec));
    EXPECT_EQ(nullptr, rec.hAgentProcess);
    EXPECT_EQ(hStationBefore, GetProcessWindowStation());
    HANDLE hThreadToken = nullptr;
    EXPECT_FALSE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &hThreadToken));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_TOKEN), GetLastError());

    const qotest::LogFile log = qotest::LogFile::Read(m_strLog);
    EXPECT_EQ(1u, log.CountPrefix("OpenProcess Err="));
    const size_t nCreate = log.IndexOfPrefix("CreateProcessAsUser GetLastError=");
    ASSERT_NE(qotest::LogFile::npos, nCreate);
    EXPECT_EQ("CreateProcessAsUser GetLastError=2", log.records()[nCreate].message);
    EXPECT_EQ(".\\utilInteractiveProcess", log.records()[nCreate].source);
    EXPECT_EQ(" Create Session Agent failed session ID = " + std::to_string(OwnSession()),
              log.records().at(nCreate + 1).message);
    EXPECT_EQ("ERROR", log.records().at(nCreate + 1).level);
    EXPECT_EQ("Explorer.exe PID=" + std::to_string(WineExplorerPid()), log.records().at(nCreate + 2).message);
}

}  // namespace
