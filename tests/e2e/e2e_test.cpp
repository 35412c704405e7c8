// The real QoWatchDog.exe as the client's components see it: started by the host or the Run key,
// the agents it starts, the events it creates and answers, the registry, its exit codes and its log.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "Harness.h"

namespace {

DWORD Exit(const qt::Proc& p) { return qt::ExitCode(p).value_or(0xDEAD); }

// QoWatchCtl run as a support engineer would: its exit code, and texts its output must hold. The
// log it reads holds no message that it does not know. Each status is also taken as metrics, kept
// per phase for the exposition format's checker (ctest e2e.promtool).
void ExpectCtl(const std::wstring& args, DWORD code, const std::vector<std::string>& texts) {
    const auto [exit, out] = qt::Ctl(args);
    EXPECT_EQ(code, exit) << qt::ToUtf8(args) << ":\n" << out;
    EXPECT_EQ(std::string::npos, out.find("UNKNOWN message")) << out;
    if (args == L"status") {
        const auto [metricsExit, metrics] = qt::Ctl(L"status --prometheus");
        EXPECT_EQ(code, metricsExit) << metrics;
        const size_t at = metrics.find("\"} 1\n");
        const size_t from = metrics.rfind('"', at - 1) + 1;
        ASSERT_NE(std::string::npos, at) << "no phase:\n" << metrics;
        const std::string phase = metrics.substr(from, at - from);
        std::ofstream(std::filesystem::path(qt::BuildPath("QO_METRICS_DIR") + L"\\" +
                                            std::wstring(phase.begin(), phase.end()) + L".prom"),
                      std::ios::binary)
            << metrics;
    }
    for (const std::string& text : texts) {
        EXPECT_NE(std::string::npos, out.find(text)) << qt::ToUtf8(args) << ": missing " << text << "\n"
                                                     << out;
    }
}

// The product's keys deleted under a supervisor at its gate, which is given two seconds to wake for
// it: one deleted before the gate's first arm wakes nothing, and either way the gate then waits
// with the tree gone.
void Uninstall() {
    qt::LogTail tail;
    tail.Mark();
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, qt::kProductKey);
    tail.Wait("Regkey is changed. check again.", 1, 2000);
}

