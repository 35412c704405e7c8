// The watchdog's parts called directly, against Wine's real files, registry, processes and
// window stations. Wine has one session (1): records of other ids have their start refused at the
// shell check, and the agents that start are real.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "Harness.h"
#include "foundation/logging.h"
#include "session/SessionAgentMonitor.h"
#include "session/utilInteractiveProcess.h"
#include "session/utilWinUserSession.h"
#include "watchdog/QoWatchDog.h"
#include "watchdog/WatchDog.h"

namespace {

std::wstring UseLog(const std::wstring& name) {
    const std::wstring path = qt::Scratch(name) + L"\\debug\\QoWatchDog.log";
    CreateDirectoryW(path.substr(0, path.rfind(L'\\')).c_str(), nullptr);
    GetLogger().set_file(path.c_str());
    return path;
}

void MakeFile(const std::wstring& path, long size) {
    std::ofstream(std::filesystem::path(path));
    std::filesystem::resize_file(path, size);
}

size_t SizeOf(const std::wstring& path) {
    std::error_code missing;
    return static_cast<size_t>(std::filesystem::file_size(path, missing));  // all ones when missing
}

SessionRecord Session(DWORD id, DWORD shellPid) { return SessionRecord{id, shellPid, nullptr, false}; }

DWORD AgentOf(CWatchDog* pWatchDog, DWORD session) {
    SessionSnapshot snapshot = {};
    return pWatchDog->GetSessionSnapshot(session, snapshot) ? snapshot.dwAgentPid : 0;
}

TEST(Log, LineFormCutsAndFaults) {
    const std::wstring path = UseLog(L"log");
    LOG_INFO(L"Grüße, Δ and 日本 Err=" << 5);
    LOG_ERROR(L"second");
    const log_settings settings = {20, path};
    write_line(&settings, 10, L"below the threshold\n");
    qt::Log log = qt::ReadLog(path);
    ASSERT_EQ(2u, log.lines.size()) << "malformed: " << log.malformed.size();
    EXPECT_EQ(GetCurrentProcessId(), log.lines[0].pid);
    EXPECT_EQ(".\\component_test", log.lines[0].source);
    EXPECT_EQ(u8"Grüße, Δ and 日本 Err=5", log.lines[0].message);
    EXPECT_TRUE(!log.lines[0].error && log.lines[1].error);

    // A file of exactly the limit is appended to; one byte over it, it is replaced.
    MakeFile(path, LOG_FILE_SIZE_LIMIT);
    LOG_INFO(L"appended");
    EXPECT_GT(SizeOf(path), static_cast<size_t>(LOG_FILE_SIZE_LIMIT));
    MakeFile(path, LOG_FILE_SIZE_LIMIT + 1);
    LOG_INFO(L"a new file");
    GetLogger().stream20() << L"half a statement";  // as one that failed half-way leaves it
    GetLogger().stream20().setstate(std::ios::badbit);
    LOG_INFO(L"whole");
    EXPECT_EQ("whole", qt::ReadLog(path).lines.back().message);

    // A missing directory loses the line; the next line that can be written is.
    GetLogger().set_file((path + L"-missing\\QoWatchDog.log").c_str());
    LOG_INFO(L"lost");
    GetLogger().set_file(path.c_str());
    std::thread other([] {
        for (int i = 0; i < 200; ++i)
            LOG_INFO(L"other thread " << i);
    });
    for (int i = 0; i < 200; ++i)
        LOG_INFO(L"main thread " << i);
    other.join();
    log = qt::ReadLog(path);
    EXPECT_EQ(402u, log.lines.size());
    EXPECT_TRUE(log.malformed.empty()) << log.malformed.front();
    EXPECT_EQ(0u, log.Count("lost"));

    // One that cannot be deleted (read-only) is moved aside to QoWatchDog.log<seconds since 1970>. Only
    // root under Wine can open a read-only file for appending and so reach the move.
    MakeFile(path, LOG_FILE_SIZE_LIMIT + 1);
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY);
    if (!qt::Own(CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                             nullptr))) {
        GTEST_SKIP()
            << "a read-only log cannot be opened for appending by this user: the move aside is not reached";
    }
    const __time64_t before = _time64(nullptr);
    LOG_INFO(L"after the move");
    const std::wstring aside = path + std::to_wstring(before);
    const std::wstring asideLater = path + std::to_wstring(before + 1);
    EXPECT_TRUE(SizeOf(aside) == LOG_FILE_SIZE_LIMIT + 1 || SizeOf(asideLater) == LOG_FILE_SIZE_LIMIT + 1)
        << SizeOf(aside) << " " << SizeOf(asideLater);
    EXPECT_EQ(1u, qt::ReadLog(path).lines.size());
}

