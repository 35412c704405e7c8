// bench_registration: how the cost of one registration pass grows with the number of sessions.
//
// One pass is CWatchDog::RegisterSessions with N records (session ids 0..N-1, all with Wine's
// explorer.exe as their shell) until all N agents have counted their start. The agent is the
// stand-in named QoSessionAgent_exit0.exe, which exits with 0 right after counting its start, so
// each session is switched off at once and the machine never holds N agents.
//
// The singleton and SeAgntMaxNum live once per process, so every pass runs in a process of its
// own: this program starts itself with --one N for each pass and collects the results. The sizes
// are 1, 62 (one full monitor: the reference), 620 and the largest N up to --max-sessions that the
// time budget allows, judged from the growth seen up to 620.
//
//   bench_registration [--max-sessions 3000] [--budget-seconds 120] [--repeat 3]
//   bench_registration --one N --result <file> [--timeout-seconds S]   (one pass; used internally)
#include <windows.h>

#include <cmath>
#include <cstdio>
#include <cwchar>
#include <map>
#include <string>
#include <vector>

#include "BenchSupport.h"
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

const DWORD REFERENCE_SESSIONS = 62;
const DWORD MIDDLE_SESSIONS = 620;
const DWORD DEFAULT_MAX_SESSIONS = 3000;
const double DEFAULT_BUDGET_SECONDS = 120;
const int DEFAULT_REPEAT = 3;
const DWORD MONITOR_END_TIMEOUT_MS = 30000;
const DWORD AGENTS_GONE_TIMEOUT_MS = 30000;
// Time a pass may take, beyond which it counts as more than the machine bears.
double PassTimeoutSeconds(DWORD sessions) { return 60.0 + 0.5 * sessions; }

// ---------------------------------------------------------------------------------------------
// Result files: one key=value a line, written by a pass and read by the driver.

using Values = std::map<std::string, std::string>;

void WriteValues(const std::wstring& path, const Values& values) {
    std::string text;
    for (const auto& entry : values) {
        text += entry.first + "=" + entry.second + "\n";
    }
    qotest::OwnedHandle file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || !WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
        written != text.size()) {
        Fail("cannot write the result file " + qotest::ToUtf8(path));
    }
}

Values ReadValues(const std::wstring& path) {
    Values values;
    qotest::OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        return values;
    }
    std::string text;
    char buffer[4096];
    DWORD read = 0;
    while (ReadFile(file.get(), buffer, sizeof(buffer), &read, nullptr) && read > 0) {
        text.append(buffer, read);
    }
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = text.substr(start, end - start);
        const size_t separator = line.find('=');
        if (separator != std::string::npos) {
            values[line.substr(0, separator)] = line.substr(separator + 1);
        }
        start = end + 1;
    }
    return values;
}

double NumberOf(const Values& values, const char* key) {
    const auto found = values.find(key);
    return found == values.end() ? -1.0 : std::atof(found->second.c_str());
}

// ---------------------------------------------------------------------------------------------
// One pass, in a process of its own

SessionRecord Record(DWORD sessionId, DWORD explorerPid) {
    SessionRecord record = {};
    record.dwSessionId = sessionId;
    record.dwExplorerPid = explorerPid;
    return record;
}

