#include "SessionTable.h"

#include <map>

#include "foundation/ProcessSession.h"

namespace {

// Read by the watchdog's threads while the test writes it.
SRWLOCK g_lock = SRWLOCK_INIT;
std::map<DWORD, DWORD> g_sessions;

}  // namespace

namespace qt {

void SetSession(DWORD pid, DWORD session) {
    AcquireSRWLockExclusive(&g_lock);
    g_sessions[pid] = session;
    ReleaseSRWLockExclusive(&g_lock);
}

void ForgetSession(DWORD pid) {
    AcquireSRWLockExclusive(&g_lock);
    g_sessions.erase(pid);
    ReleaseSRWLockExclusive(&g_lock);
}

}  // namespace qt

bool GetProcessSessionId(DWORD dwProcessId, DWORD& dwSessionId) {
    AcquireSRWLockShared(&g_lock);
    const auto it = g_sessions.find(dwProcessId);
    const bool bListed = it != g_sessions.end();
    if (bListed)
        dwSessionId = it->second;
    ReleaseSRWLockShared(&g_lock);
    return bListed || ProcessIdToSessionId(dwProcessId, &dwSessionId) != FALSE;
}
