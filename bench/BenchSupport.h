// What the benchmark programs share: a clock, sample summaries, the report's text, the agent that
// exits at once, a start counter that can say how far it got, the timed restart round and the bare
// create-and-wait round it is compared with, and the real watchdog started and ended as the Product
// Adapter does. Every wait here is bounded.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "LogReader.h"
#include "WinTestEnv.h"

namespace qobench {

// ---------------------------------------------------------------------------------------------
// Clock, samples and text

// Milliseconds on the performance counter, from an arbitrary origin.
double NowMs();

struct Summary {
    size_t count = 0;
    double min = 0;
    double median = 0;
    double mean = 0;
    double max = 0;
};
Summary Summarize(std::vector<double> samples);

// printf into a std::string.
std::string Format(const char* format, ...);
// One line on stdout, flushed at once (the runner shows it while the program runs).
void Say(const char* format, ...);
// "FAILED: <what>" on stdout, then every test process the benchmark may have started is ended and
// the program ends with exit code 1.
[[noreturn]] void Fail(const std::string& what);

// Fails the program with "<writer> logged an error: <message>" at the log's first ERROR line.
void FailOnErrorLine(const qotest::LogFile& log, const std::string& writer);

// "a / b" as a ratio, or "n/a" when b is not positive.
std::string Ratio(double a, double b);

// "--name <integer>" pairs of a command line; false on anything else or a value below `min`.
struct IntOption {
    const wchar_t* name;
    int* value;
    int min;
};
bool ParseOptions(int argc, wchar_t** argv, std::initializer_list<IntOption> options);

// True when this process runs under Wine (ntdll exports wine_get_version).
bool RunningUnderWine();
// "Wine 8.0" or "Windows".
std::string PlatformName();

// ---------------------------------------------------------------------------------------------
// The installed client

// AgentDir()\QoSessionAgent_exit0.exe: the agent stand-in under a name that makes it exit with 0
// at once, right after it has counted its start.
std::wstring ExitingAgentExe();
// Copies the agent stand-in (QO_TEST_AGENT_EXE) to ExitingAgentExe(); false on failure.
bool InstallExitingAgent();

// Waits (bounded) until no agent of any name runs; true when none is left.
bool WaitNoAgentLeft(DWORD timeoutMs);

// Brings the prefix back to the installed-client state (qotest::ResetTestState) and removes
// SeAgntMaxNum, so every benchmark starts from the same machine. Returns the pid of Wine's
// explorer.exe and fails the program when none runs.
DWORD ResetMachine();

// ---------------------------------------------------------------------------------------------
// Counting agent starts

// The tests' start counter (Global\QoTestAgentStarted, from zero); fails the program when it cannot
// be created.
class StartCounter : public qotest::AgentStartCounter {
public:
    StartCounter();
    // Takes one start; true when it came within timeoutMs.
    bool TakeOne(DWORD timeoutMs) { return Take(1, timeoutMs) == 1; }
};

// ---------------------------------------------------------------------------------------------
// Restart rounds

// One round of the restart benchmarks, in milliseconds.
struct RestartSample {
    double exitToStart = 0;     // the old agent's end seen -> its replacement counted its start
    double triggerToStart = 0;  // exit event set -> the replacement counted its start
    double bareCreateWait = 0;  // CreateProcessW of the exiting agent + WaitForSingleObject on it
};

// Ends `agentPid` as a crash (exit code 1) and times its replacement. currentAgent() gives the pid
// of the agent that runs now, given the one that just ended (0 when it cannot be found); the
// replacement is taken as started when it has counted its start. Between the restarts, the same
// number of bare rounds: CreateProcessW of ExitingAgentExe() in AgentDir(), then a wait for its end.
// Restart and bare rounds alternate, so both see the same machine. `warmup` rounds of each are run
// first and not kept.
struct RestartRun {
    std::vector<RestartSample> samples;
    DWORD lastAgentPid = 0;
};
RestartRun MeasureRestarts(int rounds, int warmup, DWORD firstAgentPid, StartCounter& started,
                           const std::function<DWORD(DWORD endedPid)>& currentAgent);

// Prints the restart figures of a run: latencies and their ratio to the bare rounds.
void ReportRestarts(const RestartRun& run);

// wmain of a restart benchmark: reads "--rounds N" (50) and "--warmup N" (3), then runs it.
int RestartMain(int argc, wchar_t** argv, const char* program, int (*run)(int rounds, int warmup));

// ---------------------------------------------------------------------------------------------
// The real watchdog, as the Product Adapter runs it

// test_parent.exe as the host process and QoWatchDog.exe <its pid> in the platform directory,
// SetStartEvent=1 set before. Start() waits until the supervisor has started its agent.
class Supervisor {
public:
    Supervisor() = default;
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    // Fails the program when the supervisor or its agent does not come up.
    void Start(StartCounter& started);
    // Ends it properly: sets Global\EVENT_ID_BREVANT_TERMINATE_WATCHDOG, ends the agents through the
    // broadcast exit event (code 0), waits for exit code 0, then lets the host stand-in end. Checks
    // that no agent is left and that the watchdog's log holds no ERROR line.
    void Shutdown();

    HANDLE process() const { return watchdog_.handle.get(); }
    DWORD pid() const { return watchdog_.pid; }
    HANDLE parentProcess() const { return parent_.handle.get(); }
    DWORD firstAgentPid() const { return firstAgent_; }

private:
    qotest::ChildProcess parent_;
    qotest::ChildProcess watchdog_;
    DWORD firstAgent_ = 0;
};

// The one running QoSessionAgent.exe other than `exclude`, 0 when there is not exactly one.
DWORD FindInstalledAgent(DWORD exclude);

}  // namespace qobench