int RunOnePass(DWORD sessions, const std::wstring& resultPath, double timeoutSeconds) {
    const DWORD explorer = qobench::ExplorerPid();
    if (explorer == 0) {
        Fail("Wine's explorer.exe is not running");
    }
    if (!qotest::FileExists(qobench::ExitingAgentExe())) {
        Fail("the exiting agent is not installed");
    }
    // The log goes to a file, as the supervisor's does: opening and appending each line is part
    // of what a start costs.
    const std::wstring logDir = qotest::MakeScratchDirectory(L"bench-registration-" + std::to_wstring(sessions));
    if (logDir.empty()) {
        Fail("cannot make the scratch directory");
    }
    const std::wstring logPath = qotest::JoinPath(logDir, L"QoWatchDog.log");
    GetLogger().set_file(logPath.c_str());

    std::vector<SessionRecord> records;
    records.reserve(sessions);
    for (DWORD id = 0; id < sessions; ++id) {
        records.push_back(Record(id, explorer));
    }

    qobench::StartCounter started;
    if (!started.valid()) {
        Fail("cannot create the start semaphore");
    }
    CWatchDog* watchDog = CWatchDog::GetInstance();
    if (watchDog == nullptr || !watchDog->Init(qobench::ExitingAgentExe().c_str(), qotest::AgentDir().c_str())) {
        Fail("CWatchDog::Init failed");
    }

    const double begin = qobench::NowMs();
    watchDog->RegisterSessions(records);
    const double registered = qobench::NowMs();
    const int counted = started.Take(static_cast<int>(sessions), static_cast<DWORD>(timeoutSeconds * 1000));
    const double allStarted = qobench::NowMs();
    const size_t monitors = watchDog->GetLiveMonitorCount();

    // Close as the main loop does: every monitor ends once its (already ended) agents are seen.
    watchDog->SetCloseEvent(true);
    const std::vector<HANDLE> threads = g_vecMonitorThreads;
    for (HANDLE thread : threads) {
        if (WaitForSingleObject(thread, MONITOR_END_TIMEOUT_MS) != WAIT_OBJECT_0) {
            Fail("a monitor thread did not end after the close event");
        }
    }
    CWatchDog::ReleaseInstance();
    WaitForAllMonitorThreads();
    const ULONGLONG deadline = GetTickCount64() + AGENTS_GONE_TIMEOUT_MS;
    while (!qotest::FindProcesses(L"QoSessionAgent*.exe").empty()) {
        if (GetTickCount64() >= deadline) {
            Fail("agents are still running after the pass");
        }
        Sleep(50);
    }
    GetLogger().set_file(nullptr);

    Values values;
    values["sessions"] = std::to_string(sessions);
    values["started"] = std::to_string(counted);
    values["monitors"] = std::to_string(monitors);
    values["register_ms"] = Format("%.3f", registered - begin);
    values["total_ms"] = Format("%.3f", allStarted - begin);
    if (counted != static_cast<int>(sessions)) {
        values["error"] = Format("only %d of %lu agents started within %.0f s", counted, sessions, timeoutSeconds);
    } else {
        const qotest::LogFile log = qotest::LogFile::Read(logPath);
        const size_t created = log.CountContaining("Create Session Agent successfully");
        const std::vector<qotest::LogRecord> errors =
            log.Where([](const qotest::LogRecord& record) { return record.IsError(); });
        if (created != sessions) {
            values["error"] = Format("the log shows %lu agent starts for %lu sessions",
                                     static_cast<unsigned long>(created), sessions);
        } else if (!errors.empty()) {
            values["error"] = "the watchdog logged an error: " + errors.front().message;
        } else if (!log.malformed().empty()) {
            values["error"] = "malformed log lines";
        }
    }
    WriteValues(resultPath, values);
    return values.count("error") != 0 ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------
// The driver

struct Pass {
    DWORD sessions = 0;
    double totalMs = 0;
    double registerMs = 0;
    size_t monitors = 0;
    double PerSession() const { return totalMs / sessions; }
};

std::wstring SelfPath() {
    wchar_t path[MAX_PATH + 1] = {};
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) {
        Fail("GetModuleFileNameW failed");
    }
    return path;
}

// Runs one pass in a new process of this program; fails the program when the pass fails.
Pass RunPassProcess(DWORD sessions, const std::wstring& scratch) {
    const std::wstring resultPath = qotest::JoinPath(scratch, L"pass-" + std::to_wstring(sessions) + L".txt");
    DeleteFileW(resultPath.c_str());
    const double timeoutSeconds = PassTimeoutSeconds(sessions);
    const std::wstring self = SelfPath();
    std::wstring commandLine = L"\"" + self + L"\" --one " + std::to_wstring(sessions) + L" --result \"" +
                               resultPath + L"\" --timeout-seconds " + std::to_wstring(static_cast<int>(timeoutSeconds));

    // The pass writes to this program's output, so a failure it reports is seen.
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION info = {};
    if (!CreateProcessW(self.c_str(), &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &info)) {
        const DWORD error = GetLastError();
        Fail(Format("cannot start the pass for %lu sessions, error=%lu", sessions, error));
    }
    CloseHandle(info.hThread);
    qotest::OwnedHandle process(info.hProcess);
    const std::optional<DWORD> code =
        qotest::WaitForExitCode(process.get(), static_cast<DWORD>((timeoutSeconds + 60) * 1000));
    if (!code) {
        TerminateProcess(process.get(), 1);
        Fail(Format("the pass for %lu sessions did not end in time", sessions));
    }
    // 3000 report files of the agents are not needed.
    qotest::RemoveAgentReports();

    const Values values = ReadValues(resultPath);
    const auto error = values.find("error");
    if (error != values.end()) {
        Fail(Format("the pass for %lu sessions: %s", sessions, error->second.c_str()));
    }
    if (*code != 0 || values.empty()) {
        Fail(Format("the pass for %lu sessions ended with code %lu", sessions, *code));
    }
    Pass pass;
    pass.sessions = sessions;
    pass.totalMs = NumberOf(values, "total_ms");
    pass.registerMs = NumberOf(values, "register_ms");
    pass.monitors = static_cast<size_t>(NumberOf(values, "monitors"));
    Say("  pass: %5lu sessions, %3lu monitors, all started after %9.1f ms (%6.2f ms/session)", sessions,
        static_cast<unsigned long>(pass.monitors), pass.totalMs, pass.PerSession());
    return pass;
}

// Of `repeat` passes of the same size, the one with the median cost.
Pass MedianPass(DWORD sessions, int repeat, const std::wstring& scratch) {
    std::vector<Pass> passes;
    for (int i = 0; i < repeat; ++i) {
        passes.push_back(RunPassProcess(sessions, scratch));
    }
    std::sort(passes.begin(), passes.end(), [](const Pass& a, const Pass& b) { return a.totalMs < b.totalMs; });
    return passes[passes.size() / 2];
}

