// QoBench.exe: what the watchdog costs under Wine, as ratios of like with like taken in one run.
//   QoBench.exe [--rounds N] [--sessions 62,620[,3000]] [--crash-seconds S]
// It links the tests' table of sessions, so that stand-in shells can stand for the sessions of a
// terminal server.
// Every figure is checked against what it counted; a failed check ends the run with exit code 1.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Harness.h"
#include "SessionTable.h"
#include "foundation/logging.h"
#include "watchdog/QoWatchDog.h"
#include "watchdog/WatchDog.h"

namespace {

double Now() {
    LARGE_INTEGER f, c;
    QueryPerformanceFrequency(&f);
    QueryPerformanceCounter(&c);
    return 1000.0 * static_cast<double>(c.QuadPart) / static_cast<double>(f.QuadPart);
}

// The value at this fraction of the sorted values: 0.5 the median, 0.9 the 90th percentile.
double Percentile(std::vector<double> v, double at) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[static_cast<size_t>(at * static_cast<double>(v.size() - 1) + 0.5)];
}

double Median(const std::vector<double>& v) { return Percentile(v, 0.5); }

[[noreturn]] void Fail(const char* what) {
    std::printf("FAILED: %s\n", what);
    qt::Reset();
    std::exit(1);
}

std::wstring Agent() { return qt::AgentDir() + L"\\QoSessionAgent.exe"; }

// Restart latency, from the programs' own clocks (QueryPerformanceCounter, one clock for every
// process): from the crashed agent's last instruction before its exit to the replacement's first,
// against the benchmark's last instruction before CreateProcessW of the same program to the child's
// first. The two alternate, round by round.
void RestartLatency(int rounds) {
    qt::Agents started(qt::kAgentStarted), ready;
    const qt::Handle mapping =
        qt::Own(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 16, qt::kClock));
    volatile LONGLONG* clock =
        mapping ? static_cast<LONGLONG*>(MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, 0)) : nullptr;
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    const auto ms = [&](LONGLONG ticks) { return 1000.0 * static_cast<double>(ticks) / frequency.QuadPart; };
    qt::SetDword(qt::kInstallKey, L"SetStartEvent", 1);
    const qt::Proc host = qt::StartHelper(L"host.exe", L"idle");
    const qt::Proc supervisor = qt::StartWatchDog(std::to_wstring(host.pid));
    if (clock == nullptr || !ready.Wait() || !started.Wait())
        Fail("no first agent");
    std::vector<double> restart, bare;
    for (int i = 0; i < rounds; ++i) {
        qt::EndAgent(qt::OnlyAgent(), 1);
        if (!started.Wait() || !ready.Wait())
            Fail("no restart");
        restart.push_back(ms(clock[0] - clock[1]));

        LARGE_INTEGER before;
        QueryPerformanceCounter(&before);
        const qt::Proc baseline = qt::Start(Agent(), L"", qt::AgentDir());
        if (!started.Wait())
            Fail("baseline agent did not start");
        bare.push_back(ms(clock[0] - before.QuadPart));
        if (!ready.Wait() || !qt::EndAgent(baseline.pid, 0) || !qt::ExitCode(baseline))
            Fail("baseline agent");
    }
    qt::Signal(qt::kTerminate);
    qt::EndAllAgents(0);
    if (qt::ExitCode(supervisor).value_or(1) != 0)
        Fail("supervisor did not end with 0");
    qt::ResetAllAgents();
    std::printf(
        "restart latency, %d rounds: watchdog median %.1f ms (90th percentile %.1f), CreateProcess median "
        "%.1f ms (90th percentile %.1f), ratio of medians %.2f\n",
        rounds, Median(restart), Percentile(restart, 0.9), Median(bare), Percentile(bare, 0.9),
        Median(restart) / Median(bare));
}

// One registration pass in a process of its own (the watchdog and SeAgntMaxNum exist once per
// process): N stand-in shells in sessions 2 to N + 1, registered in one pass; the milliseconds from
// the pass's start until every session's agent runs (has written its report and waits): the
// manager, a monitor and its thread per 62 ids, each shell's open and check, its token, the launch as
// its user and the agent's start.
int RegisterPass(DWORD sessions) {
    SetCurrentDirectoryW(qt::PlatformDir().c_str());
    CreateDirectoryW((qt::KeldDir() + L"\\debug").c_str(), nullptr);
    GetLogger().set_file(qt::LogPath().c_str());
    CWatchDog* pWatchDog = CWatchDog::GetInstance();
    pWatchDog->Init(Agent().c_str(), qt::AgentDir().c_str());
    std::vector<qt::Proc> shells;
    std::vector<SessionRecord> records;
    for (DWORD id = 2; id < sessions + 2; ++id) {
        shells.push_back(qt::StartHelper(L"explorer.exe", L"idle"));
        qt::SetSession(shells.back().pid, id);
        records.push_back(SessionRecord{id, shells.back().pid, nullptr, false});
    }
    qt::Agents ready;
    const double before = Now();
    pWatchDog->RegisterSessions(records);
    // Bounded: a session whose agent is refused (its shell gone meanwhile) fails the pass, which
    // then says how many agents came and what the log holds of the refusals.
    const bool all = ready.Wait(static_cast<int>(sessions), 120000 + 100 * sessions);
    std::printf("%.1f\n", all ? Now() - before : -1.0);
    if (!all) {
        const qt::Log log = qt::ReadLog();
        std::printf("%zu of %lu agents started; %zu error line(s)\n",
                    log.Count(" Create Session Agent successfully"), sessions, log.Errors());
    }
    pWatchDog->SetCloseEvent(true);
    qt::EndAllAgents(0);
    WaitForAllMonitorThreads();
    return all ? 0 : 1;
}

