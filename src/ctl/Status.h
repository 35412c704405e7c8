#pragma once

#include <windows.h>

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "ctl/LogTimeline.h"

namespace QoWatchCtl {

// Exit codes of "status", for scripts.
enum StatusCode {
    STATUS_SERVING = 0,           // every session with a shell has its agent or is off by a graceful end
    STATUS_SESSIONS_MISSING = 1,  // serving, but some session with a shell has no agent
    STATUS_AT_GATE = 2,           // starting, or waiting at its start gate
    STATUS_FINAL_WAIT = 3,        // entering or sitting in its final wait; a hand-over
    STATUS_STOPPED = 4,           // supervision stopped, terminating, or closing for an update
    STATUS_NONE = 5,              // no supervisor
    STATUS_CRASH_LOOP = 6,        // serving, but a session's agent is in a crash loop
    STATUS_RESTART_FAILED = 7,    // serving, but a session's agent could not be restarted
    STATUS_TWO_AGENTS = 8,        // serving, but a session has more than one agent
    STATUS_USAGE = 9
};

std::string Utf8(const std::wstring& text);

struct Process {
    DWORD dwPid = 0;
    DWORD dwSession = 0;
    std::wstring strName;    // the executable's file name
    std::wstring strImage;   // its full path; empty when the process cannot be queried
    long long started = -1;  // its creation, local time (LogReader's seconds); -1 when unknown
    DWORD dwParent = 0;      // the process that created it
};

std::vector<Process> Processes();

// The host a supervisor watches: the process id its command line begins with, read from its
// process parameters; 0 when they cannot be read.
DWORD HostOf(DWORD dwPid);

// The log as the watchdog's rules place it now, and when it is the fallback, why.
std::wstring LogPath(std::string& fallbackWhy);

// The supervisor's phase from its named objects and its log: what it does, the status code, which
// process it is, and the request events something waits on in that phase.
struct Phase {
    int nCode = STATUS_NONE;
    std::string id;  // none, starting, gate, serving, stopped, terminating, closing_agents, update,
                     // final_wait, hand_over, keld_asked
    std::string text;
    DWORD dwSupervisor = 0;
    DWORD dwSuccessor = 0;   // a starting supervisor that waits for this one to end
    bool bUnlogged = false;  // the supervisor is the one watchdog running, but the log does not tell of it
    std::vector<std::string> pending;  // requests set that its main loop has not served
    std::vector<const wchar_t*> listens;
};

Phase ReadPhase(const LogState& log, const std::vector<Process>& processes);

// A session as status tells it.
struct SessionView {
    std::vector<DWORD> shells;
    std::vector<Process> agents;
    std::string state;  // running, off, no_agent, restart_failed, crash_loop, two_agents, supervision_ended,
                        // gone
    std::string why;
    size_t restartsLastHour = 0;
    bool bCrashLoop = false;
};

// A watchdog process and its role: supervisor, successor, run_key or unknown.
struct WatchdogView {
    Process process;
    std::string role;
};

// The machine and the supervisor as they are now, gathered once and then rendered.
struct StatusReport {
    Phase phase;
    std::vector<WatchdogView> watchdogs;
    std::string gateText;  // SetStartEvent as stored
    bool bGateOpens = false;
    std::string maxText;  // SeAgntMaxNum as stored
    bool bMaxDword = false;
    long long loadedMax = -1;  // as the supervisor loaded it; -1 before
    std::string installDir, log, logFallback, logNote, keld;
    std::wstring platform;  // the supervisor's directory, or as given; empty when unknown
    bool bAgent = false;    // the agent's path is known
    std::string agentText;  // its path, or why it is unknown
    std::map<DWORD, SessionView> sessions;
    std::vector<std::string> recentErrors;
    long long lostLines = 0;
    long long uptime = -1;  // the supervisor's seconds since its start
    DWORD dwHost = 0;       // the process that started the supervisor (the host, which it watches)
    std::string host;       // its name and whether it runs
    std::string lastEnd;    // the last supervisor before this one: how and when it ended
};

StatusReport GatherStatus(const std::wstring& strPlatform);

// The watchdog's named objects by name: "absent", "exists", and for a manual-reset event whether
// it is set.
std::vector<std::pair<std::string, std::string>> NamedObjects();

enum class EFormat { TEXT, JSON, PROMETHEUS };

void RenderText(const StatusReport& report, std::ostream& out);
void RenderJson(const StatusReport& report, std::ostream& out);
// The Prometheus text exposition format, as a textfile collector reads it.
void RenderPrometheus(const StatusReport& report, std::ostream& out);

// "status [--platform DIR] [--json | --prometheus]": the machine and the supervisor as they are now;
// returns the status code.
int Status(const std::wstring& strPlatform, EFormat eFormat, std::ostream& out);

}  // namespace QoWatchCtl
