// The watchdog's parts called directly, against Wine's real files, registry, processes and
// window stations. Wine has one session (1): stand-in shells (the helper copied as explorer.exe) get
// the sessions of a terminal server from the lookup table this program links (SessionTable.h); the
// snapshot, the shell check, the token, the launch and the agents are real.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include "Harness.h"
#include "SessionTable.h"
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

TEST(Log, LineFormCutsAndFaults) {
    const std::wstring path = UseLog(L"log");
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"Grüße, Δ and 日本 Err=" + std::to_wstring(5));
    QO_LOG(QoMsg::WORKING_PATH_EMPTY, L"second");
    const log_settings settings = {20, path};
    write_line(&settings, 10, L"below the threshold\n");
    qt::Log log = qt::ReadLog(path);
    ASSERT_EQ(2u, log.lines.size()) << "malformed: " << log.malformed.size();
    EXPECT_EQ(GetCurrentProcessId(), log.lines[0].pid);
    EXPECT_EQ(".\\component_test", log.lines[0].source);
    EXPECT_EQ(u8"new system path=Grüße, Δ and 日本 Err=5", log.lines[0].message);
    EXPECT_FALSE(log.lines[0].error);
    EXPECT_TRUE(log.lines[1].error);

    // A file of exactly the limit is appended to; one byte over it, it is replaced.
    MakeFile(path, LOG_FILE_SIZE_LIMIT);
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"appended");
    EXPECT_GT(SizeOf(path), static_cast<size_t>(LOG_FILE_SIZE_LIMIT));
    MakeFile(path, LOG_FILE_SIZE_LIMIT + 1);
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"a new file");
    GetLogger().stream20() << L"half a statement";  // as one that failed half-way leaves it
    GetLogger().stream20().setstate(std::ios::badbit);
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"whole");
    EXPECT_EQ("new system path=whole", qt::ReadLog(path).lines.back().message);

    // A debug folder deleted meanwhile is made again. Lines that cannot be written (a folder that
    // cannot be made, a file held with no sharing) are lost and told before the next that is.
    const std::wstring dir = path.substr(0, path.rfind(L'\\'));
    std::filesystem::remove_all(std::filesystem::path(dir));
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"in a folder made again");
    GetLogger().set_file((dir + L"\\missing\\deeper\\QoWatchDog.log").c_str());
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"lost");
    GetLogger().set_file(path.c_str());
    {
        const qt::Handle held =
            qt::Own(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(held);
        QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"lost too");
    }
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"told");
    log = qt::ReadLog(path);
    EXPECT_EQ("",
              qt::InOrder(log, {"in a folder made again",
                                "2 log lines lost: the log could not be written, last error=32", "told"}));
    EXPECT_EQ(3u, log.lines.size()) << qt::InOrder(log, {"?"});
    std::thread other([] {
        for (int i = 0; i < 200; ++i)
            QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"other thread " + std::to_wstring(i));
    });
    for (int i = 0; i < 200; ++i)
        QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"main thread " + std::to_wstring(i));
    other.join();
    log = qt::ReadLog(path);
    EXPECT_EQ(403u, log.lines.size());
    EXPECT_TRUE(log.malformed.empty()) << log.malformed.front();

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
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"after the move");
    const std::wstring aside = path + std::to_wstring(before);
    const std::wstring asideLater = path + std::to_wstring(before + 1);
    EXPECT_TRUE(SizeOf(aside) == LOG_FILE_SIZE_LIMIT + 1 || SizeOf(asideLater) == LOG_FILE_SIZE_LIMIT + 1)
        << SizeOf(aside) << " " << SizeOf(asideLater);
    EXPECT_EQ(1u, qt::ReadLog(path).lines.size());
}

