// QoDemo.exe: the real QoWatchDog.exe taken through a life, told as a timeline with the watchdog's
// log beside it. scripts/demo.sh runs it under Wine, in a prefix prepared like a workstation with the
// client installed (tests/wine/prefix.sh).
//
// The demo plays the watchdog's neighbours as the README's deployment contract describes them: the
// Product Adapter that starts the supervisor for its host process (test_parent.exe stands in for the
// host) and sets the stop and terminate events, the installer that opens the start gate, the Run key
// that starts a run-key instance at each log-on, and a second shell of the session. The agent is the
// installed copy of test_agent.exe, which the demo tells to crash or to end through its own events
// (tests/helpers/test_agent_protocol.h).
//
// Every wait is bounded and wakes on what it waits for: the agent-start semaphore, a process handle,
// the Keld service's running event, or the change notification of the log's directory. Exit code 0
// when the life went as expected, 1 otherwise.
//
// The log is shown as it is, but a step never depends on a line written while another process writes
// the log too (a run-key instance, or a successor during the hand-over): Wine does not make the
// appends of two processes atomic, and two lines written at the same moment may overwrite each other
// there. Such steps rest on what the processes do instead.
#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "LogReader.h"
#include "WinTestEnv.h"
#include "test_agent_protocol.h"

namespace {

using qotest::ChildProcess;
using qotest::EventExists;
using qotest::kReloadEvent;
using qotest::kSeAgntMaxNumValue;
using qotest::kStartKeldEvent;
using qotest::kStartServiceEvent;
using qotest::kStopServiceEvent;
using qotest::kTerminateEvent;
using qotest::kWatchDogMutex;
using qotest::MutexExists;
using qotest::OwnedHandle;
using qotest::SetNamedEvent;

// The longest any one observation may take; the whole life takes a few seconds.
const DWORD kWaitMs = 15000;
// How long "no agent is started" is watched before it counts as seen.
const DWORD kQuietMs = 1000;
// A named object's creation sends no notification: its existence is checked at this pace.
const DWORD kObjectPollMs = 20;

const char kArrow[] = "\xE2\x86\x92";  // U+2192, in UTF-8

std::string Utf8(const std::wstring& text) { return qotest::ToUtf8(text); }
std::string Dec(DWORD value) { return std::to_string(value); }

std::string Hex(DWORD value) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(value));
    return text;
}

// An exit code as a reader knows it: 0 and -1 in decimal, anything else in hex.
std::string ExitCodeText(DWORD code) {
    if (code == 0) {
        return "0";
    }
    return code == 0xFFFFFFFF ? std::string("-1") : Hex(code);
}

