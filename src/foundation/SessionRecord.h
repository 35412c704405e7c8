#pragma once

#include <windows.h>

// One interactive user session, found by its explorer.exe. Copied by value; a new agent's handle
// comes back in hAgentProcess and passes at once to the owner of the monitor's session table.
struct SessionRecord {
    DWORD dwSessionId;     // session id of the session's explorer.exe
    DWORD dwExplorerPid;   // that explorer.exe; the agent is started with its token
    HANDLE hAgentProcess;  // the agent started in the session; null while none runs
    bool bOff;             // the agent ended gracefully or could not be started again
};
