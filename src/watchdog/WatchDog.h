#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include "foundation/CSLock.h"
#include "foundation/Contract.h"
#include "foundation/NeverDestroyed.h"
#include "foundation/ScopedHandle.h"
#include "foundation/logging.h"
#include "foundation/SessionRecord.h"
#include "session/MonitorHost.h"
#include "session/SessionAgentMonitor.h"

// The number of session ids the session manager is sized for.
const INT32 WATCHDOG_MAX_SESSIONS = 3000;
// SeAgntMaxNum while the registry does not set it.
const DWORD SE_AGNT_MAX_NUM_DEFAULT = 0x7FFFFFFF;

// Ties the watchdog together: the agent's paths, the close events, the parent process and the
// session manager. One reference-counted instance per process: the entry holds one reference
// and every monitor holds one until its thread has ended; the last release deletes it.
class CWatchDog : public IMonitorHost, private boost::noncopyable {
public:
    static CWatchDog* GetInstance();
    static void ReleaseInstance();

    // Makes both paths absolute, creates the close events and the session manager, and takes the
    // watchdog's own directory out of the system Path.
    bool Init(const wchar_t* agentPath, const wchar_t* workingPath);
    // The start gate: true once the install side has set SetStartEvent to 1.
    bool WaitStartEvent(DWORD dwPID);
    // Lists the user sessions and hands each to the session manager.
    void ReloadSessions() QO_EXCLUDES(m_lock);
    // Offers each record to the session manager, under the watchdog's lock.
    void RegisterSessions(const std::vector<SessionRecord>& sessions) QO_EXCLUDES(m_lock);
    // stopKeld: the close event the monitors end on; otherwise the one that leaves Keld running.
    bool SetCloseEvent(bool stopKeld);
    void RemoveMonitor(DWORD index) QO_EXCLUDES(m_lock);

    HANDLE GetParentProcess() const { return m_hParentProcess.Get(); }

    // What the monitors need of their host.
    HANDLE GetCloseEvent() const override { return m_hCloseEvent.Get(); }
    const std::wstring& GetAgentPath() const override { return m_strAgentPath; }
    const std::wstring& GetWorkingPath() const override { return m_strWorkingPath; }
    DWORD GetAgentLimit() override;
    void MonitorCreated() override;
    void MonitorEnded(DWORD dwIndex) override QO_EXCLUDES(m_lock);

    // Diagnostics: the reference count, the live monitors, and one session as its monitor holds
    // it (false when no monitor holds the session).
    static INT32 GetRefCount();
    size_t GetLiveMonitorCount() QO_EXCLUDES(m_lock);
    bool GetSessionSnapshot(DWORD dwSessionId, SessionSnapshot& snapshot) QO_EXCLUDES(m_lock);

    // Removes the current directory from the system Path when it stands there as a whole entry.
    bool RemoveKeldPathFromSystemPath();

private:
    CWatchDog();
    virtual ~CWatchDog();

    void RegisterLocked(const std::vector<SessionRecord>& sessions) QO_REQUIRES(m_lock);

    // The lock order: this watchdog's m_lock, then a monitor's m_lock or s_instanceLock, then the
    // log's. A monitor thread takes the first two only after it has released its own.
    static CNeverDestroyedLock s_instanceLock QO_ACQUIRED_BEFORE(g_logLock);
    CSLock m_lock QO_ACQUIRED_BEFORE(s_instanceLock, g_logLock);

    CKernelHandle m_hParentProcess;
    CKernelHandle m_hCloseEvent;
    CKernelHandle m_hCloseNoStopEvent;
    std::wstring m_strAgentPath;
    std::wstring m_strWorkingPath;
    // Made by Init before any monitor exists; the session manager has no lock of its own.
    boost::shared_ptr<CSessionManager> m_shpSessionManager QO_GUARDED_BY(m_lock);

    static CWatchDog* s_pInstance QO_GUARDED_BY(s_instanceLock);
    static INT32 s_nRefCount QO_GUARDED_BY(s_instanceLock);
};

// The largest number of agents one monitor thread starts and watches; read from the registry
// once per process, the first call on any thread doing the load.
DWORD GetSeAgntMaxNum();

// The wait of the start gate; closes what it opens, but not hParentProcess.
bool WaitForSetStartEvent(HANDLE hParentProcess);

// Where the watchdog's own directory may be cut out of a Path value: the start of the first
// occurrence that forms a whole entry, and its length; false when there is none.
bool FindPathEntry(const std::wstring& strPath, const std::wstring& strDirectory, size_t& nPos,
                   size_t& nLength);
