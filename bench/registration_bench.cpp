// bench_registration: how the cost of one registration pass grows with the number of sessions.
//
// One pass is CWatchDog::RegisterSessions with N records (session ids 0..N-1, all with Wine's
// explorer.exe as their shell) until all N agents have counted their start. The agent is the
// stand-in named QoSessionAgent_exit0.exe, which exits with 0 right after counting its start, so
// each session is switched off at once and the machine never holds N agents.
//
// The singleton and SeAgntMaxNum live once per process, so every pass runs in a process of its
// own: this program starts itself with --one N for each pass and collects the results. The sizes
// are 1, 62 (one full monitor: the reference), 620 and the largest N up to --max-sessions whose
// pass fits in what is left of --budget-seconds (the whole program's time), judged from the cost
// per session at 620 and its growth since 62.
//
//   bench_registration [--max-sessions 3000] [--budget-seconds 240] [--repeat 3]
//   bench_registration --one N --result <file> [--timeout-seconds S]   (one pass; used internally)
#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <map>
#include <optional>
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

const DWORD REFERENCE_SESSIONS = 62;
const DWORD MIDDLE_SESSIONS = 620;
const DWORD DEFAULT_MAX_SESSIONS = 3000;
const double DEFAULT_BUDGET_SECONDS = 240;
const int DEFAULT_REPEAT = 3;
const DWORD MONITOR_END_TIMEOUT_MS = 30000;
const DWORD AGENTS_GONE_TIMEOUT_MS = 30000;
// What a pass process's start, shutdown and log check take on top of its starts, and the most
// they may take.
const double PASS_OVERHEAD_SECONDS = 5;
const double PASS_SHUTDOWN_SECONDS = 30;
// Passes of the same size differ by some 10 % from one to the next on a shared machine.
const double PREDICTION_MARGIN = 1.15;
// Starts come every few milliseconds while a pass runs; this long without one is a stall.
const DWORD STALL_MS = 3000;
// The log line of a launch that failed.
const char kLaunchFailed[] = "Create Session Agent failed";
// How long the starts of a pass of a fixed size may take.
double FixedPassTimeoutSeconds(DWORD sessions) { return 60.0 + 0.5 * sessions; }

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

