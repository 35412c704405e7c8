#include "session/SessionAgentMonitor.h"

#include <new>

#include "foundation/TrimWorkingSet.h"
#include "foundation/logging.h"
#include "session/utilWinUserSession.h"
#include "watchdog/WatchDog.h"

std::vector<HANDLE> g_vecMonitorThreads;

namespace {

// Exit codes of an agent that ended on purpose: a normal end, a failed start of its DLLs (the
// session is going away) and a debugger's termination.
bool IsGracefulExit(DWORD dwExitCode) {
    return dwExitCode == 0 || dwExitCode == static_cast<DWORD>(STATUS_DLL_INIT_FAILED) ||
           dwExitCode == static_cast<DWORD>(DBG_TERMINATE_PROCESS);
}

// The first two wait positions: the watchdog's close event, then the monitor's reload event.
const DWORD WAIT_INDEX_CLOSE = 0;
const DWORD WAIT_INDEX_RELOAD = 1;
const DWORD FIRST_AGENT_WAIT_INDEX = 2;

}  // namespace

CSessionAgentMonitor::CSessionAgentMonitor(DWORD dwIndex)
    : m_hThread(nullptr), m_hReloadEvent(nullptr), m_dwIndex(dwIndex), m_pWatchDog(nullptr) {
    m_hReloadEvent = CreateEventW(nullptr, FALSE, FALSE, L"");
    if (m_hReloadEvent == nullptr) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"CreateEvent(m_hReloadEvent) Err=" << dwErr);
    }
    m_pWatchDog = CWatchDog::GetInstance();
}

CSessionAgentMonitor::~CSessionAgentMonitor() {
    CloseAgentHandles();
    m_hThread = nullptr;  // owned by g_vecMonitorThreads
    if (m_hReloadEvent != nullptr) {
        CloseHandle(m_hReloadEvent);
        m_hReloadEvent = nullptr;
    }
}

void CSessionAgentMonitor::CloseAgentHandles() {
    for (auto& entry : m_mapSession) {
        if (entry.second.hAgentProcess != nullptr) {
            CloseHandle(entry.second.hAgentProcess);
            entry.second.hAgentProcess = nullptr;
        }
    }
}

bool CSessionAgentMonitor::StartThread() {
    RefreshWaitList();
    m_hThread = CreateThread(nullptr, 0, MonitorThreadProc, this, 0, nullptr);
    if (m_hThread == nullptr) {
        return false;
    }
    g_vecMonitorThreads.push_back(m_hThread);
    return true;
}

void CSessionAgentMonitor::InsertSession(const SessionRecord& rec) {
    Guard<CSLock> guard(&m_lock);
    auto it = m_mapSession.find(rec.dwSessionId);
    if (it != m_mapSession.end()) {
        // Another shell process means a new log-on or a restarted shell: serve the session again.
        if (it->second.dwExplorerPid != rec.dwExplorerPid) {
            LOG_INFO(L"session (" << rec.dwSessionId << L") is on again.");
            it->second.bOff = false;
        }
        it->second.dwExplorerPid = rec.dwExplorerPid;
    } else {
        m_mapSession.insert(std::make_pair(rec.dwSessionId, rec));
    }
    SetReloadEvent();
}

void CSessionAgentMonitor::SetReloadEvent() {
    if (m_hReloadEvent == nullptr) {
        LOG_ERROR(L"m_hReloadEvent is NULL.");
        return;
    }
    if (!SetEvent(m_hReloadEvent)) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"Set Reload Event Err=" << dwErr);
    }
}

bool CSessionAgentMonitor::GetSession(DWORD dwSessionId, SessionRecord& rec) {
    Guard<CSLock> guard(&m_lock);
    const auto it = m_mapSession.find(dwSessionId);
    if (it == m_mapSession.end()) {
        return false;
    }
    rec = it->second;
    return true;
}

