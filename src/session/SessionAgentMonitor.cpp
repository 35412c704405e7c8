#include "session/SessionAgentMonitor.h"

#include <new>

#include "foundation/TrimWorkingSet.h"
#include "foundation/logging.h"
#include "session/utilWinUserSession.h"

std::vector<CKernelHandle> g_vecMonitorThreads;

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

CSessionAgentMonitor::CSessionAgentMonitor(DWORD dwIndex, IMonitorHost* pHost)
    : m_hReloadEvent(CreateEventW(nullptr, FALSE, FALSE, L"")), m_dwIndex(dwIndex), m_pHost(pHost) {
    if (!m_hReloadEvent.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::MONITOR_EVENT_FAILED);
    }
    m_pHost->MonitorCreated();
}

bool CSessionAgentMonitor::StartThread() {
    {
        // No other thread sees the monitor yet; the lock is free and makes the rule hold everywhere.
        Guard<CSLock> guard(&m_lock);
        RefreshWaitList();
    }
    CKernelHandle thread(CreateThread(nullptr, 0, MonitorThreadProc, this, 0, nullptr));
    if (!thread.IsValid()) {
        return false;
    }
    g_vecMonitorThreads.push_back(std::move(thread));
    return true;
}

void CSessionAgentMonitor::InsertSession(const SessionRecord& rec) {
    Guard<CSLock> guard(&m_lock);
    const auto inserted = m_mapSession.try_emplace(rec.dwSessionId);
    CSession& session = inserted.first->second;
    // Another shell process means a new log-on or a restarted shell: serve the session again.
    if (!inserted.second && session.dwExplorerPid != rec.dwExplorerPid) {
        QO_LOG(QoMsg::SESSION_ON, rec.dwSessionId);
        session.bOff = false;
    }
    session.dwExplorerPid = rec.dwExplorerPid;
    SetReloadEvent();
}

void CSessionAgentMonitor::SetReloadEvent() {
    if (!m_hReloadEvent.IsValid()) {
        QO_LOG(QoMsg::MONITOR_EVENT_NULL);
        return;
    }
    if (!SetEvent(m_hReloadEvent.Get())) {
        QO_LOG_LAST_ERROR(QoMsg::MONITOR_RELOAD_FAILED);
    }
}

bool CSessionAgentMonitor::GetSession(DWORD dwSessionId, SessionSnapshot& snapshot) {
    Guard<CSLock> guard(&m_lock);
    const auto it = m_mapSession.find(dwSessionId);
    if (it == m_mapSession.end()) {
        return false;
    }
    snapshot.eState = it->second.State();
    snapshot.dwAgentPid = it->second.agent.IsValid() ? GetProcessId(it->second.agent.Get()) : 0;
    return true;
}

void CSessionAgentMonitor::RefreshWaitList() {
    RebuildWaitList();
    StartMissingAgents();
}

// The close event, the reload event, then every running agent in ascending session id.
void CSessionAgentMonitor::RebuildWaitList() {
    m_vecHandles.assign({m_pHost->GetCloseEvent(), m_hReloadEvent.Get()});
    m_vecSessionIds.assign({0, 0});
    for (const auto& entry : m_mapSession) {
        if (entry.second.State() == SESSION_RUNNING) {
            m_vecHandles.push_back(entry.second.agent.Get());
            m_vecSessionIds.push_back(entry.first);
        }
    }
}

// Starts the waiting sessions' agents while the limit allows, counting those that run already:
// agents that run are never stopped by it. A session whose agent cannot be started is forgotten
// until the watchdog registers it again.
void CSessionAgentMonitor::StartMissingAgents() {
    DWORD dwWatched = GetWaitCount() - FIRST_AGENT_WAIT_INDEX;
    auto it = m_mapSession.begin();
    while (it != m_mapSession.end() && dwWatched < m_pHost->GetAgentLimit()) {
        if (it->second.State() != SESSION_WAITING) {
            ++it;
        } else if (CreateAgent(it->first, it->second)) {
            m_vecHandles.push_back(it->second.agent.Get());
            m_vecSessionIds.push_back(it->first);
            ++dwWatched;
            ++it;
        } else {
            it = m_mapSession.erase(it);
        }
    }
}

bool CSessionAgentMonitor::CreateAgent(DWORD dwSessionId, CSession& session) {
    return StartSessionAgent(m_pHost->GetAgentPath(), m_pHost->GetWorkingPath(), dwSessionId,
                             session.dwExplorerPid, session.agent);
}