TEST(Supervisor, WholeLife) {
    const std::wstring otherPath = L"C:\\windows;" + qt::PlatformDir() + L"\\bin";
    ASSERT_TRUE(qt::SetString(qt::kEnvKey, L"Path", otherPath + L";" + qt::PlatformDir(), REG_EXPAND_SZ));
    qt::Agents started;
    ExpectCtl(L"status", 5, {"Supervisor: none", "Keld service: stopped"});
    ExpectCtl(L"reload", 1, {"reload: refused: supervisor phase: none: no supervisor holds"});
    ExpectCtl(L"report \"" + qt::Scratch(L"report") + L"\\before.txt\"", 0, {"before.txt"});
    ExpectCtl(L"report --json", 9, {"report: takes only a file name"});
    ExpectCtl(L"status --json", 5,
              {"\"host_pid\":0,\"host\":null,\"last_end\":null,\"pending_requests\":[],\"supervisor_in_log\":"
               "null"});
    ExpectCtl(L"status --json --prometheus", 9, {"status: unknown or incomplete option --prometheus"});
    const qt::Proc host = qt::StartHelper(L"host.exe", L"idle");
    const qt::Proc supervisor = qt::StartWatchDog(std::to_wstring(host.pid));

    // The gate opens on the DWORD 1 alone, also in a key deleted and created again (a reinstall), and
    // its event exists while it waits.
    const char* const wake = "Regkey is changed. check again.";
    ASSERT_TRUE(qt::WaitLog("Wait for set start event."));
    EXPECT_TRUE(qt::Exists(qt::kStartService));
    // The gate reads the text 1 and stays shut. Before its first wake-up it may not be armed yet: if
    // the write does not wake it, another value is written until one does.
    ASSERT_TRUE(qt::SetString(qt::kInstallKey, L"SetStartEvent", L"1"));
    qt::LogTail tail;
    for (DWORD v = 1; v < 6 && !tail.Wait(wake, 1, 2000); ++v)
        qt::SetDword(qt::kInstallKey, L"QoTestArmed", v);
    const size_t w = qt::ReadLog().Count(wake);
    ASSERT_LE(1u, w);
    ExpectCtl(L"status", 2,
              {"at its start gate",
               "SetStartEvent: \"1\" (registry type 1, not a REG_DWORD): the start gate stays shut"});
    ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SetStartEvent", 2));
    ASSERT_TRUE(qt::WaitLog(wake, w + 1));
    EXPECT_EQ(w + 1, qt::ReadLog().Count(wake)) << "one wake-up per write";
    EXPECT_TRUE(qt::Find(L"QoSessionAgent.exe").empty());
    ExpectCtl(L"stop", 1, {"refused: supervisor phase: at its start gate"});  // and the gate armed again
    // The report reads the gate's manual-reset event without taking a signal.
    const std::wstring atGate = qt::Scratch(L"report") + L"\\gate.txt";
    ExpectCtl(L"report \"" + atGate + L"\"", 0, {"gate.txt"});
    const std::string gateReport = qt::ReadBytes(atGate);
    EXPECT_NE(std::string::npos, gateReport.find("Global\\EVENT_ID_BREVANT_START_SERVICE: exists, not set"))
        << gateReport;
    // The product's whole tree uninstalled and written again with 2: the gate follows the keys back
    // down and stays shut. Then its install key's parent deleted and the key written again with 1
    // at once: the gate opens.
    ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(HKEY_LOCAL_MACHINE, qt::kProductKey));
    ASSERT_TRUE(qt::WaitLog(wake, w + 2));
    ExpectCtl(L"status", 2, {"at its start gate"});
    ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SetStartEvent", 2));
    ASSERT_TRUE(qt::WaitLog("Install was deleted and created again"));
    ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(HKEY_LOCAL_MACHINE, qt::kInstallParentKey));
    ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SetStartEvent", 1));
    ASSERT_TRUE(started.Wait());
    EXPECT_FALSE(qt::Exists(qt::kStartService));
    EXPECT_EQ(otherPath + L";", qt::ReadString(qt::kEnvKey, L"Path")) << "own directory removed";
    ExpectCtl(L"status", 0,
              {"Supervisor: serving (process " + std::to_string(supervisor.pid) + ")",
               std::to_string(supervisor.pid) + " supervisor since 20",
               "SetStartEvent: 1 (REG_DWORD): the start gate opens",
               "Agent: " + qt::ToUtf8(qt::AgentDir()) + "\\QoSessionAgent.exe",
               "; agent " + std::to_string(qt::OnlyAgent()) + " since 20", "0 restart(s) in the last hour",
               "\nUp: 0d 0h ", "s; started by process " + std::to_string(host.pid) + " (host.exe, running)",
               "Last supervisor before it: none in the log"});
    // With the log moved away, the one watchdog running is the supervisor all the same.
    const std::wstring away = qt::LogPath() + L".away";
    ASSERT_TRUE(MoveFileW(qt::LogPath().c_str(), away.c_str()));
    ExpectCtl(
        L"status", 0,
        {"Supervisor: serving (process " + std::to_string(supervisor.pid) + "); the log does not tell of it",
         "the supervisor's load of it is not in the log", "(not there: moved away or deleted while",
         "; agent " + std::to_string(qt::OnlyAgent()) + " since 20"});
    ASSERT_TRUE(MoveFileW(away.c_str(), qt::LogPath().c_str()));

    // A crash restarts the agent; a graceful end switches the session off, and a log-on with the
    // same shell leaves it off; a new shell brings it back.
    // Meanwhile another process takes the log writers' mutex and keeps it: the crash is still seen
    // and logged, the agent restarted.
    const DWORD first = qt::OnlyAgent();
    const qt::Proc holder = qt::Hold(qt::kLogWriter);
    ASSERT_TRUE(qt::EndAgent(first, 0xC0000005));
    ASSERT_TRUE(started.Wait());
    TerminateProcess(holder.h.get(), 0);
    EXPECT_NE(first, qt::OnlyAgent());

    ASSERT_TRUE(qt::EndAgent(qt::OnlyAgent(), 0xC0000142));
    ASSERT_TRUE(qt::WaitLog("No session to monitor."));
    ExpectCtl(L"status", 0, {"no agent: its agent ended gracefully with exit 0xC0000142 DLL initialization"});
    EXPECT_EQ(0u, Exit(qt::StartWatchDog(L"")));
    ASSERT_TRUE(qt::WaitLog("Session Reload!!"));
    const qt::Proc shell = qt::StartHelper(L"explorer.exe", L"idle");
    EXPECT_EQ(0u, Exit(qt::StartWatchDog(L"0")));
    ASSERT_TRUE(started.Wait());

    // Stop ends supervision once the agents have ended; a reload starts it anew; terminate ends it.
    ExpectCtl(L"stop", 0, {"stop: set Global\\EVENT_ID_BREVANT_STOP_SERVICE"});
    ASSERT_TRUE(qt::WaitLog("KELD Stop"));
    qt::EndAllAgents(0);
    ASSERT_TRUE(qt::WaitLog("Wait for All Session Agent. dwRet=0"));
    qt::ResetAllAgents();
    ExpectCtl(
        L"status", 4,
        {"supervision stopped by a stop request", "no agent: supervision ended by a stop request at 20"});
    ExpectCtl(L"reload", 0, {});
    ASSERT_TRUE(started.Wait());

    // An agent that crashes at once is a crash loop; one that cannot be started again leaves its
    // session without an agent; a second agent in the session is flagged. Status tells each apart.
    ASSERT_TRUE(qt::SetDword(qt::kAgentKey, qt::kImmediate, 0xC0000005));
    ASSERT_TRUE(qt::EndAgent(qt::OnlyAgent(), 0xC0000005));
    ASSERT_TRUE(qt::WaitLog(" Create Session Agent successfully session ID = 1", 10));
    ExpectCtl(
        L"status --json", 6,
        {"{\"phase\":\"serving\"", "\"exit_code\":6,\"supervisor_pid\":" + std::to_string(supervisor.pid),
         "\"state\":\"crash_loop\"", "last exit 0xC0000005 access violation", "\"crash_loop\":true",
         "\"se_agnt_max_num_loaded\":2147483647"});
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, qt::kAgentKey, qt::kImmediate);
    ASSERT_TRUE(started.Wait());
    const std::wstring agentExe = qt::AgentDir() + L"\\QoSessionAgent.exe";
    ASSERT_TRUE(MoveFileW(agentExe.c_str(), (agentExe + L".moved").c_str()));
    ASSERT_TRUE(qt::EndAgent(qt::OnlyAgent(), 1));
    ASSERT_TRUE(qt::WaitLog("Session Agent re-create failed"));
    ASSERT_TRUE(MoveFileW((agentExe + L".moved").c_str(), agentExe.c_str()));
    ExpectCtl(L"status", 7,
              {"NO AGENT: its agent ended with exit 0x1 at 20",
               "and could not be restarted: CreateProcessAsUser GetLastError=2"});
    ExpectCtl(L"status --prometheus", 7,
              {"qowatchdog_sessions_without_agent 1\n",
               "qowatchdog_session_agents{session=\"1\",state=\"restart_failed\"} 0\n"});
    const qt::Log afterFailure = qt::ReadLog();
    const qt::Proc newShell = qt::StartHelper(L"explorer.exe", L"idle");
    ExpectCtl(L"reload --wait 60", 0, {"reload: served: supervisor " + std::to_string(supervisor.pid)});
    ASSERT_TRUE(started.Wait());
    const qt::Proc extra = qt::Start(agentExe, L"", qt::AgentDir());
    ASSERT_TRUE(started.Wait());
    ExpectCtl(L"status", 8, {"TWO AGENTS: 2 agents in one session"});
    ASSERT_TRUE(qt::EndAgent(extra.pid, 0));

    ExpectCtl(L"terminate", 0, {});
    ASSERT_TRUE(qt::WaitLog("KELD Stop", 2));
    ExpectCtl(L"status", 4, {"terminating: waits for its agents to end"});
    ExpectCtl(L"reload", 1, {"refused: supervisor phase: terminating"});
    qt::EndAllAgents(0);
    EXPECT_EQ(0u, Exit(supervisor));

    const qt::Log log = qt::ReadLog();
    EXPECT_TRUE(log.malformed.empty()) << log.malformed.front();
    EXPECT_EQ(6u, afterFailure.Errors()) << "the held writers' mutex, the recreated keys, the failed restart";
    EXPECT_EQ(afterFailure.Errors(), log.Errors());
    EXPECT_EQ(
        1u,
        log.Count("Log writer mutex Global\\QO_WATCH_DOG_LOG_WRITER held by another process for 2000 ms"));
    EXPECT_EQ("", qt::InOrder(log, {"Start Watch Dog",
                                    "Watch Dog started",
                                    "KELD path is found in system path, so remove it!",
                                    "Wait for set start event.",
                                    "Exit Reload User Session on Startup",
                                    "Enter WaitForMultipleObjects Main Loop",
                                    "exitcode=3221225477",
                                    "graceful=1, handle=",
                                    "session (1) is off.",
                                    "Watch Dog started by runkey",
                                    "Session Reload!!",
                                    "Session Reload!!",
                                    "session (1) is on again.",
                                    "Product Adapter Stop Event!!",
                                    "KELD Stop",
                                    "Session Reload!!",
                                    "Session Agent re-create failed",
                                    "session (1) is on again.",
                                    "Product Adapter Terminate Event!!",
                                    "Wait for All Monitor Thread. dwRet=0",
                                    "Watch Dog finished"}));
    const char* const start = " Create Session Agent successfully session ID = 1";
    EXPECT_EQ(afterFailure.Count(start) + 1, log.Count(start));
    EXPECT_EQ(1u, log.Count("No session to monitor.")) << "only once the last agent has ended gracefully";
    ExpectCtl(L"log", 0,
              {"supervisor started", "session 1: off", "run-key instance: asked the supervisor to reload",
               "session 1: on again", "request served: stop", "ERROR Log writer mutex",
               "session 1: CRASH LOOP: restarted",
               "session 1: agent ended, exit 0xC0000005 access violation; restarted",
               "session 1: agent ended, exit 0x1, could not be restarted: CreateProcessAsUser GetLastError=2",
               "session 1: agent (pid", "no longer supervised", "0 agent exit(s) not attributed"});
    // A few wake-ups for each write and deletion (the last write may be read without one of its own):
    // no line per turn.
    EXPECT_LE(w + 3, log.Count(wake));
    EXPECT_GE(w + 13, log.Count(wake));
    EXPECT_EQ(2u, log.Count("Install was deleted and created again: its SetStartEvent is watched again"));
}