void CSessionAgentMonitor::RefreshWaitList() {
    m_vecHandles.clear();
    m_vecSessionIds.clear();
    m_vecHandles.push_back(m_pWatchDog != nullptr ? m_pWatchDog->GetCloseEvent() : nullptr);
    m_vecSessionIds.push_back(0);
    m_vecHandles.push_back(m_hReloadEvent);
    m_vecSessionIds.push_back(0);

    DWORD dwWatched = 0;
    for (const auto& entry : m_mapSession) {
        if (entry.second.hAgentProcess != nullptr) {
            m_vecHandles.push_back(entry.second.hAgentProcess);
            m_vecSessionIds.push_back(entry.second.dwSessionId);
            ++dwWatched;
        }
    }

    // Start the missing agents while the limit allows; agents that run are never stopped by it.
    auto it = m_mapSession.begin();
    while (it != m_mapSession.end()) {
        if (dwWatched >= GetSeAgntMaxNum()) {
            break;
        }
        SessionRecord& rec = it->second;
        if (rec.hAgentProcess != nullptr || rec.bOff) {
            ++it;
            continue;
        }
        if (CreateAgent(rec)) {
            m_vecHandles.push_back(rec.hAgentProcess);
            m_vecSessionIds.push_back(rec.dwSessionId);
            ++dwWatched;
            ++it;
        } else {
            // Forgotten until the watchdog registers the session again.
            it = m_mapSession.erase(it);
        }
    }
}

bool CSessionAgentMonitor::CreateAgent(SessionRecord& rec) {
    if (m_pWatchDog == nullptr) {
        return false;
    }
    return CreateSessionAgent(m_pWatchDog->GetAgentPath(), m_pWatchDog->GetWorkingPath(), rec);
}

void CSessionAgentMonitor::SessionOff(DWORD dwWaitIndex) {
    if (dwWaitIndex >= m_vecSessionIds.size()) {
        return;
    }
    const auto it = m_mapSession.find(m_vecSessionIds[dwWaitIndex]);
    if (it == m_mapSession.end()) {
        return;
    }
    SessionRecord& rec = it->second;
    if (rec.hAgentProcess != nullptr) {
        CloseHandle(rec.hAgentProcess);
        rec.hAgentProcess = nullptr;
    }
    LOG_INFO(L"session (" << rec.dwSessionId << L") is off.");
    rec.bOff = true;
    SetReloadEvent();
}

bool CSessionAgentMonitor::RecreateAgent(DWORD dwWaitIndex) {
    if (dwWaitIndex >= m_vecSessionIds.size()) {
        return false;
    }
    const auto it = m_mapSession.find(m_vecSessionIds[dwWaitIndex]);
    if (it == m_mapSession.end()) {
        return false;
    }
    SessionRecord& rec = it->second;
    if (rec.hAgentProcess != nullptr) {
        CloseHandle(rec.hAgentProcess);
        rec.hAgentProcess = nullptr;
    }
    if (CreateAgent(rec)) {
        return true;
    }
    LOG_INFO(L"session (" << rec.dwSessionId << L") is off.");
    rec.bOff = true;
    SetReloadEvent();
    return false;
}

void CSessionAgentMonitor::WaitForAllAgents() {
    std::vector<HANDLE> vecAgents;
    {
        Guard<CSLock> guard(&m_lock);
        for (const auto& entry : m_mapSession) {
            if (entry.second.hAgentProcess != nullptr) {
                vecAgents.push_back(entry.second.hAgentProcess);
            }
        }
    }
    if (vecAgents.empty()) {
        LOG_INFO(L"No Session Agent Needs to Wait.");
        return;
    }
    LOG_INFO(L"Start to Wait for All Session Agent.");
    const DWORD dwRet =
        WaitForMultipleObjects(static_cast<DWORD>(vecAgents.size()), vecAgents.data(), TRUE, INFINITE);
    LOG_INFO(L"Wait for All Session Agent. dwRet=" << dwRet);
}

DWORD WINAPI CSessionAgentMonitor::MonitorThreadProc(LPVOID pParam) {
    if (pParam == nullptr) {
        return 0xFFFFFFFF;
    }
    return static_cast<CSessionAgentMonitor*>(pParam)->Run();
}