// A line that meets a file-size limit is written short: it is cut back to the line before it and
// counted, and told once there is room again. Only a limit on the process (ulimit -f) makes Wine
// write short; the entry component.Log.ShortWrite sets one and names it in QO_FILE_SIZE_LIMIT.
TEST(Log, ShortWriteCutBackAndTold) {
    const char* limit = std::getenv("QO_FILE_SIZE_LIMIT");
    if (limit == nullptr)
        GTEST_SKIP() << "runs under a file-size limit only: ctest -R component.Log.ShortWrite";
    const std::wstring path = UseLog(L"short");
    MakeFile(path, std::atol(limit) - 40);
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"a line longer than the 40 bytes of room left");
    EXPECT_EQ(static_cast<size_t>(std::atol(limit) - 40), SizeOf(path)) << "cut back";
    MakeFile(path, 0);
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, L"told");
    const qt::Log log = qt::ReadLog(path);
    ASSERT_EQ(2u, log.lines.size()) << qt::InOrder(log, {"?"});
    EXPECT_EQ("1 log lines lost: the log could not be written, last error=112", log.lines[0].message);
    EXPECT_EQ("new system path=told", log.lines[1].message);
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
    SetEnvironmentVariableW(L"QoTestOwn", L"1");        // the user's environment is not the watchdog's
    const HWINSTA station = GetProcessWindowStation();  // its handle, not winsta0's opened for a launch
    HANDLE token = nullptr;  // a thread token would mean the launch left impersonation on
    qt::Agents started;
    SessionRecord rec = Session(1, qt::Find(L"explorer.exe").front());
    ASSERT_TRUE(CreateSessionAgent(qt::AgentDir() + L"\\QoSessionAgent.exe", qt::AgentDir(), rec));
    qt::Handle agent = qt::Own(rec.hAgentProcess);
    ASSERT_TRUE(started.Wait());
    EXPECT_FALSE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token));
    const std::string report = qt::Report(GetProcessId(agent.get()));
    for (const std::wstring& line :
         {L"cwd=" + qt::AgentDir(), L"Path=" + qt::PlatformDir() + L";",
          std::wstring(L"ProgramW6432=C:\\Watchdog's PF"), std::wstring(L"QoTestOwn=\r"),
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
    EXPECT_FALSE(env.PrependValue(nullptr, L"C:\\x"));
    EXPECT_FALSE(env.PrependValue(L"Path", nullptr));
    env.SetVariable(L"QoTestNew", L"1");
    EXPECT_EQ(L"QoTestNew=1", env.GetEntries().back()) << "a variable the user lacks is appended";
    const size_t entries = env.GetEntries().size();
    env.SetVariable(L"QoTestNew", L"2");
    EXPECT_EQ(entries, env.GetEntries().size()) << "one it has is replaced, not appended";

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

// A terminal server: stand-in shells in sessions of the table, served by the real watchdog with its
// monitors, threads and agents. A step acts, waits until the watchdog has handled it, then compares
// every session, the monitors and the agent processes with a model of what the watchdog must hold.
struct Server {
    enum State { NONE, WAITING, RUNNING, OFF };  // NONE: no record, never registered or forgotten
    struct Entry {
        DWORD shell = 0, registered = 0;  // its live shell, and the one its record names
        State state = NONE;
    };
    std::map<DWORD, Entry> m;
    std::set<DWORD> monitors;  // the batches registered into since the last stop
    std::map<DWORD, qt::Proc> shells;
    CWatchDog* w = CWatchDog::GetInstance();
    qt::LogTail tail;
    qt::Agents ready;
    std::string steps, concerned;
    std::vector<DWORD> awaited;                                 // the sessions whose agents the step starts
    size_t wineFaults = 0, reloads = 0, checks = 0, every = 1;  // every: steps per process listing (0.1 s)

    explicit Server(const std::wstring& log) : tail(log) {}
    DWORD Agent(DWORD s) {
        SessionSnapshot snap = {};
        return w->GetSessionSnapshot(s, snap) ? snap.dwAgentPid : 0;
    }
    DWORD Shell(DWORD s, const std::wstring& name = L"explorer.exe") {
        if (m[s].shell != 0)
            EndShell(s);
        qt::Proc p = qt::StartHelper(name, L"idle");
        qt::SetSession(p.pid, s);
        m[s].shell = p.pid;
        return (shells[p.pid] = std::move(p)).pid;
    }
    bool EndShell(DWORD s) {
        const qt::Proc shell = std::move(shells[m[s].shell]);
        shells.erase(std::exchange(m[s].shell, 0));
        qt::ForgetSession(shell.pid);
        return TerminateProcess(shell.h.get(), 0) && qt::ExitCode(shell);
    }
    bool End(DWORD s, DWORD code) {
        const bool graceful = code == 0 || code == 0xC0000142 || code == 0x40010004;
        m[s].state = graceful ? OFF : RUNNING;
        const DWORD agent = Agent(s);
        awaited = {s};
        concerned = "agent " + std::to_string(agent) + " of session " + std::to_string(s) + " asked to end";
        if (!qt::EndAgent(agent, code)) {
            // What the log last told of the session: how its agent was lost.
            const qt::Log log = qt::ReadLog(tail.Path());
            const std::string id = std::to_string(s);
            std::vector<qt::Line> told;
            for (const qt::Line& line : log.lines) {
                if (line.message.find("ID = " + id) != std::string::npos ||
                    line.message.find("(" + id + ")") != std::string::npos ||
                    line.message.rfind("Session agent exits", 0) == 0)
                    told.push_back(line);
            }
            concerned += ", but its exit event does not exist; the log's last lines of it:" +
                         qt::Shown(told, told.size() > 12 ? told.size() - 12 : 0);
            return false;
        }
        return graceful ? tail.Wait("session (" + std::to_string(s) + ") is off.") : ready.Wait();
    }
    bool Reload() {
        int starts = 0;
        awaited.clear();
        for (auto& [s, x] : m) {
            if (x.shell != 0 && s <= 3037) {
                const bool off = x.state == OFF && x.registered == x.shell;
                if (x.state == NONE || (x.state == OFF && !off)) {
                    ++starts;
                    awaited.push_back(s);
                }
                x = {x.shell, x.shell, off ? OFF : RUNNING};
                monitors.insert(s / 62);
            }
        }
        w->ReloadSessions();
        ++reloads;
        return ready.Wait(starts, 90000);
    }
    bool Stop(size_t broken = 0) {  // monitors that have left their loop tell of no close
        const bool seen = w->SetCloseEvent(true) && tail.Wait("KELD Stop", monitors.size() - broken);
        qt::EndAllAgents(1);  // once their monitors have stopped
        WaitForAllMonitorThreads();
        qt::ResetAllAgents();
        for (auto& entry : m)
            entry.second = {entry.second.shell, 0, NONE};
        monitors.clear();
        return seen;
    }
    // Records whose shell cannot serve: their agents are refused and the sessions forgotten.
    bool Refused(const std::vector<DWORD>& ids, DWORD pid, const std::string& line) {
        for (const DWORD s : ids) {
            w->RegisterSessions({Session(s, pid)});
            monitors.insert(s / 62);
        }
        return tail.Wait(line, ids.size());
    }

    // What a step that did not settle waited for, with every thread's stack; the sessions' own
    // locks are not taken, as a launch may hold one.
    std::string Unsettled(const std::string& name) {
        std::set<std::string> started;
        for (const qt::Line& line : tail.Since())
            started.insert(line.message);
        std::string missing;
        for (const DWORD s : awaited) {
            if (!started.count(" Create Session Agent successfully session ID = " + std::to_string(s)))
                missing += " " + std::to_string(s);
        }
        qt::Stacks();
        return "did not settle: " + name + (concerned.empty() ? "" : "; " + concerned) +
               "; no agent started since for session(s):" + missing + "; steps:" + steps +
               "\nthe log since:" + tail.Seen();
    }

    // "" when the step settled and the watchdog matches the model, else what differs.
    std::string Step(const std::string& name, const std::function<bool()>& act) {
        steps += " " + name;
        std::optional<qt::Deadline> deadline;
        deadline.emplace("step " + name + "; steps:" + steps, 110000);  // a reload waits 90 s
        tail.Mark();
        awaited.clear();
        concerned.clear();
        const bool settled = act();
        const qt::Log since{tail.Since(), {}};
        if (since.Count("CreateProcessAsUser GetLastError=1359") != 0) {
            // Wine's own fault under load (bench/WineSpawn.cpp shows it), an error the watchdog never
            // makes: the watchdog handled it as a failed start; the model starts over from a stop.
            std::printf("step %s: Wine could not create a process (1359): stop and reload\n", name.c_str());
            ++wineFaults;
            deadline.reset();
            deadline.emplace("stop+reload after step " + name, 110000);
            tail.Mark();
            if (!Stop(since.Count("Session Agent re-create failed")) || !Reload())  // monitors that ended
                return Unsettled(name + ", then stop+reload");
        } else if (!settled) {
            return Unsettled(name);
        }
        static const char* const kNames[] = {"none", "waiting", "running", "off"};
        std::set<DWORD> agents;
        for (auto& [s, x] : m) {
            SessionSnapshot snap = {};
            const State state = !w->GetSessionSnapshot(s, snap) ? NONE : static_cast<State>(snap.eState + 1);
            if (state != x.state || (state == RUNNING && !agents.insert(snap.dwAgentPid).second))
                return "session " + std::to_string(s) + ": model " + kNames[x.state] + ", watchdog " +
                       kNames[state] + " agent " + std::to_string(snap.dwAgentPid) + "; steps:" + steps;
        }
        std::string seen = std::to_string(w->GetLiveMonitorCount()) + " monitors, ";
        if (++checks % every == 0) {
            const std::vector<DWORD> running = qt::Find(L"QoSessionAgent.exe");
            seen += std::to_string(running.size()) + " agent processes";
            if (std::set<DWORD>(running.begin(), running.end()) != agents)
                return seen + ", " + std::to_string(agents.size()) + " held by sessions; steps:" + steps;
        }
        return w->GetLiveMonitorCount() == monitors.size() ? "" : seen + "; steps:" + steps;
    }
};

// SeAgntMaxNum limits each monitor: with 1, of sessions 3 and 5 only 3 gets an agent, and 5 gets one
// at the refresh after 3's agent has ended gracefully; 65, in the next batch, has its own. An agent
// program gone at a restart switches the session off and ends its monitor; the close ends the rest,
// and the last release closes the watchdog's events.
TEST(Monitors, AgentLimitAgentGoneAndClose) {
    const std::wstring log = UseLog(L"monitors");
    SetCurrentDirectoryW(qt::PlatformDir().c_str());
    ASSERT_TRUE(qt::SetDword(qt::kInstallKey, L"SeAgntMaxNum", 1));
    const std::wstring agent = qt::Scratch(L"moved") + L"\\QoSessionAgent.exe";
    ASSERT_TRUE(CopyFileW((qt::AgentDir() + L"\\QoSessionAgent.exe").c_str(), agent.c_str(), FALSE));
    Server srv(log);
    ASSERT_TRUE(srv.w->Init(agent.c_str(), qt::AgentDir().c_str()));
    srv.w->RegisterSessions({Session(3, srv.Shell(3)), Session(5, srv.Shell(5)), Session(65, srv.Shell(65))});
    ASSERT_TRUE(srv.ready.Wait(2));
    SessionSnapshot five = {};
    ASSERT_TRUE(srv.w->GetSessionSnapshot(5, five));
    EXPECT_EQ(SESSION_WAITING, five.eState);
    EXPECT_NE(0u, srv.Agent(65));
    EXPECT_EQ(2u, srv.w->GetLiveMonitorCount());
    ASSERT_TRUE(srv.End(3, 0));
    ASSERT_TRUE(srv.ready.Wait());
    EXPECT_NE(0u, srv.Agent(5));

    ASSERT_TRUE(MoveFileW(agent.c_str(), (agent + L".away").c_str()));
    ASSERT_TRUE(qt::EndAgent(srv.Agent(5), 1));
    ASSERT_TRUE(qt::WaitLog("No Session Agent Needs to Wait.", 1, log));
    EXPECT_TRUE(srv.w->SetCloseEvent(false));
    ASSERT_TRUE(srv.Stop());
    EXPECT_EQ(0u, srv.w->GetLiveMonitorCount());
    WaitForAllMonitorThreads();
    EXPECT_EQ(1, CWatchDog::GetRefCount());
    CWatchDog::ReleaseInstance();
    EXPECT_EQ(0, CWatchDog::GetRefCount());
    EXPECT_FALSE(qt::Exists(qt::kClose)) << "the last release closes the watchdog's events";
    const qt::Log lines = qt::ReadLog(log);
    EXPECT_EQ(0u, lines.Count("No session to monitor.")) << "a monitor with an agent left has sessions";
    EXPECT_EQ(
        "", qt::InOrder(lines, {"Load SeAgntMaxNum=1", "session (3) is off.", "session ID = 5",
                                "CreateProcessAsUser GetLastError=2", "session (5) is off.",
                                "Session Agent re-create failed", "No Session Agent Needs to Wait.",
                                "KELD Stop", "Wait for All Session Agent. dwRet=0",
                                "Wait for All Monitor Thread. dwRet=0", "No Monitor Thread to be Waited."}));
}

// Every session of many: batches of 62 with a monitor thread each and one agent per session. In
// every batch an exit code decides between a restart and off, and a record whose shell has exited
// or now names another session is refused and forgotten until it is registered again. Then random
// events from a printed seed (QO_SOAK_SEED replays one), each checked against the model, among them
// one close that ends every monitor and a reload that brings each batch back.
TEST(Monitors, ManySessionsAgainstAModel) {
    const DWORD kSessions = 250, kEvents = 250;  // sessions 0 to 249: batches 0 to 4, four of them full
    SetCurrentDirectoryW(qt::PlatformDir().c_str());
    ASSERT_TRUE(qt::SetString(qt::kInstallKey, L"SeAgntMaxNum", L"1"));  // not a REG_DWORD: not taken
    Server srv(UseLog(L"sessions"));
    ASSERT_TRUE(srv.w->Init((qt::AgentDir() + L"\\QoSessionAgent.exe").c_str(), qt::AgentDir().c_str()));
    srv.m[1].shell = qt::Find(L"explorer.exe").front();  // Wine's own, in session 1
    qt::Proc gone = qt::StartHelper(L"explorer.exe", L"idle");
    TerminateProcess(gone.h.get(), 0);
    gone.h.reset();
    const qt::Proc notAShell = qt::StartHelper(L"iexplorer.exe", L"idle");
    qt::SetSession(notAShell.pid, 32);
    srv.m[32];
    for (DWORD s = 0; s < kSessions; ++s) {
        if (s != 1 && s % 62 != 30 && s % 62 != 31 && s != 32)
            srv.Shell(s, s == 5 ? L"EXPLORER.EXE" : L"explorer.exe");
    }
    srv.Shell(3037);
    srv.Shell(3038);
    {
        // What a process keeps once it has launched (cached keys, the object directory) is held
        // before the counts are taken.
        SessionRecord warm = Session(1, srv.m[1].shell);
        ASSERT_TRUE(CreateSessionAgent(qt::AgentDir() + L"\\QoSessionAgent.exe", qt::AgentDir(), warm));
        const qt::Proc agent{qt::Own(warm.hAgentProcess), GetProcessId(warm.hAgentProcess)};
        ASSERT_TRUE(srv.ready.Wait());
        ASSERT_TRUE(qt::EndAgent(agent.pid, 0));
        ASSERT_TRUE(qt::ExitCode(agent));
    }
    const auto before = qt::HandlesAndThreads();
    const size_t shellsBefore = srv.shells.size();
    // Before many processes have ended, so that no process has taken the exited shell's id yet.
    ASSERT_EQ("", srv.Step("gone", [&] {
        return srv.Refused({30, 92, 154, 216}, gone.pid, "OpenProcess Err=87");
    }));
    ASSERT_EQ("", srv.Step("reload", [&] { return srv.Reload(); }));
    for (DWORD b = 0; b < 4; ++b) {
        const DWORD codes[] = {0, 0xC0000142, 0x40010004, 1, 0xC0000005};
        for (DWORD i = 0; i < 5; ++i) {
            const DWORD s = 62 * b + 10 + i;
            ASSERT_EQ("", srv.Step("end" + std::to_string(s), [&] { return srv.End(s, codes[i]); }));
        }
        const std::string moved =
            "of session " + std::to_string(62 * b + 31) + " now names explorer.exe in session 3038";
        ASSERT_EQ("",
                  srv.Step("moved", [&] { return srv.Refused({62 * b + 31}, srv.m[3038].shell, moved); }));
        srv.Shell(62 * b + 30);
        srv.Shell(62 * b + 31);
    }
    ASSERT_EQ("", srv.Step("reload", [&] { return srv.Reload(); }));

    const char* seedText = std::getenv("QO_SOAK_SEED");
    const unsigned seed =
        seedText != nullptr ? static_cast<unsigned>(std::stoul(seedText)) : std::random_device()();
    std::printf("soak seed %u (QO_SOAK_SEED=%u replays it)\n", seed, seed);
    std::mt19937 rng(seed);
    srv.every = 10;
    const DWORD stopAt = rng() % kEvents;
    for (DWORD events = 0; events < kEvents;) {
        const DWORD s = rng() % kSessions, kind = rng() % 200, code = rng() % 5;
        const Server::Entry x = srv.m[s];
        const DWORD graceful[] = {0, 0xC0000142, 0x40010004},
                    crash[] = {1, 2, 0xC0000005, 0xC000013A, 0xFFFFFFFF};
        std::pair<std::string, std::function<bool()>> step;  // a crash 45 %, an end 20 %, a shell's end
        if (events == stopAt) {                              // 10 %, a new shell 12 %, a reload 13 %
            step = {"stop+reload", [&] { return srv.Stop() && srv.Reload(); }};
        } else if (kind < 90 && x.state == Server::RUNNING && x.shell != 0 && x.registered == x.shell) {
            step = {"crash" + std::to_string(s) + ":" + std::to_string(crash[code]),
                    [&] { return srv.End(s, crash[code]); }};
        } else if (kind >= 90 && kind < 130 && x.state == Server::RUNNING) {
            step = {"end" + std::to_string(s) + ":" + std::to_string(graceful[code % 3]),
                    [&] { return srv.End(s, graceful[code % 3]); }};
        } else if (kind >= 130 && kind < 150 && x.shell != 0 && s != 1) {
            step = {"shell-exit" + std::to_string(s), [&] { return srv.EndShell(s); }};
        } else if (kind >= 150 && kind < 174 && s != 1 && s != 32) {
            step = {"new-shell" + std::to_string(s), [&] { return srv.Shell(s) != 0; }};
        } else if (kind >= 174) {
            step = {"reload", [&] { return srv.Reload(); }};
        } else {
            continue;
        }
        ++events;
        ASSERT_EQ("", srv.Step(step.first, step.second)) << "seed " << seed;
    }

    srv.every = 1;
    ASSERT_EQ("", srv.Step("stop", [&] { return srv.Stop(); }));
    const auto after = qt::HandlesAndThreads();
    CWatchDog::ReleaseInstance();
    EXPECT_EQ(0, CWatchDog::GetRefCount());
    EXPECT_EQ(before.second, after.second) << "threads";
    EXPECT_EQ(before.first - shellsBefore, after.first - srv.shells.size()) << "handles";
    const qt::Log lines = qt::ReadLog(srv.tail.Path());
    EXPECT_EQ(1u, lines.Count("Load SeAgntMaxNum=2147483647"));
    EXPECT_EQ(srv.reloads, lines.Count("m_shpSessionManager->IsCreated Ret=-1")) << "3038, once a pass";
    std::printf("%zu sessions, %zu agents started, %lu soak events, %zu failed creations of Wine's\n",
                srv.m.size(), lines.Count(" Create Session Agent successfully"), kEvents, srv.wineFaults);
}

}  // namespace
