#pragma once

#include <windows.h>

#include <iosfwd>
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
};

std::vector<Process> Processes();

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
    DWORD dwSuccessor = 0;  // a starting supervisor that waits for this one to end
    std::vector<const wchar_t*> listens;
};

Phase ReadPhase(const LogState& log, const std::vector<Process>& processes);

// "status [--platform DIR] [--json]": the machine and the supervisor as they are now.
int Status(const std::wstring& strPlatform, bool bJson, std::ostream& out);

}  // namespace QoWatchCtl