DWORD CSessionAgentMonitor::Run() {
    DWORD n = GetWaitCount();
    for (;;) {
        TrimWorkingSet();
        // Only this thread changes the wait list, so it is read here without the lock.
        const DWORD dwRet = WaitForMultipleObjects(n, GetWaitHandles(), FALSE, INFINITE);
        Guard<CSLock> guard(&m_lock);
        if (dwRet == WAIT_OBJECT_0 + WAIT_INDEX_CLOSE) {
            LOG_INFO(L"KELD Stop");
            break;
        }
        if (dwRet == WAIT_OBJECT_0 + WAIT_INDEX_RELOAD) {
            RefreshWaitList();
            n = GetWaitCount();
            continue;
        }
        if (dwRet >= WAIT_OBJECT_0 + FIRST_AGENT_WAIT_INDEX && dwRet < WAIT_OBJECT_0 + n) {
            const DWORD i = dwRet - WAIT_OBJECT_0;
            DWORD dwExitCode = 0;
            bool bGraceful = false;
            if (GetExitCodeProcess(GetWaitHandle(i), &dwExitCode)) {
                bGraceful = IsGracefulExit(dwExitCode);
            } else {
                dwExitCode = 0;
            }
            LOG_INFO(L"Session agent exits, graceful=" << bGraceful << L", handle=" << GetWaitHandle(i)
                                                       << L", exitcode=" << dwExitCode);
            if (bGraceful) {
                SessionOff(i);
            } else if (!RecreateAgent(i)) {
                LOG_ERROR(L"Session Agent re-create failed");
                break;
            }
            RefreshWaitList();
            n = GetWaitCount();
            if (n == FIRST_AGENT_WAIT_INDEX) {
                LOG_INFO(L"No session to monitor.");
            }
            continue;
        }
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"WaitForMultipleObjects, dwRet=" << dwRet << L", GetLastError=" << dwErr);
        break;
    }

    WaitForAllAgents();
    if (m_pWatchDog != nullptr) {
        // Removing the monitor normally destroys it: nothing of it is used afterwards.
        const DWORD dwIndex = m_dwIndex;
        CWatchDog* pWatchDog = m_pWatchDog;
        pWatchDog->RemoveMonitor(dwIndex);
        CWatchDog::ReleaseInstance();
    }
    return 0;
}

CSessionManager::CSessionManager(INT32 nMaxSessions)
    : m_dwMaxSessionId(0),
      m_dwMonitorCount(static_cast<DWORD>(nMaxSessions / static_cast<INT32>(SESSIONS_PER_MONITOR) + 1)),
      m_dwSessionsPerMonitor(SESSIONS_PER_MONITOR) {
    m_dwMaxSessionId = m_dwMonitorCount * m_dwSessionsPerMonitor - 1;
}

CSessionManager::~CSessionManager() {}

INT32 CSessionManager::IsCreated(DWORD dwSessionId) { return dwSessionId > m_dwMaxSessionId ? -1 : 0; }

INT32 CSessionManager::InsertSession(const SessionRecord& rec) {
    if (rec.dwSessionId > m_dwMaxSessionId) {
        return -1;
    }
    const DWORD dwIndex = rec.dwSessionId / m_dwSessionsPerMonitor;
    if (m_mapMonitor.find(dwIndex) == m_mapMonitor.end()) {
        CSessionAgentMonitor* pMonitor = new (std::nothrow) CSessionAgentMonitor(dwIndex);
        if (pMonitor != nullptr) {
            if (pMonitor->StartThread()) {
                m_mapMonitor[dwIndex] = boost::shared_ptr<CSessionAgentMonitor>(pMonitor);
            } else {
                // No thread of its own will give its watchdog reference back.
                delete pMonitor;
                CWatchDog::ReleaseInstance();
            }
        }
    }
    const auto it = m_mapMonitor.find(dwIndex);
    if (it == m_mapMonitor.end() || !it->second) {
        return -2;
    }
    it->second->InsertSession(rec);
    return 1;
}

void CSessionManager::RemoveMonitor(INT32 nIndex) {
    if (nIndex < 0 || static_cast<DWORD>(nIndex) >= m_dwMonitorCount) {
        return;
    }
    m_mapMonitor.erase(static_cast<DWORD>(nIndex));
}

boost::shared_ptr<CSessionAgentMonitor> CSessionManager::GetMonitor(DWORD dwIndex) const {
    const auto it = m_mapMonitor.find(dwIndex);
    return it != m_mapMonitor.end() ? it->second : boost::shared_ptr<CSessionAgentMonitor>();
}
