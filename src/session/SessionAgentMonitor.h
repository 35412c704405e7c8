#pragma once

#include <windows.h>

#include <map>
#include <vector>

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include "foundation/CSLock.h"
#include "foundation/SessionRecord.h"

class CWatchDog;

// Every monitor thread ever started; waited on and closed only at shutdown.
extern std::vector<HANDLE> g_vecMonitorThreads;

// Sessions per monitor thread: with its close and reload events a monitor waits on at most 64
// handles, the most one WaitForMultipleObjects takes.
const DWORD SESSIONS_PER_MONITOR = 62;

// One batch of 62 session ids: their records, the agents started for them, and the thread that
// starts, watches and restarts those agents.
class CSessionAgentMonitor : private boost::noncopyable {
public:
    explicit CSessionAgentMonitor(DWORD dwIndex);
    virtual ~CSessionAgentMonitor();

    // Builds the first wait list and starts the thread; false when the thread cannot be created.
    bool StartThread();
    // Adds the session or updates its explorer process id, then wakes the thread.
    void InsertSession(const SessionRecord& rec);
    void SetReloadEvent();

    static DWORD WINAPI MonitorThreadProc(LPVOID pParam);

    // The thread side; called with m_lock held.
    void RefreshWaitList();
    bool CreateAgent(SessionRecord& rec);
    void SessionOff(DWORD dwWaitIndex);
    bool RecreateAgent(DWORD dwWaitIndex);
    void WaitForAllAgents();

    DWORD GetWaitCount() const { return static_cast<DWORD>(m_vecHandles.size()); }
    const HANDLE* GetWaitHandles() const { return m_vecHandles.data(); }
    HANDLE GetWaitHandle(DWORD i) const { return m_vecHandles[i]; }

    // A copy of one session's record; false when the table has none. Takes m_lock.
    bool GetSession(DWORD dwSessionId, SessionRecord& rec);

    DWORD GetIndex() const { return m_dwIndex; }
    HANDLE GetThread() const { return m_hThread; }

private:
    DWORD Run();
    void CloseAgentHandles();

    CSLock m_lock;
    HANDLE m_hThread;
    HANDLE m_hReloadEvent;
    DWORD m_dwIndex;
    std::vector<HANDLE> m_vecHandles;
    std::vector<DWORD> m_vecSessionIds;
    std::map<DWORD, SessionRecord> m_mapSession;
    CWatchDog* m_pWatchDog;
};

// Spreads the registered sessions over monitors, one per batch of 62 session ids, created on
// demand. It has no lock of its own: it is used only under the watchdog's lock.
class CSessionManager : private boost::noncopyable {
public:
    explicit CSessionManager(INT32 nMaxSessions);
    virtual ~CSessionManager();

    // 0 when the session id is in range (whether or not it is registered), -1 otherwise.
    INT32 IsCreated(DWORD dwSessionId);
    // 1 on success, -1 for a session id out of range, -2 when no monitor could be had.
    INT32 InsertSession(const SessionRecord& rec);
    void RemoveMonitor(INT32 nIndex);

    DWORD GetMaxSessionId() const { return m_dwMaxSessionId; }
    DWORD GetMonitorCount() const { return m_dwMonitorCount; }
    boost::shared_ptr<CSessionAgentMonitor> GetMonitor(DWORD dwIndex) const;
    size_t GetLiveMonitorCount() const { return m_mapMonitor.size(); }

private:
    DWORD m_dwMaxSessionId;
    DWORD m_dwMonitorCount;
    DWORD m_dwSessionsPerMonitor;
    std::map<DWORD, boost::shared_ptr<CSessionAgentMonitor>> m_mapMonitor;
};