// "Close agents and wait" then terminate; the host's end, a successor's hand-over that starts Keld,
// a third start refused; the update request that leaves supervision to the close from outside.
TEST(Supervisor, FinalWaitsHandOverAndUpdate) {
    qt::Agents started;
    ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SetStartEvent", 1));
    qt::Proc host = qt::StartHelper(L"host.exe", L"idle");
    const qt::Proc first = qt::StartWatchDog(std::to_wstring(host.pid));
    ASSERT_TRUE(started.Wait());
    ExpectCtl(L"close-and-wait", 0, {});
    ASSERT_TRUE(qt::WaitLog("KELD Stop"));  // agents ending before it would end gracefully
    qt::EndAllAgents(0);
    ASSERT_TRUE(qt::WaitLog("Wait for All Session Agent. dwRet=0"));
    qt::ResetAllAgents();
    ExpectCtl(L"status", 3, {"Supervisor: final wait"});
    ExpectCtl(L"reload", 1, {"refused: supervisor phase: final wait"});
    ASSERT_TRUE(qt::Signal(qt::kTerminate));
    EXPECT_EQ(0u, Exit(first));
    EXPECT_FALSE(qt::Exists(qt::kStartKeld));

    const qt::Proc second = qt::StartWatchDog(std::to_wstring(host.pid));
    ASSERT_TRUE(started.Wait());
    TerminateProcess(host.h.get(), 0);
    ASSERT_TRUE(qt::WaitLog("KELD Stop", 2));
    // The successor's hand-over: the predecessor starts Keld, then waits for its agent to end.
    const qt::Handle keldRunning = qt::Own(CreateEventW(nullptr, TRUE, FALSE, qt::kKeldRunning));
    host = qt::StartHelper(L"host.exe", L"idle");
    const qt::Proc third = qt::StartWatchDog(std::to_wstring(host.pid));
    ASSERT_TRUE(qt::WaitLog("Start KELD service."));
    ExpectCtl(L"status", 3,
              {"ending: asked to start Keld in its final wait, it waits for its agents to end (process " +
                   std::to_string(second.pid),
               std::to_string(third.pid) + " successor",
               "no longer restarted: supervision ended by the host process's end at 20"});
    ExpectCtl(L"terminate", 1, {"refused"});
    ASSERT_TRUE(qt::EndAgent(qt::OnlyAgent(), 0));
    EXPECT_EQ(0u, Exit(second));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(keldRunning.get(), qt::kWaitMs)) << "Keld started";
    ASSERT_TRUE(started.Wait());
    const qt::Proc refused = qt::StartWatchDog(std::to_wstring(host.pid));
    EXPECT_EQ(qt::kFailed, Exit(refused));

    const qt::Handle noStop = qt::Own(OpenEventW(SYNCHRONIZE, FALSE, qt::kCloseNoStop));
    // Set while the supervisor is suspended, the request is pending; resumed, it serves it.
    std::vector<qt::Handle> frozen;
    for (const DWORD tid : qt::ThreadsOf(third.pid)) {
        frozen.push_back(qt::Own(OpenThread(THREAD_SUSPEND_RESUME, FALSE, tid)));
        SuspendThread(frozen.back().get());
    }
    ExpectCtl(L"update --wait 1", 1,
              {"update: not served: supervisor " + std::to_string(third.pid) +
               " logged no Update Event!! within 1 s"});
    ExpectCtl(L"status", 0, {"serving (process " + std::to_string(third.pid) + "); REQUEST PENDING: update"});
    for (const qt::Handle& thread : frozen)
        ResumeThread(thread.get());
    ASSERT_TRUE(qt::WaitLog("Update Event!!"));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(noStop.get(), qt::kWaitMs));
    ExpectCtl(L"status", 4, {"closing for an update"});
    ExpectCtl(L"stop", 1, {"refused: supervisor phase: closing for an update"});
    ASSERT_TRUE(qt::EndAgent(qt::OnlyAgent(), 1));
    ASSERT_TRUE(started.Wait()) << "still restarting until the close comes from outside";
    ASSERT_TRUE(qt::Signal(qt::kClose));
    ASSERT_TRUE(qt::WaitLog("KELD Stop", 3));
    qt::EndAllAgents(0);
    EXPECT_EQ(0u, Exit(third));
    qt::ResetAllAgents();

    const qt::Log log = qt::ReadLog();
    EXPECT_EQ(
        "", qt::InOrder(
                log, {"Close Session Agent and Waiting Event!!", "Watch Dog finished",
                      "Product Adapter Ombrine Crash Event!!", "event BREVANT_START_KELD_WITHOUT_UAC exists",
                      "Start KELD service.", "Watch Dog finished",
                      "event BREVANT_START_KELD_WITHOUT_UAC and instance pre-checking done",
                      "Another instance is running!!", "Update Event!!", "Watch Dog finished"}));
    EXPECT_EQ(1u, log.Count("Start KELD service."));
    EXPECT_EQ(1u, log.Errors()) << "the refused start's alone: " << qt::InOrder(log, {"?"});
    ExpectCtl(L"start-keld", 1, {"start-keld: refused: supervisor phase: none"});

    // A supervisor in its final wait asked to start Keld while it already runs: it only ends.
    const qt::Proc fourth = qt::StartWatchDog(std::to_wstring(host.pid));
    ASSERT_TRUE(started.Wait());
    ExpectCtl(L"close-and-wait", 0, {});
    ASSERT_TRUE(qt::WaitLog("KELD Stop", 4));
    qt::EndAllAgents(0);
    ASSERT_TRUE(qt::WaitLog("Wait for All Session Agent. dwRet=0", 4));
    ExpectCtl(L"start-keld", 0, {"start-keld: set Global\\EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC"});
    EXPECT_EQ(0u, Exit(fourth));
    EXPECT_EQ(1u, qt::ReadLog().Count("KELD service is running."));

    // The agent limit as the supervisor loaded it, not as the registry holds it now; then a report.
    ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SeAgntMaxNum", 0));
    const qt::Proc fifth = qt::StartWatchDog(std::to_wstring(host.pid));
    ASSERT_TRUE(qt::WaitLog("Load SeAgntMaxNum=0"));
    ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SeAgntMaxNum", 5));
    ExpectCtl(L"reload --wait 60", 0, {"served"});
    ExpectCtl(L"status", 0,
              {"SeAgntMaxNum: 5 (REG_DWORD) in the registry; the supervisor loaded 0",
               "NO AGENT: left out by the agent limit: SeAgntMaxNum 0 as loaded"});
    ExpectCtl(L"status --json", 0,
              {"\"se_agnt_max_num\":\"5 (REG_DWORD)\",\"se_agnt_max_num_loaded\":0,",
               "\"sessions\":[{\"session\":"});
    const std::wstring report = qt::Scratch(L"report") + L"\\ticket.txt";
    ExpectCtl(L"report \"" + report + L"\"", 0, {"report: "});
    std::ostringstream text;
    text << std::ifstream(std::filesystem::path(report)).rdbuf();
    for (const char* part :
         {"QoWatchCtl 1.", "== status\nSupervisor: serving", "SetStartEvent = 1 (REG_DWORD)",
          "InstallDir = \"C:\\Program Files", "QoWatchDog.exe since 20", "== log file ",
          "[INFO]Load SeAgntMaxNum=0", "== named objects\n  Global\\_QO_WATCH_DOG_NAMED_MUTEX: exists",
          "EVENT_ID_BREVANT_WATCHDOG_CLOSE: exists, not set", "Path=agent\nName=QoSessionAgent.exe",
          "== timeline\n", "session 1: agent started (pid"}) {
        EXPECT_NE(std::string::npos, text.str().find(part)) << part << "\n" << text.str();
    }
    ASSERT_TRUE(qt::Signal(qt::kTerminate));
    EXPECT_EQ(0u, Exit(fifth));
    ExpectCtl(L"log", 0,
              {"request served: close agents and wait: final wait", "the host process ended: final wait",
               "hand-over: asks the waiting predecessor to start Keld",
               "asks the service control manager to start Keld (the log records no result)",
               "no longer supervised: the host process's end; it is not restarted when it ends",
               "ERROR Another instance is running!!", "request served: update", "6 supervisor start(s)"});

    // A supervisor killed with its agent left: no supervisor, the agent found by the log all the
    // same, and the killed one told as the last before.
    qt::ResetAllAgents();
    qt::LogTail tail;
    tail.Mark();
    const qt::Proc sixth = qt::StartWatchDog(std::to_wstring(host.pid));
    ASSERT_TRUE(tail.Wait(" Create Session Agent successfully session ID = 1", 1, qt::kWaitMs));
    TerminateProcess(sixth.h.get(), 9);
    EXPECT_EQ(9u, Exit(sixth));
    ExpectCtl(L"status", 5,
              {"Supervisor: none", "; agent " + std::to_string(qt::OnlyAgent()) + " since 20",
               "Last supervisor before it: process " + std::to_string(sixth.pid) +
                   " is gone, and its log has no end",
               "not supervised: no supervisor runs"});
    qt::EndAllAgents(0);
}

