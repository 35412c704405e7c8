#pragma once

#include <windows.h>

#include <map>
#include <vector>

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include "foundation/CSLock.h"
#include "foundation/ScopedHandle.h"
#include "foundation/SessionRecord.h"
#include "foundation/logging.h"
#include "session/MonitorHost.h"

// Every monitor thread ever started; waited on and closed only at shutdown.
extern std::vector<CKernelHandle> g_vecMonitorThreads;

// A session in its monitor: waiting for an agent (none started yet, or the agent limit held it
// back), running (its agent is watched), or off (its agent ended gracefully or could not be started
// again; nothing is started until the session is registered with another shell).
enum ESessionState { SESSION_WAITING, SESSION_RUNNING, SESSION_OFF };

// What a monitor tells of one session: the state and, while it runs, its agent's process id.
struct SessionSnapshot {
    ESessionState eState;
    DWORD dwAgentPid;
};

// One batch of 62 session ids: their sessions, the agents started for them, and the thread that
// starts, watches and restarts those agents.
class CSessionAgentMonitor : private boost::noncopyable {
public:
    CSessionAgentMonitor(DWORD dwIndex, IMonitorHost* pHost);
    virtual ~CSessionAgentMonitor() {}

    // Builds the first wait list and starts the thread; false when the thread cannot be created.
    bool StartThread() QO_EXCLUDES(m_lock);
    // Adds the session or updates its explorer process id, then wakes the thread.
    void InsertSession(const SessionRecord& rec) QO_EXCLUDES(m_lock);
    void SetReloadEvent();

    // One session as the table holds it; false when the table has none. Takes m_lock.
    bool GetSession(DWORD dwSessionId, SessionSnapshot& snapshot) QO_EXCLUDES(m_lock);

private:
    struct CSession : private boost::noncopyable {
        DWORD dwExplorerPid = 0;
        CKernelHandle agent;
        bool bOff = false;
        ESessionState State() const {
            return agent.IsValid() ? SESSION_RUNNING : bOff ? SESSION_OFF : SESSION_WAITING;
        }
    };
    typedef std::map<DWORD, CSession> SessionTable;

    // The thread side.
    static DWORD WINAPI MonitorThreadProc(LPVOID pParam);
    DWORD Run() QO_EXCLUDES(m_lock);
    void RefreshWaitList() QO_REQUIRES(m_lock);
    void SessionOff(DWORD dwWaitIndex) QO_REQUIRES(m_lock);
    bool RecreateAgent(DWORD dwWaitIndex) QO_REQUIRES(m_lock);
    void WaitForAllAgents() QO_EXCLUDES(m_lock);
    DWORD GetWaitCount() const { return static_cast<DWORD>(m_vecHandles.size()); }
    const HANDLE* GetWaitHandles() const { return m_vecHandles.data(); }
    HANDLE GetWaitHandle(DWORD i) const { return m_vecHandles[i]; }
    void RebuildWaitList() QO_REQUIRES(m_lock);
    void StartMissingAgents() QO_REQUIRES(m_lock);
    bool CreateAgent(DWORD dwSessionId, CSession& session) QO_REQUIRES(m_lock);
    static void ReleaseAgent(CSession& session);
    // The session whose agent sits at this wait index, or the table's end.
    SessionTable::iterator SessionAt(DWORD dwWaitIndex) QO_REQUIRES(m_lock);

    // Taken after the watchdog's lock, before the log's; the monitor thread holds it for each
    // wake-up and takes no other lock under it but the log's.
    CSLock m_lock QO_ACQUIRED_BEFORE(g_logLock);
    CKernelHandle m_hReloadEvent;
    DWORD m_dwIndex;
    // The wait list: only the monitor thread changes it (StartThread builds it before the thread
    // exists), so the thread waits on it without the lock. The handles belong to the host and the table.
    std::vector<HANDLE> m_vecHandles;
    std::vector<DWORD> m_vecSessionIds;
    SessionTable m_mapSession QO_GUARDED_BY(m_lock);
    IMonitorHost* const m_pHost;  // never null
};

// Spreads the registered sessions over monitors, one per batch of 62 session ids, created on
// demand. It has no lock of its own: it is used only under the watchdog's lock.
class CSessionManager : private boost::noncopyable {
public:
    CSessionManager(INT32 nMaxSessions, IMonitorHost* pHost);
    virtual ~CSessionManager() {}

    // 0 when the session id is in range (whether or not it is registered), -1 otherwise.
    INT32 IsCreated(DWORD dwSessionId);
    // 1 on success, -1 for a session id out of range, -2 when no monitor could be had.
    INT32 InsertSession(const SessionRecord& rec);
    void RemoveMonitor(INT32 nIndex);

    boost::shared_ptr<CSessionAgentMonitor> GetMonitor(DWORD dwIndex) const;
    size_t GetLiveMonitorCount() const { return m_mapMonitor.size(); }

private:
    DWORD m_dwMaxSessionId;
    DWORD m_dwMonitorCount;
    DWORD m_dwSessionsPerMonitor;
    IMonitorHost* const m_pHost;  // never null
    std::map<DWORD, boost::shared_ptr<CSessionAgentMonitor>> m_mapMonitor;
};