void CSessionAgentMonitor::ReleaseAgent(CSession& session) { session.agent.Close(); }

CSessionAgentMonitor::SessionTable::iterator CSessionAgentMonitor::SessionAt(DWORD dwWaitIndex) {
    return dwWaitIndex < m_vecSessionIds.size() ? m_mapSession.find(m_vecSessionIds[dwWaitIndex])
                                                : m_mapSession.end();
}

void CSessionAgentMonitor::SessionOff(DWORD dwWaitIndex) {
    const auto it = SessionAt(dwWaitIndex);
    if (it == m_mapSession.end()) {
        return;
    }
    ReleaseAgent(it->second);
    QO_LOG(QoMsg::SESSION_OFF, it->first);
    it->second.bOff = true;
    SetReloadEvent();
}

bool CSessionAgentMonitor::RecreateAgent(DWORD dwWaitIndex) {
    const auto it = SessionAt(dwWaitIndex);
    if (it == m_mapSession.end()) {
        return false;
    }
    ReleaseAgent(it->second);
    if (CreateAgent(it->first, it->second)) {
        return true;
    }
    QO_LOG(QoMsg::SESSION_OFF, it->first);
    it->second.bOff = true;
    SetReloadEvent();
    return false;
}

void CSessionAgentMonitor::WaitForAllAgents() {
    std::vector<HANDLE> vecAgents;
    {
        Guard<CSLock> guard(&m_lock);
        for (const auto& entry : m_mapSession) {
            if (entry.second.State() == SESSION_RUNNING) {
                vecAgents.push_back(entry.second.agent.Get());
            }
        }
    }
    if (vecAgents.empty()) {
        QO_LOG(QoMsg::NO_AGENT_TO_WAIT);
        return;
    }
    QO_LOG(QoMsg::AGENT_WAIT_BEGIN);
    const DWORD dwRet =
        WaitForMultipleObjects(static_cast<DWORD>(vecAgents.size()), vecAgents.data(), TRUE, INFINITE);
    QO_LOG(QoMsg::AGENT_WAIT_END, dwRet);
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
            QO_LOG(QoMsg::KELD_STOP);
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
            QO_LOG(QoMsg::AGENT_EXITS, bGraceful, GetWaitHandle(i), dwExitCode);
            if (bGraceful) {
                SessionOff(i);
            } else if (!RecreateAgent(i)) {
                QO_LOG(QoMsg::RECREATE_FAILED);
                break;
            }
            RefreshWaitList();
            n = GetWaitCount();
            if (n == FIRST_AGENT_WAIT_INDEX) {
                QO_LOG(QoMsg::NO_SESSION);
            }
            continue;
        }
        QO_LOG_LAST_ERROR(QoMsg::MONITOR_WAIT_FAILED, dwRet);
        break;
    }

    WaitForAllAgents();
    // Ending the monitor normally destroys it: nothing of it is used afterwards.
    m_pHost->MonitorEnded(m_dwIndex);
    return 0;
}

CSessionManager::CSessionManager(INT32 nMaxSessions, IMonitorHost* pHost)
    : m_dwMaxSessionId(0),
      m_dwMonitorCount(static_cast<DWORD>(nMaxSessions / static_cast<INT32>(SESSIONS_PER_MONITOR) + 1)),
      m_dwSessionsPerMonitor(SESSIONS_PER_MONITOR),
      m_pHost(pHost) {
    m_dwMaxSessionId = m_dwMonitorCount * m_dwSessionsPerMonitor - 1;
}

INT32 CSessionManager::IsCreated(DWORD dwSessionId) { return dwSessionId > m_dwMaxSessionId ? -1 : 0; }

INT32 CSessionManager::InsertSession(const SessionRecord& rec) {
    if (rec.dwSessionId > m_dwMaxSessionId) {
        return -1;
    }
    const DWORD dwIndex = rec.dwSessionId / m_dwSessionsPerMonitor;
    if (m_mapMonitor.find(dwIndex) == m_mapMonitor.end()) {
        boost::shared_ptr<CSessionAgentMonitor> shpMonitor(new (std::nothrow)
                                                               CSessionAgentMonitor(dwIndex, m_pHost));
        if (shpMonitor && shpMonitor->StartThread()) {
            m_mapMonitor[dwIndex] = shpMonitor;
        } else if (shpMonitor) {
            // No thread of its own will end it and give its hold on the host back.
            shpMonitor.reset();
            m_pHost->MonitorEnded(dwIndex);
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