// The milliseconds of one pass of N, from a process of its own.
double RegistrationPass(const std::wstring& self, DWORD n) {
    qt::Reset();
    SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
    const std::wstring out = qt::Scratch(L"bench") + L"\\pass.txt";
    const qt::Handle file =
        qt::Own(CreateFileW(out.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr));
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = file.get();
    PROCESS_INFORMATION pi = {};
    std::wstring line = L"\"" + self + L"\" --register " + std::to_wstring(n);
    if (!CreateProcessW(self.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
        Fail("registration pass not started");
    }
    const qt::Proc pass{qt::Own(pi.hProcess), pi.dwProcessId};
    CloseHandle(pi.hThread);
    double ms = -1;
    const bool passed = qt::ExitCode(pass, 900000).value_or(1) == 0;
    FILE* result = _wfopen(out.c_str(), L"r");
    if (!passed || result == nullptr || std::fscanf(result, "%lf", &ms) != 1) {
        char said[256] = {};
        while (result != nullptr && std::fgets(said, sizeof(said), result) != nullptr)
            std::printf("registration pass of %lu: %s", n, said);
        Fail("registration pass");
    }
    std::fclose(result);
    return ms;
}

// Per size, the median of three passes (one for sizes above 620): ms per session, its ratio to the
// first size's, and the marginal cost per session added since the first size, which leaves out
// what a pass costs whatever its size (the monitor threads' start, the first log lines).
void Registration(const std::wstring& self, const std::vector<DWORD>& sizes) {
    double firstMs = 0;
    for (const DWORD n : sizes) {
        std::vector<double> passes;
        for (int i = 0; i < (n > 620 ? 1 : 3); ++i)
            passes.push_back(RegistrationPass(self, n));
        const double ms = Median(passes);
        if (n == sizes.front())
            firstMs = ms;
        const double marginal = n == sizes.front() ? 0.0 : (ms - firstMs) / (n - sizes.front());
        std::printf(
            "registration, N=%lu: %.2f ms per session, ratio to N=%lu %.2f, marginal %.2f ms per session\n",
            n, ms / n, sizes.front(), (ms / n) / (firstMs / sizes.front()), marginal);
    }
}

// Crash loop: an agent that exits with 1 at once, restarted again and again.
void CrashLoop(DWORD seconds) {
    qt::Reset();
    qt::Agents started(qt::kAgentStarted);
    qt::SetDword(qt::kAgentKey, qt::kImmediate, 1);
    qt::SetDword(qt::kInstallKey, L"SetStartEvent", 1);
    const qt::Proc host = qt::StartHelper(L"host.exe", L"idle");
    const qt::Proc supervisor = qt::StartWatchDog(std::to_wstring(host.pid));
    if (!started.Wait())
        Fail("no first agent");
    Sleep(seconds * 1000);  // the measured interval itself
    FILETIME created, ended, kernel, user;
    GetProcessTimes(supervisor.h.get(), &created, &ended, &kernel, &user);
    int restarts = 0;
    while (started.Wait(1, 0))
        ++restarts;
    const double cpuMs =
        (static_cast<double>(kernel.dwLowDateTime) + static_cast<double>(user.dwLowDateTime) +
         4294967296.0 * (kernel.dwHighDateTime + user.dwHighDateTime)) /
        10000.0;
    std::error_code missing;
    const double bytes =
        static_cast<double>(std::filesystem::file_size(std::filesystem::path(qt::LogPath()), missing));
    TerminateProcess(supervisor.h.get(), 0);
    if (restarts == 0)
        Fail("no restart in the crash loop");
    const double bytesPerRestart = bytes / restarts;
    std::printf(
        "crash loop, %lu s: %.1f restarts/s, supervisor CPU %.2f ms per restart, %.0f log bytes per restart, "
        "%.1f hours until the 10,000,000-byte cut\n",
        seconds, restarts / static_cast<double>(seconds), cpuMs / restarts, bytesPerRestart,
        10000000.0 / (bytesPerRestart * restarts / seconds) / 3600.0);
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 50;
    DWORD crashSeconds = 60;
    std::vector<DWORD> sizes = {62, 620};
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i], value = argv[i + 1];
        if (option == "--register")
            return RegisterPass(std::stoul(value));
        if (option == "--rounds")
            rounds = std::stoi(value);
        if (option == "--crash-seconds")
            crashSeconds = std::stoul(value);
        if (option == "--sessions") {
            sizes.clear();
            for (size_t at = 0; at < value.size(); at = value.find(',', at) + 1) {
                sizes.push_back(std::stoul(value.substr(at)));
                if (value.find(',', at) == std::string::npos)
                    break;
            }
        }
    }
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    qt::Reset();
    RestartLatency(rounds);
    Registration(self, sizes);
    CrashLoop(crashSeconds);
    qt::Reset();
    return 0;
}
