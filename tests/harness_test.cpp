// Tests of the test harness itself: the prepared prefix, the helper programs and tests/support. When
// one of these fails, the failures of the product's tests say nothing until it is fixed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogReader.h"
#include "WinTestEnv.h"

using namespace qotest;

namespace {

constexpr DWORD kStartTimeoutMs = 10000;
constexpr DWORD kExitTimeoutMs = 10000;

// --- A second role of this program: the process that appends a line to a log ---------------------
//
// Started with QO_HARNESS_APPEND_FILE set, the program does not run its tests: it waits for the event
// named by QO_HARNESS_APPEND_EVENT, creates the file's directories when missing, appends one log line
// and exits. This happens before main, during static initialization.

constexpr wchar_t kAppendFileVariable[] = L"QO_HARNESS_APPEND_FILE";
constexpr wchar_t kAppendEventVariable[] = L"QO_HARNESS_APPEND_EVENT";
constexpr char kAppendedMessage[] = "appended by another process";

void CreateParentDirectories(const std::wstring& filePath) {
    for (size_t slash = filePath.find(L'\\', 3); slash != std::wstring::npos;
         slash = filePath.find(L'\\', slash + 1)) {
        CreateDirectoryW(filePath.substr(0, slash).c_str(), nullptr);
    }
}

bool RunAsAppendingProcessWhenAsked() {
    const std::wstring file = GetEnv(kAppendFileVariable);
    if (file.empty()) {
        return false;
    }
    OwnedHandle go(OpenEventW(SYNCHRONIZE, FALSE, GetEnv(kAppendEventVariable).c_str()));
    if (!go || WaitForSingleObject(go.get(), kStartTimeoutMs) != WAIT_OBJECT_0) {
        ExitProcess(2);
    }
    CreateParentDirectories(file);
    OwnedHandle out(CreateFileW(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    const std::string line = "[Mon Nov 16 20:00:32 2026][" + std::to_string(GetCurrentProcessId()) +
                             "][Pellisk][.\\harness_test][1][INFO]" + kAppendedMessage + "\r\n";
    DWORD written = 0;
    const bool ok = out && WriteFile(out.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    ExitProcess(ok ? 0 : 3);
}

[[maybe_unused]] const bool g_appendingProcess = RunAsAppendingProcessWhenAsked();

std::wstring OwnExe() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return path;
}

// Starts this program in its appending role; it appends once `go` is set.
ChildProcess StartAppendingProcess(const std::wstring& file, const wchar_t* goEvent) {
    SetEnvironmentVariableW(kAppendFileVariable, file.c_str());
    SetEnvironmentVariableW(kAppendEventVariable, goEvent);
    ChildProcess child = StartProcess(OwnExe());
    SetEnvironmentVariableW(kAppendFileVariable, nullptr);
    SetEnvironmentVariableW(kAppendEventVariable, nullptr);
    return child;
}

// Waits until the appending process has written into `file` and checks that the change notification
// (not a first read) found the line.
void ExpectWaitWakesOnAppend(const std::wstring& file) {
    static constexpr wchar_t kGoEvent[] = L"Global\\QoTestHarnessAppendGo";
    OwnedHandle go(CreateEventW(nullptr, TRUE, FALSE, kGoEvent));
    ASSERT_TRUE(go.valid());
    ResetEvent(go.get());
    ChildProcess child = StartAppendingProcess(file, kGoEvent);
    ASSERT_TRUE(child.handle.valid()) << "CreateProcessW error " << child.error;

    // The writer is let go only from inside the wait, after the first read found nothing, so only
    // a change notification can bring the line in.
    int reads = 0;
    const ULONGLONG started = GetTickCount64();
    const auto log = WaitForLog(
        file,
        [&](const LogFile& current) {
            if (++reads == 1) {
                SetEvent(go.get());
            }
            return current.CountPrefix(kAppendedMessage) > 0;
        },
        10000);
    const ULONGLONG waited = GetTickCount64() - started;

    ASSERT_TRUE(log.has_value()) << "no line after " << waited << " ms, " << reads << " reads";
    EXPECT_GE(reads, 2);
    EXPECT_LT(waited, 5000u);
    EXPECT_TRUE(log->malformed().empty()) << log->DescribeMalformed();
    EXPECT_EQ(log->FirstWithPrefix(kAppendedMessage)->pid, child.pid);
    EXPECT_EQ(WaitForExitCode(child.handle.get(), kExitTimeoutMs), std::optional<DWORD>(0));
}

// A copy of test_agent.exe under another name, in a scratch directory (reports are written beside
// the executable).
std::wstring CopyAgent(const std::wstring& scratch, const wchar_t* name) {
    const std::wstring exe = JoinPath(scratch, name);
    return CopyFileTo(TestAgentExe(), exe) ? exe : std::wstring();
}

bool SameText(const std::wstring& a, const std::wstring& b) {
    return _wcsicmp(a.c_str(), b.c_str()) == 0;
}

}  // namespace

// --- The prefix ------------------------------------------------------------------------------------

TEST(Prefix, ExplorerIsRunning) {
    EXPECT_FALSE(FindProcesses(L"explorer.exe").empty());
}

TEST(Prefix, KeldServiceIsKnownAndStopped) {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    ASSERT_NE(manager, nullptr) << GetLastError();
    SC_HANDLE service = OpenServiceW(manager, kKeldServiceName, SERVICE_QUERY_STATUS);
    const DWORD openError = GetLastError();
    SERVICE_STATUS status = {};
    const bool queried = service != nullptr && QueryServiceStatus(service, &status);
    if (service != nullptr) {
        CloseServiceHandle(service);
    }
    CloseServiceHandle(manager);
    ASSERT_NE(service, nullptr) << "OpenServiceW error " << openError;
    ASSERT_TRUE(queried);
    EXPECT_EQ(status.dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
}

TEST(Prefix, KeldServiceStartsAndStops) {
    ASSERT_TRUE(StartKeldService());
    EXPECT_EQ(KeldServiceState(), static_cast<DWORD>(SERVICE_RUNNING));
    ASSERT_TRUE(StopKeldService());
    EXPECT_EQ(KeldServiceState(), static_cast<DWORD>(SERVICE_STOPPED));
}

TEST(Prefix, HoldsTheInstalledClient) {
    EXPECT_TRUE(RegKeyExists(kBrevantInstallKey));
    EXPECT_FALSE(GetRegDword(kBrevantInstallKey, kSetStartEventValue).has_value());
    EXPECT_EQ(GetRegString(kKeldKey, kKeldInstallDirValue), std::optional<std::wstring>(KeldInstallDir()));
    EXPECT_TRUE(DirectoryExists(KeldInstallDir()));
    EXPECT_FALSE(DirectoryExists(WatchDogLogDir()));

    const std::wstring ini = JoinPath(PlatformDir(), L"Session_Agent.ini");
    wchar_t value[MAX_PATH] = {};
    GetPrivateProfileStringW(L"Session_Agent", L"Path", L"", value, MAX_PATH, ini.c_str());
    EXPECT_STREQ(value, L"agent");
    GetPrivateProfileStringW(L"Session_Agent", L"Name", L"", value, MAX_PATH, ini.c_str());
    EXPECT_STREQ(value, L"QoSessionAgent.exe");
    EXPECT_TRUE(FileExists(InstalledAgentExe()));
    EXPECT_TRUE(FileExists(TestAgentExe())) << ToUtf8(TestAgentExe());
    EXPECT_TRUE(FileExists(TestParentExe())) << ToUtf8(TestParentExe());
}

// --- The agent stand-in ------------------------------------------------------------------------------

TEST(Agent, ReportsHowItWasStarted) {
    const std::wstring scratch = MakeScratchDirectory(L"agent-report");
    const std::wstring exe = CopyAgent(scratch, L"QoSessionAgent.exe");
    ASSERT_FALSE(exe.empty());
    AgentStartCounter starts;
    ASSERT_TRUE(starts.valid());

    ChildProcess agent = StartProcess(exe, L"--from-test", scratch);
    ASSERT_TRUE(agent.handle.valid()) << "CreateProcessW error " << agent.error;
    ASSERT_TRUE(starts.WaitForStarts(1, kStartTimeoutMs));

    const AgentReport report = ReadAgentReport(agent.pid, scratch);
    ASSERT_TRUE(report.found);
    DWORD session = 0;
    ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &session));
    EXPECT_EQ(report.Get(kReportPid), std::to_wstring(agent.pid));
    EXPECT_EQ(report.Get(kReportSession), std::to_wstring(session));
    EXPECT_EQ(report.Get(kReportCmdline), L"\"" + exe + L"\" --from-test");
    EXPECT_PRED2(SameText, report.Get(kReportCwd), scratch);
    EXPECT_PRED2(SameText, report.Get(kReportExe), exe);
    EXPECT_FALSE(report.Get(kReportPath).empty());
    EXPECT_EQ(report.Get(kReportProgramW6432), L"C:\\Program Files");
    EXPECT_PRED2(SameText, report.Get(kReportDesktop), L"WinSta0\\Default");
    EXPECT_EQ(report.Env(L"QO_TEST_AGENT_EXE"), std::optional<std::wstring>(GetEnv(L"QO_TEST_AGENT_EXE")));

    EXPECT_TRUE(IsRunning(agent.handle.get()));
    ASSERT_TRUE(MakeAgentExit(agent.pid, 7));
    EXPECT_EQ(WaitForExitCode(agent.handle.get(), kExitTimeoutMs), std::optional<DWORD>(7));
}

TEST(Agent, ExitsWithTheCodeItIsGiven) {
    const std::wstring scratch = MakeScratchDirectory(L"agent-codes");
    const std::wstring exe = CopyAgent(scratch, L"QoSessionAgent.exe");
    ASSERT_FALSE(exe.empty());
    AgentStartCounter starts;

    // No value for the first agent: the default code 1. The last one crashes for real.
    const std::vector<std::optional<DWORD>> given = {std::nullopt, 1, 0xC0000142, 0x40010004,
                                                     kAccessViolationCode};
    std::vector<ChildProcess> agents;
    for (size_t i = 0; i < given.size(); ++i) {
        agents.push_back(StartProcess(exe, std::wstring(), scratch));
        ASSERT_TRUE(agents.back().handle.valid());
    }
    ASSERT_TRUE(starts.WaitForStarts(static_cast<int>(agents.size()), kStartTimeoutMs));

    for (size_t i = 0; i < given.size(); ++i) {
        if (given[i]) {
            ASSERT_TRUE(SetAgentExitCode(agents[i].pid, *given[i]));
        }
        OwnedHandle event(OpenEventW(EVENT_MODIFY_STATE, FALSE,
                                     (kAgentExitEventPrefix + std::to_wstring(agents[i].pid)).c_str()));
        ASSERT_TRUE(event.valid());
        SetEvent(event.get());
    }
    for (size_t i = 0; i < given.size(); ++i) {
        const DWORD expected = given[i].value_or(kAgentDefaultExitCode);
        EXPECT_EQ(WaitForExitCode(agents[i].handle.get(), kExitTimeoutMs), std::optional<DWORD>(expected))
            << "agent " << i << " told 0x" << std::hex << expected;
    }
}

TEST(Agent, BroadcastEndsEveryWaitingAgent) {
    const std::wstring scratch = MakeScratchDirectory(L"agent-broadcast");
    const std::wstring exe = CopyAgent(scratch, L"QoSessionAgent.exe");
    ASSERT_FALSE(exe.empty());
    AgentStartCounter starts;
    ChildProcess first = StartProcess(exe, std::wstring(), scratch);
    ChildProcess second = StartProcess(exe, std::wstring(), scratch);
    ASSERT_TRUE(first.handle.valid() && second.handle.valid());
    ASSERT_TRUE(starts.WaitForStarts(2, kStartTimeoutMs));

    ASSERT_TRUE(MakeAllAgentsExit(0x2A));
    EXPECT_EQ(WaitForExitCode(first.handle.get(), kExitTimeoutMs), std::optional<DWORD>(0x2A));
    EXPECT_EQ(WaitForExitCode(second.handle.get(), kExitTimeoutMs), std::optional<DWORD>(0x2A));
    ResetAllAgentsExit();
}

TEST(Agent, NamedExitCodeEndsItAtOnce) {
    const std::wstring scratch = MakeScratchDirectory(L"agent-named");
    AgentStartCounter starts;
    for (const auto& [name, code] : {std::pair<const wchar_t*, DWORD>{L"QoSessionAgent_exit0.exe", 0},
                                     std::pair<const wchar_t*, DWORD>{L"QoSessionAgent_exitC0000142.exe", 0xC0000142}}) {
        const std::wstring exe = CopyAgent(scratch, name);
        ASSERT_FALSE(exe.empty());
        ChildProcess agent = StartProcess(exe, std::wstring(), scratch);
        ASSERT_TRUE(agent.handle.valid());
        EXPECT_EQ(WaitForExitCode(agent.handle.get(), kExitTimeoutMs), std::optional<DWORD>(code));
        EXPECT_TRUE(starts.WaitForStarts(1, 0)) << "start not signalled";
        EXPECT_TRUE(ReadAgentReport(agent.pid, scratch).found);
    }
}

// --- The other helpers and the cleanup -----------------------------------------------------------

TEST(Helpers, ParentLivesUntilToldToExit) {
    ChildProcess parent = StartTestParent();
    ASSERT_TRUE(parent.handle.valid()) << "CreateProcessW error " << parent.error;
    EXPECT_EQ(WaitForSingleObject(parent.handle.get(), 200), static_cast<DWORD>(WAIT_TIMEOUT));
    ASSERT_TRUE(MakeTestParentExit(parent.pid));
    EXPECT_EQ(WaitForExitCode(parent.handle.get(), kExitTimeoutMs), std::optional<DWORD>(0));
}

TEST(Helpers, CleanupEndsLeftoverProcesses) {
    const std::wstring scratch = MakeScratchDirectory(L"cleanup");
    const std::wstring exe = CopyAgent(scratch, L"QoSessionAgent.exe");
    AgentStartCounter starts;
    ChildProcess agent = StartProcess(exe, std::wstring(), scratch);
    ASSERT_TRUE(agent.handle.valid());
    ASSERT_TRUE(starts.WaitForStarts(1, kStartTimeoutMs));

    EXPECT_GE(TerminateTestProcesses(), 1u);
    EXPECT_FALSE(IsRunning(agent.handle.get()));
    EXPECT_TRUE(FindProcesses(L"QoSessionAgent*.exe").empty());
}

// --- The log reader --------------------------------------------------------------------------------

TEST(LogReader, ParsesRecordsAndKeepsMalformedLines) {
    const std::string content =
        "[Mon Nov 16 20:00:32 2026][2140][Pellisk][.\\utilWinUserSession][100][ERROR]CreateToolhelp32Snapshot Err=5\r\n"
        "[Tue Nov  3 09:05:07 2026][17][Pellisk][.\\QoWatchDog][42][INFO]path [C:\\x] ok ]]\r\n"
        "[Tue Nov 03 09:05:08 2026][17][Pellisk][.\\QoWatchDog][43][INFO]\r\n"
        "[Mon Nov 16 20:00:32 2026][2140][Keld][.\\x][1][INFO]tag\r\n"
        "[Mon Nov 16 20:00:32 2026][21x0][Pellisk][.\\x][1][INFO]pid\r\n"
        "[Mon Nov 16 20:00:32 2026][2140][Pellisk][x][1][INFO]source\r\n"
        "[Mon Nov 16 20:00:32 2026][2140][Pellisk][.\\x][][INFO]line\r\n"
        "[Mon Nov 16 20:00:32 2026][2140][Pellisk][.\\x][1][WARN]level\r\n"
        "[Mon Nov 16 20:00:32][2140][Pellisk][.\\x][1][INFO]time\r\n"
        "a message's second line\r\n"
        "[Mon Nov 16 20:00:32 2026][2140][Pellisk][.\\x][1][INFO]bare line end\n"
        "\r\n"
        "[Mon Nov 16 20:00";
    const LogFile log = LogFile::Parse(content);

    ASSERT_EQ(log.records().size(), 3u);
    const LogRecord& first = log.records()[0];
    EXPECT_EQ(first.time, "Mon Nov 16 20:00:32 2026");
    EXPECT_EQ(first.pid, 2140u);
    EXPECT_EQ(first.tag, "Pellisk");
    EXPECT_EQ(first.source, ".\\utilWinUserSession");
    EXPECT_EQ(first.line, 100u);
    EXPECT_TRUE(first.IsError());
    EXPECT_EQ(first.message, "CreateToolhelp32Snapshot Err=5");
    EXPECT_EQ(first.fileLine, 1u);
    EXPECT_EQ(log.records()[1].message, "path [C:\\x] ok ]]");
    EXPECT_TRUE(log.records()[1].IsInfo());
    EXPECT_EQ(log.records()[2].message, "");

    ASSERT_EQ(log.malformed().size(), 9u) << log.DescribeMalformed();
    EXPECT_EQ(log.malformed()[0].fileLine, 4u);
    EXPECT_EQ(log.malformed()[0].reason, "tag is not Pellisk");
    EXPECT_EQ(log.malformed()[6].text, "a message's second line");
    EXPECT_EQ(log.malformed()[7].reason, "line end is not CR LF");
    EXPECT_EQ(log.unfinishedTail(), "[Mon Nov 16 20:00");

    EXPECT_EQ(log.CountPrefix("path ["), 1u);
    EXPECT_EQ(log.CountContaining("Err="), 1u);
    EXPECT_EQ(log.IndexOfPrefix("path"), 1u);
    EXPECT_EQ(log.IndexOfPrefix("Create", 1), LogFile::npos);
    EXPECT_TRUE(log.InOrder({"Create", "path"}));
    EXPECT_FALSE(log.InOrder({"path", "Create"}));

    const LogFile withBom = LogFile::Parse("\xEF\xBB\xBF" + content.substr(0, content.find('\n') + 1));
    EXPECT_TRUE(withBom.hasByteOrderMark());
    EXPECT_TRUE(withBom.records().empty());
    EXPECT_FALSE(LogFile::Read(L"C:\\no\\such\\QoWatchDog.log").exists());
}

TEST(LogReader, WaitWakesWhenAnotherProcessAppends) {
    const std::wstring scratch = MakeScratchDirectory(L"log-append");
    const std::wstring file = JoinPath(scratch, L"QoWatchDog.log");
    OwnedHandle created(CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(created.valid());
    created.reset();
    ExpectWaitWakesOnAppend(file);
}

TEST(LogReader, WaitFollowsADirectoryMadeLater) {
    const std::wstring scratch = MakeScratchDirectory(L"log-later");
    ExpectWaitWakesOnAppend(JoinPath(scratch, L"debug\\deeper\\QoWatchDog.log"));
}

TEST(LogReader, WaitGivesUpAtItsTimeout) {
    const std::wstring scratch = MakeScratchDirectory(L"log-timeout");
    const ULONGLONG started = GetTickCount64();
    EXPECT_FALSE(WaitForLogLine(JoinPath(scratch, L"QoWatchDog.log"), MessageStartsWith("never"), 300));
    const ULONGLONG waited = GetTickCount64() - started;
    EXPECT_GE(waited, 300u);
    EXPECT_LT(waited, 3000u);
}