TEST(Path, OnlyAWholeEntryIsFound) {
    struct Case {
        const wchar_t* path;
        const wchar_t* dir;
        size_t pos, length;  // length 0: not found
    } cases[] = {
        {L"C:\\P;D:\\x", L"C:\\P", 0, 4},         {L"D:\\x;C:\\P", L"C:\\P", 5, 4},
        {L"D:\\x;C:\\P\\;E:\\y", L"C:\\P", 5, 5}, {L"C:\\P\\bin;C:\\P2;c:\\p", L"C:\\P", 0, 0},
        {L"C:\\P\\bin;C:\\P", L"C:\\P", 9, 4},    {L"%X%;C:\\P;", L"C:\\P", 4, 4},
        {L"C:\\;C:\\P", L"C:\\", 0, 3},           {L"C:\\P;C:\\", L"C:\\", 5, 3},
        {L"XC:\\P;C:\\P\\\\", L"C:\\P", 0, 0},
    };
    for (const Case& c : cases) {
        size_t pos = 99, length = 0;
        const bool found = FindPathEntry(c.path, c.dir, pos, length);
        EXPECT_EQ(c.length != 0, found) << qt::ToUtf8(c.path);
        EXPECT_EQ(c.length ? c.pos : 99, pos) << qt::ToUtf8(c.path);
        EXPECT_EQ(c.length, length) << qt::ToUtf8(c.path);
    }
}

// The agent as the shell's user on winsta0\default, with the user's environment edited; the caller
// is back on its own station and token afterwards, also when the launch fails.
TEST(Launch, AgentAsTheShellsUserAndFaults) {
    const std::wstring log = UseLog(L"launch");
    SetCurrentDirectoryW(qt::PlatformDir().c_str());
    SetEnvironmentVariableW(L"ProgramW6432", L"C:\\Watchdog's PF");
    const HWINSTA station = GetProcessWindowStation();  // its handle, not winsta0's opened for a launch
    HANDLE token = nullptr;  // a thread token would mean the launch left impersonation on
    qt::Agents started;
    SessionRecord rec = Session(1, qt::Find(L"explorer.exe").front());
    ASSERT_TRUE(CreateSessionAgent(qt::AgentDir() + L"\\QoSessionAgent.exe", qt::AgentDir(), rec));
    qt::Handle agent = qt::Own(rec.hAgentProcess);
    ASSERT_TRUE(started.Wait());
    EXPECT_FALSE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token));
    const std::string report = qt::Report(GetProcessId(agent.get()));
    for (const std::wstring& line : {L"cwd=" + qt::AgentDir(), L"Path=" + qt::PlatformDir() + L";",
                                     std::wstring(L"ProgramW6432=C:\\Watchdog's PF"),
                                     L"cmdline=\"" + qt::AgentDir() + L"\\QoSessionAgent.exe\"",
                                     std::wstring(L"desktop=WinSta0\\Default")}) {
        EXPECT_NE(std::string::npos, report.find("\n" + qt::ToUtf8(line))) << report;
    }

    // The user's block as the system gives it: its size counts every entry and the closing NULs; a
    // null name or value changes nothing.
    HANDLE shellToken = nullptr;
    const qt::Proc shell{
        qt::Own(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, qt::Find(L"explorer.exe").front())), 0};
    ASSERT_TRUE(OpenProcessToken(shell.h.get(), TOKEN_QUERY | TOKEN_DUPLICATE, &shellToken));
    CEnvBlock env(shellToken, FALSE);
    CloseHandle(shellToken);
    size_t chars = 1;
    for (const std::wstring& entry : env.GetEntries())
        chars += entry.size() + 1;
    EXPECT_EQ(static_cast<INT32>(chars * sizeof(wchar_t)), env.GetSize());
    EXPECT_FALSE(env.PrependValue(nullptr, L"C:\\x") || env.PrependValue(L"Path", nullptr));
    env.SetVariable(L"QoTestNew", L"1");
    EXPECT_EQ(L"QoTestNew=1", env.GetEntries().back()) << "a variable the user lacks is appended";

    SessionRecord missing = Session(1, qt::Find(L"explorer.exe").front());
    EXPECT_FALSE(CreateSessionAgent(qt::AgentDir() + L"\\Missing.exe", qt::AgentDir(), missing));
    SessionRecord notAShell = Session(1, GetCurrentProcessId());  // a shell's id, reused
    EXPECT_FALSE(CreateSessionAgent(qt::AgentDir() + L"\\QoSessionAgent.exe", qt::AgentDir(), notAShell));
    EXPECT_FALSE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token));
    EXPECT_EQ(station, GetProcessWindowStation());
    EXPECT_EQ(
        "",
        qt::InOrder(qt::ReadLog(log),
                    {"Newly created process id=" + std::to_string(GetProcessId(agent.get())),
                     " Create Session Agent successfully session ID = 1",
                     "CreateProcessAsUser GetLastError=2", " Create Session Agent failed session ID = 1",
                     "Shell process id=" + std::to_string(GetCurrentProcessId()) +
                         " of session 1 now names component_test.exe in session 1: its token is not used"}));
}