int RunOnePass(DWORD sessions, const std::wstring& resultPath, double timeoutSeconds) {
    const DWORD explorer = qotest::WineExplorerPid();
    if (explorer == 0) {
        Fail("Wine's explorer.exe is not running");
    }
    if (!qotest::FileExists(qobench::ExitingAgentExe())) {
        Fail("the exiting agent is not installed");
    }
    // The log goes to a file, as the supervisor's does: opening and appending each line is part
    // of what a start costs.
    const std::wstring logDir =
        qotest::MakeScratchDirectory(L"bench-registration-" + std::to_wstring(sessions));
    if (logDir.empty()) {
        Fail("cannot make the scratch directory");
    }
    const std::wstring logPath = qotest::JoinPath(logDir, L"QoWatchDog.log");
    GetLogger().set_file(logPath.c_str());

    std::vector<SessionRecord> records;
    records.reserve(sessions);
    for (DWORD id = 0; id < sessions; ++id) {
        records.push_back(qotest::SessionRecordFor(id, explorer));
    }

    qobench::StartCounter started;
    CWatchDog* watchDog = CWatchDog::GetInstance();
    if (watchDog == nullptr ||
        !watchDog->Init(qobench::ExitingAgentExe().c_str(), qotest::AgentDir().c_str())) {
        Fail("CWatchDog::Init failed");
    }

    const double begin = qobench::NowMs();
    watchDog->RegisterSessions(records);
    const double registered = qobench::NowMs();
    // A launch that fails drops its session until it is registered again, so its start never
    // comes: when the starts stall, the log says whether failed launches account for the rest.
    const double deadline = begin + timeoutSeconds * 1000;
    DWORD counted = 0;
    size_t failedLaunches = 0;
    double lastStart = registered;
    while (counted + failedLaunches < sessions) {
        const double now = qobench::NowMs();
        if (now >= deadline) {
            break;
        }
        if (started.TakeOne(static_cast<DWORD>(std::min<double>(STALL_MS, deadline - now)))) {
            ++counted;
            lastStart = qobench::NowMs();
        } else {
            failedLaunches = qotest::LogFile::Read(logPath).CountContaining(kLaunchFailed);
        }
    }
    const size_t monitors = watchDog->GetLiveMonitorCount();

    // Close as the main loop does: every monitor ends once its (already ended) agents are seen.
    if (!qotest::CloseAndWaitForMonitors(watchDog, false, MONITOR_END_TIMEOUT_MS)) {
        Fail("a monitor thread did not end after the close event");
    }
    CWatchDog::ReleaseInstance();
    WaitForAllMonitorThreads();
    if (!qobench::WaitNoAgentLeft(AGENTS_GONE_TIMEOUT_MS)) {
        Fail("agents are still running after the pass");
    }
    GetLogger().set_file(nullptr);

    Values values;
    values["sessions"] = std::to_string(sessions);
    values["started"] = std::to_string(counted);
    values["failed"] = std::to_string(failedLaunches);
    values["monitors"] = std::to_string(monitors);
    values["register_ms"] = Format("%.3f", registered - begin);
    values["total_ms"] = Format("%.3f", lastStart - begin);
    const qotest::LogFile log = qotest::LogFile::Read(logPath);
    const size_t created = log.CountContaining("Create Session Agent successfully");
    // The only errors allowed are the two lines of each failed launch.
    const std::vector<qotest::LogRecord> errors = log.Where([](const qotest::LogRecord& record) {
        return record.IsError() && !record.MessageStartsWith("CreateProcessAsUser GetLastError=") &&
               !record.MessageContains(kLaunchFailed);
    });
    const qotest::LogRecord* launchError = log.FirstWithPrefix("CreateProcessAsUser GetLastError=");
    if (launchError != nullptr) {
        values["failure"] = launchError->message;
    }
    if (counted + failedLaunches != sessions) {
        values["error"] = Format("%lu of %lu agents started within %.0f s, %lu launches failed", counted,
                                 sessions, timeoutSeconds, static_cast<unsigned long>(failedLaunches));
    } else if (created != counted) {
        values["error"] = Format("the log shows %lu agent starts, %lu were counted",
                                 static_cast<unsigned long>(created), counted);
    } else if (!errors.empty()) {
        values["error"] = "the watchdog logged an error: " + errors.front().message;
    } else if (!log.malformed().empty()) {
        values["error"] = "malformed log lines";
    }
    WriteValues(resultPath, values);
    return values.count("error") != 0 ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------
// The driver

struct Pass {
    DWORD sessions = 0;
    double totalMs = 0;     // RegisterSessions called -> the last agent counted its start
    double registerMs = 0;  // how long the RegisterSessions call itself took
    size_t monitors = 0;
    unsigned long failedLaunches = 0;
    std::string failure;  // the log line of the first failed launch
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

// Runs one pass in a new process of this program; fails the program when the pass fails or takes
// longer than timeoutSeconds.
Pass RunPassProcess(DWORD sessions, double timeoutSeconds, const std::wstring& scratch) {
    const std::wstring resultPath = qotest::JoinPath(scratch, L"pass-" + std::to_wstring(sessions) + L".txt");
    DeleteFileW(resultPath.c_str());
    const std::wstring self = SelfPath();
    std::wstring commandLine = L"\"" + self + L"\" --one " + std::to_wstring(sessions) + L" --result \"" +
                               resultPath + L"\" --timeout-seconds " +
                               std::to_wstring(static_cast<int>(std::ceil(timeoutSeconds)));

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
    // The pass's own bound covers the starts after RegisterSessions has returned; this one the whole
    // pass, the call itself and the shutdown included.
    const std::optional<DWORD> code = qotest::WaitForExitCode(
        process.get(), static_cast<DWORD>((timeoutSeconds + PASS_SHUTDOWN_SECONDS) * 1000));
    if (!code) {
        TerminateProcess(process.get(), 1);
        Fail(Format("the pass for %lu sessions did not end within %.0f s", sessions,
                    timeoutSeconds + PASS_SHUTDOWN_SECONDS));
    }
    // The agents' report files (one per start) are not needed.
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
    pass.failedLaunches = static_cast<unsigned long>(NumberOf(values, "failed"));
    const auto failure = values.find("failure");
    if (failure != values.end()) {
        pass.failure = failure->second;
    }
    Say("  pass: %5lu sessions, %2lu monitors: all started after %9.1f ms (%6.2f ms/session)", sessions,
        static_cast<unsigned long>(pass.monitors), pass.totalMs, pass.PerSession());
    if (pass.failedLaunches != 0) {
        Say("        %lu launch(es) failed, their sessions dropped until registered again (\"%s\")",
            pass.failedLaunches, pass.failure.c_str());
    }
    return pass;
}

// Of `repeat` passes of the same size, the one with the median cost.
Pass MedianPass(DWORD sessions, int repeat, const std::wstring& scratch) {
    std::vector<Pass> passes;
    for (int i = 0; i < repeat; ++i) {
        passes.push_back(RunPassProcess(sessions, FixedPassTimeoutSeconds(sessions), scratch));
    }
    std::sort(passes.begin(), passes.end(),
              [](const Pass& a, const Pass& b) { return a.totalMs < b.totalMs; });
    return passes[passes.size() / 2];
}

// What a pass of `sessions` should take, in seconds, assuming the cost per session keeps growing
// per tenfold as it grew from 62 to 620, with a margin for a machine whose speed varies.
double PredictSeconds(DWORD sessions, const Pass& reference, const Pass& middle) {
    const double growth = std::max(1.0, middle.PerSession() / reference.PerSession());
    const double tenfolds = std::log10(static_cast<double>(sessions) / MIDDLE_SESSIONS);
    return PREDICTION_MARGIN * sessions * middle.PerSession() * std::pow(growth, tenfolds) / 1000.0;
}

// The largest size above 620 and up to maxSessions whose pass should end within `seconds`: first
// maxSessions itself, then whole monitors (multiples of 62) below it; 0 when none fits.
DWORD LargestAffordable(const Pass& reference, const Pass& middle, DWORD maxSessions, double seconds) {
    if (maxSessions > MIDDLE_SESSIONS && PredictSeconds(maxSessions, reference, middle) <= seconds) {
        return maxSessions;
    }
    for (DWORD sessions = (maxSessions - 1) / REFERENCE_SESSIONS * REFERENCE_SESSIONS;
         sessions > MIDDLE_SESSIONS; sessions -= REFERENCE_SESSIONS) {
        if (PredictSeconds(sessions, reference, middle) <= seconds) {
            return sessions;
        }
    }
    return 0;
}

int RunDriver(DWORD maxSessions, double budgetSeconds, int repeat) {
    const double begin = qobench::NowMs();
    qobench::ResetMachine();
    if (!qobench::InstallExitingAgent()) {
        Fail("cannot install QoSessionAgent_exit0.exe");
    }
    const std::wstring scratch = qotest::MakeScratchDirectory(L"bench-registration");
    if (scratch.empty()) {
        Fail("cannot make the scratch directory");
    }

    Say("Registration cost growth (CWatchDog::RegisterSessions with N sessions until all N agents started;");
    Say("each pass in a fresh process; agents exit with 0 at once)");
    std::vector<Pass> passes;
    passes.push_back(MedianPass(1, repeat, scratch));
    const Pass reference = MedianPass(REFERENCE_SESSIONS, repeat, scratch);
    passes.push_back(reference);
    const Pass middle = RunPassProcess(MIDDLE_SESSIONS, FixedPassTimeoutSeconds(MIDDLE_SESSIONS), scratch);
    passes.push_back(middle);

    // The largest pass gets what is left of the budget.
    const double left = budgetSeconds - (qobench::NowMs() - begin) / 1000.0 - PASS_OVERHEAD_SECONDS;
    DWORD largest = 0;
    if (maxSessions > MIDDLE_SESSIONS) {
        largest = LargestAffordable(reference, middle, maxSessions, left);
        const double fullSeconds = PredictSeconds(maxSessions, reference, middle);
        if (largest != maxSessions) {
            Say("  N = %lu would take about %.0f s here; %.0f s of the budget are left", maxSessions,
                fullSeconds, left > 0 ? left : 0.0);
        }
        if (largest != 0) {
            const double predicted = PredictSeconds(largest, reference, middle);
            passes.push_back(RunPassProcess(largest, 2 * predicted + 30, scratch));
        } else {
            Say("  no N above %lu fits the budget", MIDDLE_SESSIONS);
        }
    }

    Say("  (N = 1 and N = 62: the median of %d passes)", repeat);
    if (maxSessions > MIDDLE_SESSIONS) {
        Say("  (largest N: %lu of up to %lu, as the budget of %.0f s for this benchmark allowed)",
            largest != 0 ? largest : MIDDLE_SESSIONS, maxSessions, budgetSeconds);
    }
    Say("       N  monitors  failed launches  RegisterSessions ms  all started ms  ms/session  RATIO vs "
        "N=62");
    for (const Pass& pass : passes) {
        Say("  %6lu  %8lu  %15lu  %19.1f  %14.1f  %10.2f  %s", pass.sessions,
            static_cast<unsigned long>(pass.monitors), pass.failedLaunches, pass.registerMs, pass.totalMs,
            pass.PerSession(), qobench::Ratio(pass.PerSession(), reference.PerSession()).c_str());
    }
    qobench::ResetMachine();
    return 0;
}

bool ArgIs(const wchar_t* arg, const wchar_t* name) { return std::wcscmp(arg, name) == 0; }

[[noreturn]] void Usage() {
    std::fputs(
        "usage: bench_registration [--max-sessions N] [--budget-seconds S] [--repeat R]\n"
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
        return RunOnePass(one, result, timeoutSeconds > 0 ? timeoutSeconds : FixedPassTimeoutSeconds(one));
    }
    // Session ids stop at 3037 (49 monitors of 62).
    if (maxSessions < 1 || maxSessions > 3038 || repeat < 1 || budgetSeconds <= 0) {
        Usage();
    }
    return RunDriver(maxSessions, budgetSeconds, repeat);
}
