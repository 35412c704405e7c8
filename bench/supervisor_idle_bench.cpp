// bench_supervisor_idle: what the real program costs while nothing happens.
//
// QoWatchDog.exe runs as the Product Adapter starts it and has started the agent of Wine's one
// session. Once it waits in its main loop, this program takes the CPU time it spends over a window
// of wall time (60 s unless told otherwise) and reads its working set, which the supervisor trims
// before each of its waits. The host stand-in test_parent.exe, which does nothing but wait, is
// measured the same way beside it. At the end the supervisor is terminated properly.
//
// CPU time: GetProcessTimes on the supervisor's handle is read and shown, but Wine 8 answers it
// with the calling process's own times whatever the handle; GetThreadTimes works across processes
// there, so the figure is the sum over the supervisor's threads (Windows gives the same sum).
//
//   bench_supervisor_idle [--seconds 60]
#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <cstdio>
#include <map>

#include "BenchSupport.h"
#include "LogReader.h"
#include "WinTestEnv.h"

namespace {

using qobench::Fail;
using qobench::Format;
using qobench::Say;

// After its start the supervisor logs, refreshes and trims; the window begins this long after it
// entered its main loop.
const DWORD SETTLE_MS = 2000;
const DWORD MAIN_LOOP_TIMEOUT_MS = 15000;
// Wine reads CPU times from /proc in clock ticks of 10 ms.
const double WINE_CPU_TICK_MS = 10.0;

ULONGLONG Ticks(const FILETIME& time) {
    return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

double TicksToMs(ULONGLONG ticks) { return static_cast<double>(ticks) / 10000.0; }

// Two readings of CPU time taken one after the other: equal up to one clock tick.
bool SameTimes(ULONGLONG a, ULONGLONG b) {
    const ULONGLONG tick = static_cast<ULONGLONG>(WINE_CPU_TICK_MS * 10000);
    return (a > b ? a - b : b - a) <= tick;
}

// Kernel plus user time of one process at one moment.
struct CpuSample {
    std::map<DWORD, ULONGLONG> threads;  // thread id -> kernel + user time, 100 ns units
    ULONGLONG processTimes = 0;          // GetProcessTimes on the process handle, kernel + user
    ULONGLONG ownProcessTimes = 0;       // GetProcessTimes of this program, read right after
    double wallMs = 0;
};

CpuSample SampleCpu(DWORD pid, HANDLE process) {
    CpuSample sample;
    sample.wallMs = qobench::NowMs();
    FILETIME created = {};
    FILETIME exited = {};
    FILETIME kernel = {};
    FILETIME user = {};
    if (!GetProcessTimes(process, &created, &exited, &kernel, &user)) {
        const DWORD error = GetLastError();
        Fail(Format("GetProcessTimes error=%lu", error));
    }
    sample.processTimes = Ticks(kernel) + Ticks(user);
    GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user);
    sample.ownProcessTimes = Ticks(kernel) + Ticks(user);

    qotest::OwnedHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    if (!snapshot) {
        const DWORD error = GetLastError();
        Fail(Format("CreateToolhelp32Snapshot error=%lu", error));
    }
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Thread32First(snapshot.get(), &entry); more;
         more = Thread32Next(snapshot.get(), &entry)) {
        if (entry.th32OwnerProcessID != pid) {
            continue;
        }
        qotest::OwnedHandle thread(OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, entry.th32ThreadID));
        if (thread && GetThreadTimes(thread.get(), &created, &exited, &kernel, &user)) {
            sample.threads[entry.th32ThreadID] = Ticks(kernel) + Ticks(user);
        }
    }
    if (sample.threads.empty()) {
        Fail(Format("no thread of process %lu can be read", pid));
    }
    return sample;
}

struct CpuUse {
    double cpuMs = 0;  // spent between the samples
    double wallMs = 0;
    size_t threads = 0;      // threads at the end
    size_t threadsGone = 0;  // threads of the first sample that ended in between (their time is lost)
    double processTimesMs = 0;
    double ownProcessTimesMs = 0;
};

CpuUse Between(const CpuSample& before, const CpuSample& after) {
    CpuUse use;
    use.wallMs = after.wallMs - before.wallMs;
    ULONGLONG spent = 0;
    for (const auto& thread : after.threads) {
        const auto earlier = before.threads.find(thread.first);
        spent += earlier == before.threads.end() ? thread.second : thread.second - earlier->second;
    }
    for (const auto& thread : before.threads) {
        if (after.threads.count(thread.first) == 0) {
            ++use.threadsGone;
        }
    }
    use.cpuMs = TicksToMs(spent);
    use.threads = after.threads.size();
    use.processTimesMs = TicksToMs(after.processTimes - before.processTimes);
    use.ownProcessTimesMs = TicksToMs(after.ownProcessTimes - before.ownProcessTimes);
    return use;
}

PROCESS_MEMORY_COUNTERS MemoryOf(HANDLE process, const char* what) {
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof(counters);
    if (!K32GetProcessMemoryInfo(process, &counters, sizeof(counters))) {
        const DWORD error = GetLastError();
        Fail(Format("K32GetProcessMemoryInfo(%s) error=%lu", what, error));
    }
    return counters;
}

