#include "BenchSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <numeric>
#include <optional>

#include "LogReader.h"

namespace qobench {

namespace {

// Pause before each timed step, so what the previous step set going (the monitor's log lines and
// wait-list refresh, an agent settling into its wait) is over before the clock starts.
const DWORD SETTLE_MS = 30;
// Bounds of the waits of one round; a round is some tens of milliseconds.
const DWORD AGENT_EXIT_TIMEOUT_MS = 10000;
const DWORD AGENT_START_TIMEOUT_MS = 15000;
const DWORD SUPERVISOR_START_TIMEOUT_MS = 30000;
const DWORD SUPERVISOR_EXIT_TIMEOUT_MS = 30000;
const DWORD FIND_AGENT_TIMEOUT_MS = 5000;

const wchar_t kExitingAgentName[] = L"QoSessionAgent_exit0.exe";
const wchar_t kInstalledAgentName[] = L"QoSessionAgent.exe";
const wchar_t kAnyAgentPattern[] = L"QoSessionAgent*.exe";

std::string VFormat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int size = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (size <= 0) {
        return std::string();
    }
    std::string text(static_cast<size_t>(size) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(size));
    return text;
}

// Starts the agent that exits at once and waits for its end; the time of both, in milliseconds.
double BareCreateAndWait(const std::wstring& exe, const std::wstring& directory) {
    std::wstring commandLine = L"\"" + exe + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info = {};
    const double start = NowMs();
    if (!CreateProcessW(exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, directory.c_str(),
                        &startup, &info)) {
        const DWORD error = GetLastError();
        Fail(Format("CreateProcessW(%s) error=%lu", qotest::ToUtf8(exe).c_str(), error));
    }
    const DWORD waited = WaitForSingleObject(info.hProcess, AGENT_EXIT_TIMEOUT_MS);
    const double end = NowMs();
    DWORD code = 0;
    GetExitCodeProcess(info.hProcess, &code);
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    if (waited != WAIT_OBJECT_0) {
        Fail("the exiting agent did not end within its time");
    }
    if (code != 0) {
        Fail(Format("the exiting agent ended with code %lu instead of 0", code));
    }
    return end - start;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Clock, samples and text

double NowMs() {
    static const LONGLONG frequency = [] {
        LARGE_INTEGER value = {};
        QueryPerformanceFrequency(&value);
        return value.QuadPart;
    }();
    LARGE_INTEGER now = {};
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * 1000.0 / static_cast<double>(frequency);
}

Summary Summarize(std::vector<double> samples) {
    Summary summary;
    if (samples.empty()) {
        return summary;
    }
    std::sort(samples.begin(), samples.end());
    const size_t n = samples.size();
    summary.count = n;
    summary.min = samples.front();
    summary.max = samples.back();
    summary.median = n % 2 == 1 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2.0;
    summary.mean = std::accumulate(samples.begin(), samples.end(), 0.0) / static_cast<double>(n);
    return summary;
}

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = VFormat(format, args);
    va_end(args);
    return text;
}

void Say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = VFormat(format, args);
    va_end(args);
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Fail(const std::string& what) {
    std::fprintf(stdout, "FAILED: %s\n", what.c_str());
    std::fflush(stdout);
    qotest::TerminateTestProcesses();
    std::exit(1);
}

void FailOnErrorLine(const qotest::LogFile& log, const std::string& writer) {
    const qotest::LogRecord* error =
        log.First([](const qotest::LogRecord& record) { return record.IsError(); });
    if (error != nullptr) {
        Fail(writer + " logged an error: " + error->message);
    }
}

std::string Ratio(double a, double b) {
    if (b <= 0) {
        return "n/a";
    }
    return Format("%.2f", a / b);
}

bool ParseOptions(int argc, wchar_t** argv, std::initializer_list<IntOption> options) {
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 >= argc) {
            return false;
        }
        bool known = false;
        for (const IntOption& option : options) {
            if (std::wcscmp(argv[i], option.name) == 0) {
                wchar_t* end = nullptr;
                const long value = std::wcstol(argv[i + 1], &end, 10);
                if (end == argv[i + 1] || *end != L'\0' || value < option.min || value > 1000000) {
                    return false;
                }
                *option.value = static_cast<int>(value);
                known = true;
            }
        }
        if (!known) {
            return false;
        }
    }
    return true;
}

bool RunningUnderWine() { return PlatformName() != "Windows"; }

std::string PlatformName() {
    using GetVersionFn = const char*(__cdecl*)();
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    const FARPROC proc = ntdll != nullptr ? GetProcAddress(ntdll, "wine_get_version") : nullptr;
    if (proc == nullptr) {
        return "Windows";
    }
    GetVersionFn getVersion = nullptr;
    static_assert(sizeof(getVersion) == sizeof(proc), "function pointers of one size");
    std::memcpy(&getVersion, &proc, sizeof(getVersion));
    return std::string("Wine ") + getVersion();
}