// The largest size up to maxSessions whose pass should fit the budget, assuming the cost per
// session keeps growing per tenfold as it grew from 62 to 620; 0 when none above 620 does.
DWORD LargestAffordable(const Pass& reference, const Pass& middle, DWORD maxSessions, double budgetSeconds) {
    const double growth = std::max(1.0, middle.PerSession() / reference.PerSession());
    for (DWORD sessions = maxSessions; sessions > MIDDLE_SESSIONS;
         sessions -= std::min<DWORD>(sessions - MIDDLE_SESSIONS, REFERENCE_SESSIONS)) {
        const double tenfolds = std::log10(static_cast<double>(sessions) / MIDDLE_SESSIONS);
        const double predictedMs = sessions * middle.PerSession() * std::pow(growth, tenfolds);
        if (predictedMs <= budgetSeconds * 1000) {
            return sessions;
        }
    }
    return 0;
}

int RunDriver(DWORD maxSessions, double budgetSeconds, int repeat) {
    qobench::ResetMachine();
    if (!qobench::InstallExitingAgent()) {
        Fail("cannot install QoSessionAgent_exit0.exe");
    }
    if (qobench::ExplorerPid() == 0) {
        Fail("Wine's explorer.exe is not running");
    }
    const std::wstring scratch = qotest::MakeScratchDirectory(L"bench-registration");
    if (scratch.empty()) {
        Fail("cannot make the scratch directory");
    }

    Say("Registration cost growth (CWatchDog::RegisterSessions, N sessions, each pass in a fresh process)");
    std::vector<Pass> passes;
    passes.push_back(MedianPass(1, repeat, scratch));
    const Pass reference = MedianPass(REFERENCE_SESSIONS, repeat, scratch);
    passes.push_back(reference);
    const Pass middle = RunPassProcess(MIDDLE_SESSIONS, scratch);
    passes.push_back(middle);
    const DWORD largest = LargestAffordable(reference, middle, maxSessions, budgetSeconds);
    if (largest != 0) {
        passes.push_back(RunPassProcess(largest, scratch));
    } else {
        Say("  no size above %lu fits the budget of %.0f s on this machine", MIDDLE_SESSIONS, budgetSeconds);
    }
    if (largest != maxSessions) {
        Say("  largest size run: %lu (asked up to %lu, budget %.0f s)", largest != 0 ? largest : MIDDLE_SESSIONS,
            maxSessions, budgetSeconds);
    }

    Say("  (N = 1 and N = 62: median of %d passes)", repeat);
    Say("       N  monitors  RegisterSessions ms  all started ms   ms/session  RATIO ms/session vs N=62");
    for (const Pass& pass : passes) {
        Say("  %6lu  %8lu  %19.1f  %14.1f  %11.2f  %s", pass.sessions, static_cast<unsigned long>(pass.monitors),
            pass.registerMs, pass.totalMs, pass.PerSession(),
            qobench::Ratio(pass.PerSession(), reference.PerSession()).c_str());
    }
    qobench::ResetMachine();
    return 0;
}

bool ArgIs(const wchar_t* arg, const wchar_t* name) { return std::wcscmp(arg, name) == 0; }

[[noreturn]] void Usage() {
    std::fputs("usage: bench_registration [--max-sessions N] [--budget-seconds S] [--repeat R]\n"
               "       bench_registration --one N --result FILE [--timeout-seconds S]\n",
               stderr);
    std::exit(2);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    DWORD one = 0;
    std::wstring result;
    double timeoutSeconds = 0;
    DWORD maxSessions = DEFAULT_MAX_SESSIONS;
    double budgetSeconds = DEFAULT_BUDGET_SECONDS;
    int repeat = DEFAULT_REPEAT;
    for (int i = 1; i < argc; ++i) {
        if (i + 1 >= argc) {
            Usage();
        }
        const wchar_t* value = argv[++i];
        if (ArgIs(argv[i - 1], L"--one")) {
            one = static_cast<DWORD>(_wtoi(value));
        } else if (ArgIs(argv[i - 1], L"--result")) {
            result = value;
        } else if (ArgIs(argv[i - 1], L"--timeout-seconds")) {
            timeoutSeconds = _wtof(value);
        } else if (ArgIs(argv[i - 1], L"--max-sessions")) {
            maxSessions = static_cast<DWORD>(_wtoi(value));
        } else if (ArgIs(argv[i - 1], L"--budget-seconds")) {
            budgetSeconds = _wtof(value);
        } else if (ArgIs(argv[i - 1], L"--repeat")) {
            repeat = _wtoi(value);
        } else {
            Usage();
        }
    }
    if (one != 0) {
        if (result.empty()) {
            Usage();
        }
        return RunOnePass(one, result, timeoutSeconds > 0 ? timeoutSeconds : PassTimeoutSeconds(one));
    }
    // Session ids stop at 3037 (49 monitors of 62).
    if (maxSessions < 1 || maxSessions > 3038 || repeat < 1 || budgetSeconds <= 0) {
        Usage();
    }
    return RunDriver(maxSessions, budgetSeconds, repeat);
}