void Write(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

// True once `condition` holds, checked every kObjectPollMs for at most timeoutMs.
bool BecomesTrue(const std::function<bool()>& condition, DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    while (!condition()) {
        if (GetTickCount64() >= deadline) {
            return false;
        }
        Sleep(kObjectPollMs);
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// The timeline: one line per step with the seconds since the start, and beneath it the lines the
// watchdog's log gained meanwhile, each with the role of the process that wrote it.

class Timeline {
public:
    explicit Timeline(std::wstring logPath) : logPath_(std::move(logPath)) {
        QueryPerformanceFrequency(&frequency_);
        QueryPerformanceCounter(&start_);
    }

    double Seconds() const {
        LARGE_INTEGER now;
        QueryPerformanceCounter(&now);
        return static_cast<double>(now.QuadPart - start_.QuadPart) / static_cast<double>(frequency_.QuadPart);
    }

    const std::wstring& LogPath() const { return logPath_; }

    // Names the process behind a pid in the log lines shown from now on.
    void SetRole(DWORD pid, const std::string& role) { roles_[pid] = role; }

    void Heading(const std::string& text) { Write("\n  -- " + text + "\n"); }

    void Step(const std::string& text) { Line("  ", text); }
    void Problem(const std::string& text) { Line("!!", "NOT AS EXPECTED: " + text); }

    // Prints the log lines not shown yet.
    void ShowNewLogLines() {
        const qotest::LogFile log = qotest::LogFile::Read(logPath_);
        const std::vector<qotest::LogRecord>& records = log.records();
        for (size_t i = shownRecords_; i < records.size(); ++i) {
            const qotest::LogRecord& record = records[i];
            std::string who = Dec(record.pid);
            const auto role = roles_.find(record.pid);
            if (role != roles_.end()) {
                who += " " + role->second;
            }
            char level[8];
            std::snprintf(level, sizeof(level), "%-5s", record.level.c_str());
            Write("            log | " + record.time.substr(11, 8) + " [" + who + "] " + level + " " +
                  record.message + "\n");
        }
        shownRecords_ = records.size() > shownRecords_ ? records.size() : shownRecords_;
        const std::vector<qotest::MalformedLine>& malformed = log.malformed();
        for (size_t i = shownMalformed_; i < malformed.size(); ++i) {
            Write("            log | (line " + Dec(static_cast<DWORD>(malformed[i].fileLine)) +
                  " malformed: " + malformed[i].reason + ") " + malformed[i].text + "\n");
        }
        shownMalformed_ = malformed.size() > shownMalformed_ ? malformed.size() : shownMalformed_;
    }

private:
    void Line(const char* marker, const std::string& text) {
        char stamp[32];
        std::snprintf(stamp, sizeof(stamp), "%s%6.2fs  ", marker, Seconds());
        Write(stamp + text + "\n");
        ShowNewLogLines();
    }

    std::wstring logPath_;
    LARGE_INTEGER frequency_ = {};
    LARGE_INTEGER start_ = {};
    std::map<DWORD, std::string> roles_;
    size_t shownRecords_ = 0;
    size_t shownMalformed_ = 0;
};

// ---------------------------------------------------------------------------------------------
// The life

// The agent the demo currently watches: its pid and a handle that keeps its exit code readable.
struct Agent {
    DWORD pid = 0;
    OwnedHandle process;
};

class Life {
public:
    Life() : timeline_(qotest::WatchDogLogPath()) {}

    // The steps in order; false at the first one that did not go as expected.
    bool Run() {
        struct Step {
            const char* name;
            bool (Life::*run)();
        };
        static const Step steps[] = {
            {"prepare", &Life::Prepare},
            {"start gate", &Life::StartAtTheGate},
            {"gate opened", &Life::OpenTheGate},
            {"crash", &Life::CrashTheAgent},
            {"graceful end", &Life::EndTheAgentGracefully},
            {"log-on, same shell", &Life::LogOnWithTheSameShell},
            {"log-on, new shell", &Life::LogOnWithANewShell},
            {"stop", &Life::Stop},
            {"reload after the stop", &Life::ReloadAfterTheStop},
            {"terminate", &Life::Terminate},
            {"host's end", &Life::EndTheHost},
            {"hand-over", &Life::HandOver},
            {"terminate the successor", &Life::TerminateTheSuccessor},
        };
        for (const Step& step : steps) {
            if (!(this->*step.run)()) {
                failedStep_ = step.name;
                return false;
            }
            ++stepsDone_;
        }
        return true;
    }

    // Ends whatever the life left running, also after a step that went wrong.
    void CleanUp() {
        qotest::MakeAllAgentsExit(0);
        for (ChildProcess* host : {&host_, &successorHost_, &shell_}) {
            if (host->handle.valid() && qotest::IsRunning(host->handle.get())) {
                qotest::MakeTestParentExit(host->pid);
                if (!qotest::WaitForExitCode(host->handle.get(), kWaitMs)) {
                    TerminateProcess(host->handle.get(), 1);
                }
            }
        }
        qotest::TerminateTestProcesses();
        qotest::ResetAllAgentsExit();
        qotest::StopKeldService();
        timeline_.ShowNewLogLines();
    }

    int Summary(bool asExpected) {
        const qotest::LogFile log = qotest::LogFile::Read(timeline_.LogPath());
        std::set<DWORD> writers;
        size_t errors = 0;
        for (const qotest::LogRecord& record : log.records()) {
            writers.insert(record.pid);
            errors += record.IsError() ? 1 : 0;
        }
        if (asExpected && errors != 0) {
            timeline_.Problem(std::to_string(errors) + " ERROR line(s) in the log");
            asExpected = false;
        }

        char seconds[32];
        std::snprintf(seconds, sizeof(seconds), "%.1f", timeline_.Seconds());
        Write("\nSummary\n");
        if (asExpected) {
            Write("  The life went as expected: " + Dec(stepsDone_) + " steps in " + seconds + " s.\n");
        } else {
            Write("  The life did NOT go as expected, at the step \"" + failedStep_ + "\" (" +
                  Dec(stepsDone_) + " steps went as expected before it, " + seconds + " s):\n");
            for (const std::string& problem : problems_) {
                Write("    - " + problem + "\n");
            }
        }
        Write("  supervisors (exit code):");
        for (const std::string& supervisor : supervisors_) {
            Write(" " + supervisor);
        }
        Write("\n  run-key instances: " + Dec(runKeyInstances_) + "; agents started: " + Dec(agentStarts_) +
              ", of them after a crash: " + Dec(crashRestarts_) +
              "; Keld started by the hand-over: " + (keldStarted_ ? "yes" : "no") + "\n");
        Write("  log: " + Utf8(timeline_.LogPath()) + "\n       " +
              Dec(static_cast<DWORD>(log.records().size())) + " lines from " +
              Dec(static_cast<DWORD>(writers.size())) + " processes, " + Dec(static_cast<DWORD>(errors)) +
              " ERROR, " + Dec(static_cast<DWORD>(log.malformed().size())) + " malformed\n");
        if (!log.malformed().empty()) {
            Write(
                "       (lines of two processes written at the same moment, which Wine does not keep "
                "apart)\n");
        }
        return asExpected ? 0 : 1;
    }

private:
    // --- The steps -------------------------------------------------------------------------------

    bool Prepare() {
        Write("QoWatchDog under Wine: the real program taken through a life, its log beside it.\n");
        Write("  program   " + Utf8(qotest::WatchDogExe()) + "\n");
        Write("  platform  " + Utf8(qotest::PlatformDir()) + " (current directory of the supervisor)\n");
        Write("  agent     " + Utf8(qotest::InstalledAgentExe()) + " (the agent stand-in)\n");
        Write("  log       " + Utf8(timeline_.LogPath()) + "\n\n");
        Write("  time    what was done " + std::string(kArrow) + " what was seen\n");

        // The prefix as an installed client leaves it: start gate closed, no log, nothing running.
        qotest::ResetTestState();
        if (!Expect(qotest::DeleteRegValue(qotest::kBrevantInstallKey, kSeAgntMaxNumValue),
                    "cannot remove SeAgntMaxNum") ||
            !Expect(starts_.valid(), "cannot create the agent-start semaphore") ||
            !Expect(qotest::FileExists(qotest::WatchDogExe()), "no QoWatchDog.exe (QO_WATCHDOG_EXE)") ||
            !Expect(qotest::FileExists(qotest::TestParentExe()), "no test_parent.exe (QO_TEST_PARENT_EXE)") ||
            !Expect(qotest::FileExists(qotest::InstalledAgentExe()),
                    "no installed agent: the prefix is not prepared (tests/wine/prefix.sh setup)")) {
            return false;
        }
        // Wine's explorer.exe serves the desktop while a process uses it: the demo uses it too, so the
        // shell the supervisor finds stays there for the whole life (it is started when it is missing).
        if (!Expect(GetDesktopWindow() != nullptr, "no desktop: Wine's explorer.exe did not start") ||
            !Expect(BecomesTrue([] { return qotest::WineExplorerPid() != 0; }, kWaitMs),
                    "Wine's explorer.exe is not listed among the processes")) {
            return false;
        }
        wineShell_ = qotest::WineExplorerPid();
        if (!Expect(ProcessIdToSessionId(wineShell_, &session_) != FALSE, "no session of explorer.exe")) {
            return false;
        }
        if (!Expect(qotest::KeldServiceState() == SERVICE_STOPPED,
                    "the Keld service is not installed and stopped")) {
            return false;
        }
        timeline_.Step("prefix ready: Wine's explorer.exe (pid " + Dec(wineShell_) +
                       ") is the shell of session " + Dec(session_) +
                       "; Keld service installed, stopped; SetStartEvent not set");

        host_ = qotest::StartTestParent();
        if (!Expect(host_.handle.valid(), "test_parent.exe did not start, error " + Dec(host_.error))) {
            return false;
        }
        timeline_.Step("host stand-in test_parent.exe started " + std::string(kArrow) + " pid " +
                       Dec(host_.pid));
        return true;
    }

    bool StartAtTheGate() {
        Mark();
        supervisor_ = StartSupervisor(host_.pid, "supervisor");
        if (!supervisor_.handle.valid() || !SawLog("Wait for set start event.") ||
            !Expect(EventExists(kStartServiceEvent),
                    "EVENT_ID_BREVANT_START_SERVICE does not exist at the gate") ||
            !Expect(qotest::FindProcesses(L"QoSessionAgent*.exe").empty(),
                    "an agent runs before the gate opened")) {
            return false;
        }
        timeline_.Step("Product Adapter started \"QoWatchDog.exe " + Dec(host_.pid) +
                       "\" in the platform dir " + kArrow + " supervisor pid " + Dec(supervisor_.pid) +
                       " waits at the start gate (EVENT_ID_BREVANT_START_SERVICE exists, no agent)");
        return true;
    }

    bool OpenTheGate() {
        Mark();
        if (!Expect(qotest::SetRegDword(qotest::kBrevantInstallKey, qotest::kSetStartEventValue, 1),
                    "cannot write SetStartEvent") ||
            !NewAgent() || !SawLog("Enter WaitForMultipleObjects Main Loop") ||
            !Expect(!EventExists(kStartServiceEvent),
                    "EVENT_ID_BREVANT_START_SERVICE still exists after the gate")) {
            return false;
        }
        const qotest::AgentReport report = qotest::ReadAgentReport(agent_.pid);
        if (!Expect(report.found, "no report of agent " + Dec(agent_.pid)) ||
            !Expect(report.Get(qotest::kReportCwd) == qotest::AgentDir(),
                    "agent's current directory is " + Utf8(report.Get(qotest::kReportCwd)))) {
            return false;
        }
        timeline_.Step(
            "installer wrote SetStartEvent=1 (REG_DWORD, HKLM\\" + Utf8(qotest::kBrevantInstallKey) + ") " +
            kArrow + " gate passed; agent QoSessionAgent.exe pid " + Dec(agent_.pid) +
            " started in session " + Utf8(report.Get(qotest::kReportSession)) + " on " +
            Utf8(report.Get(qotest::kReportDesktop)) + ", in " + Utf8(report.Get(qotest::kReportCwd)));
        return true;
    }

    bool CrashTheAgent() {
        Mark();
        const DWORD crashed = agent_.pid;
        if (!Expect(qotest::MakeAgentExit(crashed, qotest::kAccessViolationCode),
                    "cannot tell the agent to crash") ||
            !AgentEnded(qotest::kAccessViolationCode) || !NewAgent() ||
            !SawLog("Session agent exits, graceful=0")) {
            return false;
        }
        ++crashRestarts_;
        timeline_.Step("agent " + Dec(crashed) + " made to crash (a real access violation) " + kArrow +
                       " exit code " + Hex(qotest::kAccessViolationCode) + ", restarted at once as pid " +
                       Dec(agent_.pid));
        return true;
    }

    bool EndTheAgentGracefully() {
        Mark();
        const DWORD ended = agent_.pid;
        const std::string off = "session (" + Dec(session_) + ") is off.";
        if (!Expect(qotest::MakeAgentExit(ended, 0), "cannot tell the agent to exit") || !AgentEnded(0) ||
            !SawLog(off) || !SawLog("No session to monitor.")) {
            return false;
        }
        timeline_.Step("agent " + Dec(ended) + " exited gracefully (0) " + kArrow + " session " +
                       Dec(session_) + " is off: no agent is started again");
        return true;
    }

    bool LogOnWithTheSameShell() {
        OwnedHandle reload(OpenEventW(SYNCHRONIZE, FALSE, kReloadEvent));
        if (!Expect(reload.valid(), "EVENT_ID_BREVANT_WATCHDOG_RELOAD does not exist")) {
            return false;
        }
        DWORD pid = 0;
        if (!RunKeyInstance(pid) ||
            !Expect(starts_.NoStartWithin(kQuietMs), "an agent started although the shell is the same")) {
            return false;
        }
        // The supervisor is the only waiter of this auto-reset event: found unset, it has taken it.
        if (!Expect(WaitForSingleObject(reload.get(), 0) == WAIT_TIMEOUT,
                    "the supervisor did not take the reload")) {
            return false;
        }
        timeline_.Step("log-on: run-key instance \"QoWatchDog.exe\" (no argument) pid " + Dec(pid) +
                       " set the reload event, exit code 0 " + kArrow +
                       " the supervisor took it and found the same explorer.exe (pid " + Dec(wineShell_) +
                       "): session stays off, no agent within " + Dec(kQuietMs) + " ms");
        return true;
    }

    bool LogOnWithANewShell() {
        const std::wstring directory = qotest::MakeScratchDirectory(L"demo-shell");
        const std::wstring shellExe = qotest::JoinPath(directory, L"explorer.exe");
        if (!Expect(!directory.empty() && qotest::CopyFileTo(qotest::TestParentExe(), shellExe),
                    "cannot copy test_parent.exe as explorer.exe")) {
            return false;
        }
        shell_ = qotest::StartProcess(shellExe);
        if (!Expect(shell_.handle.valid(), "the second shell did not start, error " + Dec(shell_.error))) {
            return false;
        }
        timeline_.SetRole(shell_.pid, "shell");
        timeline_.Step("a new log-on in the session: a second shell " + Utf8(shellExe) + " started " +
                       kArrow + " pid " + Dec(shell_.pid));

        DWORD pid = 0;
        if (!RunKeyInstance(pid) || !NewAgent()) {
            return false;
        }
        timeline_.Step("run-key instance pid " + Dec(pid) + ", exit code 0 " + kArrow +
                       " reload sees explorer.exe pid " + Dec(shell_.pid) + ": session " + Dec(session_) +
                       " is on again, agent pid " + Dec(agent_.pid));
        return true;
    }

    bool Stop() {
        if (!AdapterEndsSupervision(kStopServiceEvent, "EVENT_ID_BREVANT_STOP_SERVICE",
                                    "Product Adapter Stop Event!!") ||
            !Expect(qotest::IsRunning(agent_.process.get()), "the agent ended without being told")) {
            return false;
        }
        timeline_.Step("Product Adapter set EVENT_ID_BREVANT_STOP_SERVICE " + std::string(kArrow) +
                       " supervision stops; the monitor waits for agent " + Dec(agent_.pid) + " to end");

        const DWORD ended = agent_.pid;
        if (!CloseAgents() || !SawLog("Wait for All Session Agent. dwRet=")) {
            return false;
        }
        qotest::ResetAllAgentsExit();
        if (!Expect(qotest::IsRunning(supervisor_.handle.get()), "the supervisor ended after the stop")) {
            return false;
        }
        timeline_.Step("agents told to close (Global\\QoTestAgentExitAll) " + std::string(kArrow) +
                       " agent " + Dec(ended) + " exited (0), the monitor ended; supervisor " +
                       Dec(supervisor_.pid) + " keeps running, with no agent");
        return true;
    }

    bool ReloadAfterTheStop() {
        DWORD pid = 0;
        if (!RunKeyInstance(pid) || !NewAgent()) {
            return false;
        }
        timeline_.Step("log-on after the stop: run-key instance pid " + Dec(pid) + " " + kArrow +
                       " reload, supervision is back: agent pid " + Dec(agent_.pid));
        return true;
    }

    bool Terminate() {
        if (!AdapterEndsSupervision(kTerminateEvent, "EVENT_ID_BREVANT_TERMINATE_WATCHDOG",
                                    "Product Adapter Terminate Event!!")) {
            return false;
        }
        timeline_.Step("Product Adapter set EVENT_ID_BREVANT_TERMINATE_WATCHDOG " + std::string(kArrow) +
                       " the monitor waits for agent " + Dec(agent_.pid) + " to end");

        const DWORD ended = agent_.pid;
        if (!CloseAgents() || !SupervisorEnded(supervisor_, 0) || !SawLog("Watch Dog finished")) {
            return false;
        }
        qotest::ResetAllAgentsExit();
        if (!Expect(!MutexExists(kWatchDogMutex), "the supervisor's mutex outlived it")) {
            return false;
        }
        timeline_.Step("agents told to close " + std::string(kArrow) + " agent " + Dec(ended) +
                       " exited (0), supervisor " + Dec(supervisor_.pid) + " finished with exit code 0");
        return true;
    }

    bool EndTheHost() {
        timeline_.Heading("the host's end: a final wait, and a successor that takes over");
        // The second shell logs off first, so the session is Wine's explorer.exe alone again.
        Mark();
        if (!Expect(qotest::MakeTestParentExit(shell_.pid), "cannot tell the second shell to end") ||
            !Expect(qotest::WaitForExitCode(shell_.handle.get(), kWaitMs).has_value(),
                    "the second shell did not end")) {
            return false;
        }
        timeline_.Step("the second shell (pid " + Dec(shell_.pid) + ") ended: a log-off; explorer.exe pid " +
                       Dec(wineShell_) + " is the session's shell again");

        keldRunning_.reset(CreateEventW(nullptr, TRUE, FALSE, qotest::kKeldRunningEvent));
        if (!Expect(keldRunning_.valid(), "cannot create the Keld running event")) {
            return false;
        }
        ResetEvent(keldRunning_.get());

        Mark();
        second_ = StartSupervisor(host_.pid, "supervisor 2");
        if (!second_.handle.valid() || !NewAgent() || !SawLog("Enter WaitForMultipleObjects Main Loop")) {
            return false;
        }
        timeline_.Step("Product Adapter started \"QoWatchDog.exe " + Dec(host_.pid) + "\" again " + kArrow +
                       " supervisor pid " + Dec(second_.pid) + ", gate open (SetStartEvent=1): agent pid " +
                       Dec(agent_.pid));

        Mark();
        if (!Expect(qotest::MakeTestParentExit(host_.pid), "cannot tell the host to end") ||
            !Expect(qotest::WaitForExitCode(host_.handle.get(), kWaitMs).has_value(),
                    "the host did not end") ||
            !SawLog("Product Adapter Ombrine Crash Event!!") ||
            !SawLog("Start to Wait for All Session Agent.")) {
            return false;
        }
        timeline_.Step("host " + Dec(host_.pid) + " ended " + kArrow + " supervisor " + Dec(second_.pid) +
                       " closes supervision; the monitor waits for agent " + Dec(agent_.pid));

        const DWORD ended = agent_.pid;
        if (!CloseAgents() || !SawLog("Wait for All Session Agent. dwRet=")) {
            return false;
        }
        qotest::ResetAllAgentsExit();
        if (!Expect(BecomesTrue([] { return EventExists(kStartKeldEvent); }, kWaitMs),
                    "EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC does not exist in the final wait") ||
            !Expect(qotest::IsRunning(second_.handle.get()), "the supervisor ended instead of waiting") ||
            !Expect(MutexExists(kWatchDogMutex), "the supervisor let go of its mutex in the final wait")) {
            return false;
        }
        timeline_.Step(
            "agent " + Dec(ended) + " exited (0) " + kArrow + " supervisor " + Dec(second_.pid) +
            " stays in its final wait, holding its mutex, with EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC");
        return true;
    }

    bool HandOver() {
        Mark();
        successorHost_ = qotest::StartTestParent();
        if (!Expect(successorHost_.handle.valid(),
                    "test_parent.exe did not start, error " + Dec(successorHost_.error))) {
            return false;
        }
        successor_ = StartSupervisor(successorHost_.pid, "successor");
        if (!successor_.handle.valid() || !SupervisorEnded(second_, 0) ||
            !Expect(WaitForSingleObject(keldRunning_.get(), kWaitMs) == WAIT_OBJECT_0,
                    "Keld did not start") ||
            !Expect(qotest::KeldServiceState() == SERVICE_RUNNING, "Keld does not report running") ||
            !NewAgent() || !SawLog("event BREVANT_START_KELD_WITHOUT_UAC and instance pre-checking done") ||
            !SawLog("Enter WaitForMultipleObjects Main Loop")) {
            return false;
        }
        keldStarted_ = true;
        timeline_.Step("new host pid " + Dec(successorHost_.pid) + " started supervisor pid " +
                       Dec(successor_.pid) + " " + kArrow +
                       " it set EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC; supervisor " + Dec(second_.pid) +
                       " started Keld (running) and finished with 0; pid " + Dec(successor_.pid) +
                       " took over: agent pid " + Dec(agent_.pid));
        return true;
    }

    bool TerminateTheSuccessor() {
        Mark();
        const DWORD ended = agent_.pid;
        if (!Expect(SetNamedEvent(kTerminateEvent), "cannot set EVENT_ID_BREVANT_TERMINATE_WATCHDOG") ||
            !SawLog("Start to Wait for All Session Agent.") ||
            !Expect(qotest::MakeAllAgentsExit(0), "cannot set the agents' broadcast exit event") ||
            !AgentEnded(0) || !SupervisorEnded(successor_, 0) || !SawLog("Watch Dog finished")) {
            return false;
        }
        qotest::ResetAllAgentsExit();
        timeline_.Step("Product Adapter set EVENT_ID_BREVANT_TERMINATE_WATCHDOG, agents told to close " +
                       std::string(kArrow) + " agent " + Dec(ended) + " exited (0), supervisor " +
                       Dec(successor_.pid) + " finished with exit code 0");
        return true;
    }

    // --- Observations ------------------------------------------------------------------------------

    // Notes a problem in the timeline when `condition` does not hold.
    bool Expect(bool condition, const std::string& problem) {
        if (!condition) {
            problems_.push_back(problem);
            timeline_.Problem(problem);
        }
        return condition;
    }

    // Log lines awaited from now on must come after the lines the log holds now.
    // The Product Adapter sets the stop or terminate event; the supervisor logs it and its monitor
    // starts waiting for the agents to end.
    bool AdapterEndsSupervision(const wchar_t* event, const std::string& name, const std::string& logged) {
        Mark();
        return Expect(SetNamedEvent(event), "cannot set " + name) && SawLog(logged) &&
               SawLog("Start to Wait for All Session Agent.");
    }

    // Ends the agents through their broadcast exit event (code 0) and waits for the current one.
    bool CloseAgents() {
        Mark();
        return Expect(qotest::MakeAllAgentsExit(0), "cannot set the agents' broadcast exit event") &&
               AgentEnded(0);
    }

    void Mark() { logMark_ = qotest::LogFile::Read(timeline_.LogPath()).records().size(); }

    // Waits for a line beginning with `prefix` after the mark.
    bool SawLog(const std::string& prefix) {
        const size_t mark = logMark_;
        const qotest::LogPredicate matches = qotest::MessageStartsWith(prefix);
        const bool seen = qotest::WaitForLog(
                              timeline_.LogPath(),
                              [&](const qotest::LogFile& log) {
                                  return log.IndexOf(matches, mark) != qotest::LogFile::npos;
                              },
                              kWaitMs)
                              .has_value();
        return Expect(seen, "no log line \"" + prefix + "\" within " + Dec(kWaitMs / 1000) + " s");
    }

    ChildProcess StartSupervisor(DWORD hostPid, const std::string& role) {
        ChildProcess supervisor = qotest::StartWatchDog(hostPid);
        if (Expect(supervisor.handle.valid(),
                   "QoWatchDog.exe did not start, error " + Dec(supervisor.error))) {
            timeline_.SetRole(supervisor.pid, role);
        }
        return supervisor;
    }

    bool SupervisorEnded(const ChildProcess& supervisor, DWORD expected) {
        const std::optional<DWORD> code = qotest::WaitForExitCode(supervisor.handle.get(), kWaitMs);
        const bool ended = Expect(code.has_value(), "supervisor " + Dec(supervisor.pid) + " did not end");
        supervisors_.push_back(Dec(supervisor.pid) + " (" +
                               (code ? ExitCodeText(*code) : std::string("running")) + ")");
        return ended &&
               Expect(*code == expected, "supervisor " + Dec(supervisor.pid) + " ended with " +
                                             ExitCodeText(*code) + ", not " + ExitCodeText(expected));
    }

    // A run-key instance as the Run key starts it at a log-on, to its end; it must end with 0.
    bool RunKeyInstance(DWORD& pid) {
        const ChildProcess instance =
            qotest::StartProcess(qotest::WatchDogExe(), std::wstring(), qotest::PlatformDir());
        if (!Expect(instance.handle.valid(),
                    "the run-key instance did not start, error " + Dec(instance.error))) {
            return false;
        }
        pid = instance.pid;
        ++runKeyInstances_;
        timeline_.SetRole(pid, "run-key");
        const std::optional<DWORD> code = qotest::WaitForExitCode(instance.handle.get(), kWaitMs);
        return Expect(code.has_value(), "the run-key instance did not end") &&
               Expect(*code == 0, "the run-key instance ended with " + ExitCodeText(*code));
    }

    // Waits for the next agent start and makes that agent the current one.
    bool NewAgent() {
        if (!Expect(starts_.WaitForStarts(1, kWaitMs),
                    "no agent started within " + Dec(kWaitMs / 1000) + " s")) {
            return false;
        }
        ++agentStarts_;
        std::vector<DWORD> fresh;
        for (DWORD pid : qotest::FindProcesses(L"QoSessionAgent*.exe")) {
            if (knownAgents_.insert(pid).second) {
                fresh.push_back(pid);
            }
        }
        if (!Expect(fresh.size() == 1,
                    Dec(static_cast<DWORD>(fresh.size())) + " new agent processes, not 1")) {
            return false;
        }
        agent_.pid = fresh.front();
        agent_.process.reset(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, agent_.pid));
        timeline_.SetRole(agent_.pid, "agent");
        return Expect(agent_.process.valid(), "cannot open agent " + Dec(agent_.pid));
    }

    // Waits for the current agent's end; it must end with `expected`.
    bool AgentEnded(DWORD expected) {
        const std::optional<DWORD> code = qotest::WaitForExitCode(agent_.process.get(), kWaitMs);
        return Expect(code.has_value(), "agent " + Dec(agent_.pid) + " did not end") &&
               Expect(*code == expected, "agent " + Dec(agent_.pid) + " ended with " + ExitCodeText(*code) +
                                             ", not " + ExitCodeText(expected));
    }

    Timeline timeline_;
    qotest::AgentStartCounter starts_;
    ChildProcess host_;
    ChildProcess supervisor_;
    ChildProcess shell_;
    ChildProcess second_;
    ChildProcess successorHost_;
    ChildProcess successor_;
    OwnedHandle keldRunning_;
    Agent agent_;
    std::set<DWORD> knownAgents_;
    DWORD wineShell_ = 0;
    DWORD session_ = 0;
    size_t logMark_ = 0;

    DWORD stepsDone_ = 0;
    std::string failedStep_;
    std::vector<std::string> problems_;
    std::vector<std::string> supervisors_;
    DWORD runKeyInstances_ = 0;
    DWORD agentStarts_ = 0;
    DWORD crashRestarts_ = 0;
    bool keldStarted_ = false;
};

}  // namespace

int main() {
    // The timeline is UTF-8 with LF line ends, written as it is; a console shows it as such.
    _setmode(_fileno(stdout), _O_BINARY);
    SetConsoleOutputCP(CP_UTF8);
    Life life;
    const bool asExpected = life.Run();
    life.CleanUp();
    return life.Summary(asExpected);
}