// ---------------------------------------------------------------------------------------------
// The installed client

std::wstring ExitingAgentExe() { return qotest::JoinPath(qotest::AgentDir(), kExitingAgentName); }

bool InstallExitingAgent() {
    const std::wstring source = qotest::TestAgentExe();
    return !source.empty() && qotest::CopyFileTo(source, ExitingAgentExe());
}

bool WaitNoAgentLeft(DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    while (!qotest::FindProcesses(kAnyAgentPattern).empty()) {
        if (GetTickCount64() >= deadline) {
            return false;
        }
        Sleep(20);
    }
    return true;
}

DWORD ResetMachine() {
    qotest::ResetTestState();
    qotest::DeleteRegValue(qotest::kBrevantInstallKey, qotest::kSeAgntMaxNumValue);
    const DWORD explorer = qotest::WineExplorerPid();
    if (explorer == 0) {
        Fail("Wine's explorer.exe is not running");
    }
    return explorer;
}

// ---------------------------------------------------------------------------------------------
// Counting agent starts

StartCounter::StartCounter() {
    if (!valid()) {
        Fail(Format("cannot create the start semaphore, error=%lu", GetLastError()));
    }
}

// ---------------------------------------------------------------------------------------------
// Restart rounds

RestartRun MeasureRestarts(int rounds, int warmup, DWORD firstAgentPid, StartCounter& started,
                           const std::function<DWORD(DWORD endedPid)>& currentAgent) {
    RestartRun run;
    const std::wstring bareExe = ExitingAgentExe();
    const std::wstring bareDirectory = qotest::AgentDir();
    DWORD agent = firstAgentPid;
    for (int round = 0; round < warmup + rounds; ++round) {
        RestartSample sample;

        // The crash: exit code 1 is not a graceful end, so the monitor starts the agent again.
        Sleep(SETTLE_MS);
        qotest::OwnedHandle old(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, agent));
        if (!old) {
            const DWORD error = GetLastError();
            Fail(Format("OpenProcess(agent %lu) error=%lu", agent, error));
        }
        if (!qotest::SetAgentExitCode(agent, 1)) {
            Fail("cannot set the agent's exit code");
        }
        qotest::OwnedHandle exitEvent(OpenEventW(
            EVENT_MODIFY_STATE, FALSE, (qotest::kAgentExitEventPrefix + std::to_wstring(agent)).c_str()));
        if (!exitEvent) {
            Fail(Format("the exit event of agent %lu does not exist", agent));
        }
        const double trigger = NowMs();
        SetEvent(exitEvent.get());
        if (WaitForSingleObject(old.get(), AGENT_EXIT_TIMEOUT_MS) != WAIT_OBJECT_0) {
            Fail(Format("agent %lu did not end after its exit event", agent));
        }
        const double ended = NowMs();
        if (!started.TakeOne(AGENT_START_TIMEOUT_MS)) {
            Fail(Format("no replacement started after agent %lu ended (round %d)", agent, round));
        }
        const double replaced = NowMs();
        DWORD code = 0;
        if (!GetExitCodeProcess(old.get(), &code) || code != 1) {
            Fail(Format("agent %lu ended with code %lu instead of 1", agent, code));
        }
        sample.exitToStart = replaced - ended;
        sample.triggerToStart = replaced - trigger;
        const DWORD next = currentAgent(agent);
        if (next == 0 || next == agent) {
            Fail(Format("the replacement of agent %lu cannot be found", agent));
        }
        agent = next;

        // The bare round: what starting one such process and seeing its end costs here.
        Sleep(SETTLE_MS);
        sample.bareCreateWait = BareCreateAndWait(bareExe, bareDirectory);
        if (!started.TakeOne(AGENT_START_TIMEOUT_MS)) {
            Fail("the exiting agent did not count its start");
        }

        if (round >= warmup) {
            run.samples.push_back(sample);
        }
    }
    run.lastAgentPid = agent;
    return run;
}