// Every start that must not supervise ends with -1 and says why, and starts no agent.
TEST(Supervisor, Refusals) {
    const std::wstring ini = qt::Scratch(L"platform");  // its Session_Agent.ini has no Name
    WritePrivateProfileStringW(L"Session_Agent", L"Path", L"agent", (ini + L"\\Session_Agent.ini").c_str());
    qt::Handle held;
    struct Case {
        std::function<void()> before;
        std::wstring args;
        std::function<void(const qt::Proc&)> during;
        std::string why;
    } cases[] = {
        {[&] { held = qt::Own(CreateEventW(nullptr, FALSE, TRUE, qt::kTerminate)); }, L"", nullptr,
         "Product Adapter notifies Watch Dog to terminate."},
        {[] {}, L"", [](const qt::Proc&) { qt::Signal(qt::kTerminate); },
         "service notify terminate while installation."},
        {[] {}, L"", [](const qt::Proc& host) { TerminateProcess(host.h.get(), 0); },
         "Service process is shutdown."},
        // A terminate request while the product's tree is uninstalled (the host's end waits on the same
        // list of handles in every state of the gate).
        {[] {}, L"", [](const qt::Proc&) { Uninstall(), qt::Signal(qt::kTerminate); },
         "service notify terminate while installation."},
        {[] {}, L"-5", nullptr, "OpenProcess dwPID=4294967291 , Err="},
        {[] {}, L"", nullptr, "Fail to get Session Agent path!!"},
        // Names held by objects of another type.
        {[&] { held = qt::Own(CreateEventW(nullptr, TRUE, FALSE, qt::kMutex)); }, L"", nullptr,
         "create mutex fail!!"},
        {[&] { held = qt::Own(CreateMutexW(nullptr, FALSE, qt::kReload)); }, L"", nullptr,
         "Failed to create watch dog reload event"},  // monitor threads run at this -1
        {[&] { held = qt::Own(CreateMutexW(nullptr, FALSE, qt::kClose)); }, L"", nullptr,
         "CEvent(EVENT_ID_BREVANT_WATCHDOG_CLOSE) Err=6"},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.why);
        qt::Reset();
        ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SetStartEvent", c.during ? 0 : 1));
        const qt::Proc host = qt::StartHelper(L"host.exe", L"idle");
        c.before();
        const qt::Proc watchdog =
            qt::Start(qt::WatchDogExe(), c.args.empty() ? std::to_wstring(host.pid) : c.args,
                      c.why.rfind("Fail to get", 0) == 0 ? ini : qt::PlatformDir());
        if (c.during) {
            ASSERT_TRUE(qt::WaitLog("Wait for set start event."));
            c.during(host);
        }
        EXPECT_EQ(qt::kFailed, Exit(watchdog));
        held.reset();
        const qt::Log log = qt::ReadLog();
        EXPECT_EQ(1u, log.Count(c.why)) << qt::InOrder(log, {c.why});
    }
}

