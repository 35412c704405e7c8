#pragma once

#include <windows.h>

// One interactive user session as discovery finds it, by its explorer.exe, and as registration
// hands it to a monitor, which keeps its own record (CSessionAgentMonitor::CSession). Copied by
// value. hAgentProcess and bOff serve CreateSessionAgent's callers only.
struct SessionRecord {
    DWORD dwSessionId;     // session id of the session's explorer.exe
    DWORD dwExplorerPid;   // that explorer.exe; the agent is started with its token
    HANDLE hAgentProcess;  // the agent CreateSessionAgent started, for its caller to close
    bool bOff;             // the agent ended gracefully or could not be started again
};

// Sessions per monitor thread: with its close and reload events a monitor waits on at most 64
// handles, the most one WaitForMultipleObjects takes. QoWatchCtl groups sessions by it too.
const DWORD SESSIONS_PER_MONITOR = 62;