// Monitors of batches of 62 session ids. A shell id that names no shell of the record's session
// is refused; an agent program gone at a restart switches the session off and ends its monitor;
// the close ends the rest, and the last release closes the watchdog's events.
TEST(Monitors, BatchesRestartAgentGoneAndClose) {
    const std::wstring log = UseLog(L"monitors");
    SetCurrentDirectoryW(qt::PlatformDir().c_str());
    ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SeAgntMaxNum", 1));
    const std::wstring agent = qt::Scratch(L"moved") + L"\\QoSessionAgent.exe";
    ASSERT_TRUE(CopyFileW((qt::AgentDir() + L"\\QoSessionAgent.exe").c_str(), agent.c_str(), FALSE));
    qt::Agents started;
    CWatchDog* pWatchDog = CWatchDog::GetInstance();
    ASSERT_TRUE(pWatchDog->Init(agent.c_str(), qt::AgentDir().c_str()));
    const DWORD shell = qt::Find(L"explorer.exe").front();
    pWatchDog->RegisterSessions({Session(1, shell), Session(62, shell), Session(3038, shell)});
    ASSERT_TRUE(started.Wait());
    EXPECT_EQ(2u, pWatchDog->GetLiveMonitorCount());
    const DWORD first = AgentOf(pWatchDog, 1);
    ASSERT_TRUE(qt::EndAgent(first, 0xC0000005));
    ASSERT_TRUE(started.Wait());
    EXPECT_NE(first, AgentOf(pWatchDog, 1));

    ASSERT_TRUE(MoveFileW(agent.c_str(), (agent + L".away").c_str()));
    ASSERT_TRUE(qt::EndAgent(AgentOf(pWatchDog, 1), 1));
    ASSERT_TRUE(qt::WaitLog("No Session Agent Needs to Wait.", 1, log));
    EXPECT_TRUE(pWatchDog->SetCloseEvent(false) && pWatchDog->SetCloseEvent(true));
    WaitForAllMonitorThreads();
    EXPECT_EQ(0u, pWatchDog->GetLiveMonitorCount());
    WaitForAllMonitorThreads();
    EXPECT_EQ(1, CWatchDog::GetRefCount());
    CWatchDog::ReleaseInstance();
    EXPECT_EQ(0, CWatchDog::GetRefCount());
    EXPECT_FALSE(qt::Exists(qt::kClose)) << "the last release closes the watchdog's events";
    const qt::Log lines = qt::ReadLog(log);
    EXPECT_EQ(1u, lines.Count("m_shpSessionManager->IsCreated Ret=-1"));
    EXPECT_EQ(1u, lines.Count("of session 62 now names explorer.exe in session 1: its token is not used"));
    EXPECT_EQ(
        "", qt::InOrder(lines, {"Load SeAgntMaxNum=1", "exitcode=3221225477",
                                "Newly created process id=", "CreateProcessAsUser GetLastError=2",
                                "session (1) is off.", "Session Agent re-create failed",
                                "No Session Agent Needs to Wait.", "KELD Stop",
                                "Wait for All Monitor Thread. dwRet=0", "No Monitor Thread to be Waited."}));
}

}  // namespace