// Where the log goes, told by run-key instances (no supervisor to notify: -1), and many of them at
// one log-on writing at once without a torn line.
TEST(Entry, LogLocationsAndRunKeyStorm) {
    const std::wstring tempLog = std::wstring(_wgetenv(L"TEMP")) + L"\\QoWatchDog.log";
    qt::Proc holder;  // of the log writers' mutex: its notice comes after the second line
    struct Case {
        std::function<void()> setUp;
        std::wstring log;
        std::string secondLine;  // empty: the platform's log, and no reason
    } cases[] = {
        {[] { qt::SetString(qt::kKeldKey, L"InstallDir", qt::KeldDir() + L"\\"); }, qt::LogPath(), ""},
        {[] { RegDeleteTreeW(HKEY_LOCAL_MACHINE, qt::kKeldKey); }, tempLog,
         "RegOpenKeyExW failed. GetLastError="},
        {[] { qt::SetString(qt::kKeldKey, L"InstallDir", L""); }, tempLog, "InstallDir is empty"},
        {[] { RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, qt::kKeldKey, L"InstallDir"); }, tempLog,
         "RegQueryValueW failed. GetLastError="},
        {[&] {
             qt::SetString(qt::kKeldKey, L"InstallDir", L"");
             holder = qt::Hold(qt::kLogWriter);
         },
         tempLog, "InstallDir is empty"},
        {[] { qt::SetString(qt::kKeldKey, L"InstallDir", L"C:\\QoMissing"); }, tempLog,
         "CreateDirectoryW failed. GetLastError=3, path=C:\\QoMissing\\debug"},
        {[] { qt::SetString(qt::kKeldKey, L"InstallDir", qt::WatchDogExe()); }, tempLog,
         "CreateDirectoryW failed. GetLastError=3, path=" + qt::ToUtf8(qt::WatchDogExe()) + "\\debug"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(qt::ToUtf8(c.log) + " " + c.secondLine);
        qt::Reset();
        holder = qt::Proc();
        DeleteFileW(tempLog.c_str());
        c.setUp();
        EXPECT_EQ(qt::kFailed, Exit(qt::StartWatchDog(L"")));
        const qt::Log log = qt::ReadLog(c.log);
        ASSERT_EQ((c.secondLine.empty() ? 4u : 5u) + (holder.h ? 1 : 0), log.lines.size())
            << qt::InOrder(log, {"?"});
        const std::string second = c.secondLine.empty() ? "Watch Dog started by runkey"
                                                        : "GetKeldDebugLogPath failed. msg:" + c.secondLine;
        EXPECT_EQ(0u, log.lines[1].message.rfind(second, 0));
        if (second.back() == '=') {  // a code, and nothing after it
            EXPECT_EQ(std::string::npos, log.lines[1].message.find_first_not_of("0123456789", second.size()))
                << log.lines[1].message;
        }
        EXPECT_EQ("Open Watch Dog Reload Event failed. Err=2", log.lines[log.lines.size() - 2].message);
        EXPECT_EQ("Exit Watch Dog From Run Key. nRet=-1", log.lines.back().message);
        // QoWatchCtl finds the log by the same rules.
        ExpectCtl(
            L"status", 5,
            {"Log: " + qt::ToUtf8(c.log) + (c.secondLine.empty() ? "\r\nKeld service" : " (the fallback: ")});
        ExpectCtl(L"log --json", 0, {"\"event\":\"run_key\",\"pid\":"});
    }

    qt::Reset();
    std::vector<qt::Proc> storm;
    for (int i = 0; i < 12; ++i)
        storm.push_back(qt::StartWatchDog(L""));
    for (const qt::Proc& p : storm)
        Exit(p);
    const qt::Log log = qt::ReadLog();
    EXPECT_EQ(48u, log.lines.size());
    EXPECT_TRUE(log.malformed.empty()) << log.malformed.front();
}

}  // namespace