void ReportRestarts(const RestartRun& run) {
    std::vector<double> exitToStart;
    std::vector<double> triggerToStart;
    std::vector<double> bare;
    for (const RestartSample& sample : run.samples) {
        exitToStart.push_back(sample.exitToStart);
        triggerToStart.push_back(sample.triggerToStart);
        bare.push_back(sample.bareCreateWait);
    }
    const Summary restart = Summarize(exitToStart);
    const Summary trigger = Summarize(triggerToStart);
    const Summary baseline = Summarize(bare);
    Say("  %lu rounds each, alternating; milliseconds         median     mean      min      max",
        static_cast<unsigned long>(restart.count));
    Say("  agent exit seen -> replacement started        %8.1f %8.1f %8.1f %8.1f", restart.median,
        restart.mean, restart.min, restart.max);
    Say("  exit event set -> replacement started         %8.1f %8.1f %8.1f %8.1f", trigger.median,
        trigger.mean, trigger.min, trigger.max);
    Say("  bare CreateProcessW + wait (baseline)         %8.1f %8.1f %8.1f %8.1f", baseline.median,
        baseline.mean, baseline.min, baseline.max);
    Say("  RATIO restart latency / bare create-and-wait: %s (medians), %s (means)",
        Ratio(restart.median, baseline.median).c_str(), Ratio(restart.mean, baseline.mean).c_str());
}

int RestartMain(int argc, wchar_t** argv, const char* program, int (*run)(int rounds, int warmup)) {
    int rounds = 50;
    int warmup = 3;
    if (!ParseOptions(argc, argv, {{L"--rounds", &rounds, 1}, {L"--warmup", &warmup, 0}})) {
        std::fprintf(stderr, "usage: %s [--rounds N] [--warmup N]\n", program);
        return 2;
    }
    return run(rounds, warmup);
}

// ---------------------------------------------------------------------------------------------
// The real watchdog

DWORD FindInstalledAgent(DWORD exclude) {
    const ULONGLONG deadline = GetTickCount64() + FIND_AGENT_TIMEOUT_MS;
    for (;;) {
        std::vector<DWORD> pids = qotest::FindProcesses(kInstalledAgentName);
        pids.erase(std::remove(pids.begin(), pids.end(), exclude), pids.end());
        if (pids.size() == 1) {
            return pids.front();
        }
        if (GetTickCount64() >= deadline) {
            return 0;
        }
        Sleep(10);
    }
}

void Supervisor::Start(StartCounter& started) {
    if (!qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSetStartEventValue, 1)) {
        Fail("cannot set SetStartEvent");
    }
    parent_ = qotest::StartTestParent();
    if (!parent_.handle) {
        Fail(Format("test_parent.exe did not start, error=%lu", parent_.error));
    }
    watchdog_ = qotest::StartWatchDog(parent_.pid);
    if (!watchdog_.handle) {
        Fail(Format("QoWatchDog.exe did not start, error=%lu", watchdog_.error));
    }
    if (!started.TakeOne(SUPERVISOR_START_TIMEOUT_MS)) {
        DWORD code = 0;
        GetExitCodeProcess(watchdog_.handle.get(), &code);
        Fail(Format("the supervisor started no agent (its exit code now: 0x%08lX)", code));
    }
    firstAgent_ = FindInstalledAgent(0);
    if (firstAgent_ == 0) {
        Fail("the supervisor's agent cannot be found");
    }
}

void Supervisor::Shutdown() {
    qotest::OwnedHandle terminate(OpenEventW(EVENT_MODIFY_STATE, FALSE, qotest::kTerminateEvent));
    if (!terminate) {
        const DWORD error = GetLastError();
        Fail(Format("OpenEvent(EVENT_ID_BREVANT_TERMINATE_WATCHDOG) error=%lu", error));
    }
    SetEvent(terminate.get());
    // The monitors wait for their agents before they end; the broadcast event ends every agent.
    if (!qotest::MakeAllAgentsExit(0)) {
        Fail("cannot set the agents' broadcast exit event");
    }
    const std::optional<DWORD> code =
        qotest::WaitForExitCode(watchdog_.handle.get(), SUPERVISOR_EXIT_TIMEOUT_MS);
    terminate.reset();
    qotest::ResetAllAgentsExit();
    if (!code) {
        Fail("the supervisor did not end after the terminate request");
    }
    if (*code != 0) {
        Fail(Format("the supervisor ended with code 0x%08lX instead of 0", *code));
    }
    if (!qotest::MakeTestParentExit(parent_.pid) ||
        qotest::WaitForExitCode(parent_.handle.get(), SUPERVISOR_EXIT_TIMEOUT_MS) !=
            std::optional<DWORD>(0)) {
        Fail("test_parent.exe did not end");
    }
    if (!WaitNoAgentLeft(AGENT_EXIT_TIMEOUT_MS)) {
        Fail("an agent is still running after the supervisor ended");
    }

    const qotest::LogFile log = qotest::LogFile::Read(qotest::WatchDogLogPath());
    if (!log.exists()) {
        Fail("the supervisor wrote no log");
    }
    if (!log.malformed().empty()) {
        Fail("malformed log lines:\n" + log.DescribeMalformed());
    }
    FailOnErrorLine(log, "the supervisor");
}

}  // namespace qobench