double KiB(SIZE_T bytes) { return static_cast<double>(bytes) / 1024.0; }

std::string Percent(double part, double whole) {
    return whole > 0 ? Format("%.4f %%", 100.0 * part / whole) : std::string("n/a");
}

int Run(int seconds) {
    qobench::ResetMachine();
    qobench::StartCounter started;
    qobench::Supervisor supervisor;
    supervisor.Start(started);
    if (!qotest::WaitForLogLine(qotest::WatchDogLogPath(),
                                qotest::MessageStartsWith("Enter WaitForMultipleObjects Main Loop"),
                                MAIN_LOOP_TIMEOUT_MS)) {
        Fail("the supervisor did not enter its main loop");
    }
    Sleep(SETTLE_MS);

    Say("Idle cost of the real QoWatchDog.exe (its agent running, nothing happening, %d s)", seconds);
    const CpuSample supervisorBefore = SampleCpu(supervisor.pid(), supervisor.process());
    const CpuSample parentBefore =
        SampleCpu(GetProcessId(supervisor.parentProcess()), supervisor.parentProcess());
    if (WaitForSingleObject(supervisor.process(), static_cast<DWORD>(seconds) * 1000) != WAIT_TIMEOUT) {
        Fail("the supervisor ended during the idle window");
    }
    const CpuSample supervisorAfter = SampleCpu(supervisor.pid(), supervisor.process());
    const CpuSample parentAfter =
        SampleCpu(GetProcessId(supervisor.parentProcess()), supervisor.parentProcess());
    const PROCESS_MEMORY_COUNTERS memory = MemoryOf(supervisor.process(), "supervisor");
    const PROCESS_MEMORY_COUNTERS parentMemory = MemoryOf(supervisor.parentProcess(), "test_parent.exe");

    // Nothing happened: no agent was started again, and the first one still runs.
    if (started.Take(1, 0) != 0 || qobench::FindInstalledAgent(0) != supervisor.firstAgentPid()) {
        Fail("an agent was started during the idle window");
    }
    supervisor.Shutdown();

    const CpuUse use = Between(supervisorBefore, supervisorAfter);
    const CpuUse parentUse = Between(parentBefore, parentAfter);
    Say("  wall time of the window                          %10.1f ms", use.wallMs);
    Say("  supervisor CPU time (GetThreadTimes, %lu threads) %10.1f ms%s",
        static_cast<unsigned long>(use.threads), use.cpuMs,
        use.threadsGone != 0 ? Format(" (%lu threads ended meanwhile, not counted)",
                                      static_cast<unsigned long>(use.threadsGone))
                                   .c_str()
                             : "");
    Say("  RATIO supervisor CPU time / wall time:           %.6f (%s)", use.cpuMs / use.wallMs,
        Percent(use.cpuMs, use.wallMs).c_str());
    Say("  reference: test_parent.exe CPU / wall time:      %.6f (%s)", parentUse.cpuMs / parentUse.wallMs,
        Percent(parentUse.cpuMs, parentUse.wallMs).c_str());
    if (qobench::RunningUnderWine()) {
        Say("  (CPU times come in %.0f ms ticks under Wine: one tick over the window is %s)",
            WINE_CPU_TICK_MS, Percent(WINE_CPU_TICK_MS, use.wallMs).c_str());
    }
    const bool ownTimes = SameTimes(supervisorBefore.processTimes, supervisorBefore.ownProcessTimes) &&
                          SameTimes(supervisorAfter.processTimes, supervisorAfter.ownProcessTimes);
    Say("  GetProcessTimes(supervisor handle) grew by %.1f ms%s", use.processTimesMs,
        ownTimes
            ? Format("; it reads exactly this program's own times (%.1f ms at the end): %s answers with the "
                     "caller's times, so the thread sum is the figure",
                     TicksToMs(supervisorAfter.ownProcessTimes), qobench::PlatformName().c_str())
                  .c_str()
            : "");
    Say("  working set after the trim:  WorkingSetSize %8.0f KiB   PeakWorkingSetSize %8.0f KiB",
        KiB(memory.WorkingSetSize), KiB(memory.PeakWorkingSetSize));
    Say("  reference test_parent.exe:   WorkingSetSize %8.0f KiB   PeakWorkingSetSize %8.0f KiB",
        KiB(parentMemory.WorkingSetSize), KiB(parentMemory.PeakWorkingSetSize));
    Say("  RATIO supervisor / test_parent.exe working set: %s (peak: %s)",
        qobench::Ratio(KiB(memory.WorkingSetSize), KiB(parentMemory.WorkingSetSize)).c_str(),
        qobench::Ratio(KiB(memory.PeakWorkingSetSize), KiB(parentMemory.PeakWorkingSetSize)).c_str());
    qobench::ResetMachine();
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    int seconds = 60;
    if (!qobench::ParseOptions(argc, argv, {{L"--seconds", &seconds, 1}})) {
        std::fputs("usage: bench_supervisor_idle [--seconds N]\n", stderr);
        return 2;
    }
    return Run(seconds);
}
