#include "watchdog/WatchDog.h"

#include <direct.h>
#include <stdlib.h>

#include <algorithm>
#include <new>
#include <vector>

#include "foundation/CRegKey.h"
#include "foundation/ScopedHandle.h"
#include "foundation/SessionRecord.h"
#include "foundation/TrimWorkingSet.h"
#include "foundation/kernel_objects.h"
#include "foundation/logging.h"
#include "session/SessionAgentMonitor.h"
#include "session/utilWinUserSession.h"

CWatchDog* CWatchDog::s_pInstance = nullptr;
INT32 CWatchDog::s_nRefCount = 0;
CNeverDestroyedLock CWatchDog::s_instanceLock;

namespace {

const DWORD FULL_PATH_CHARS = MAX_PATH;

INIT_ONCE g_seAgntMaxNumOnce = INIT_ONCE_STATIC_INIT;
DWORD g_dwSeAgntMaxNum = SE_AGNT_MAX_NUM_DEFAULT;

BOOL CALLBACK LoadSeAgntMaxNum(PINIT_ONCE, PVOID, PVOID*) {
    CRegKey key;
    const LONG lResult = key.Open(HKEY_LOCAL_MACHINE, REG_INSTALL_KEY, KEY_READ);
    if (lResult != ERROR_SUCCESS) {
        QO_LOG(QoMsg::INSTALL_KEY_OPEN_FAILED, lResult);
    } else {
        key.QueryDword(REG_VALUE_SE_AGNT_MAX_NUM, g_dwSeAgntMaxNum);  // unchanged unless a REG_DWORD
    }
    QO_LOG(QoMsg::SE_AGNT_MAX_NUM, g_dwSeAgntMaxNum);
    return TRUE;
}

// Converts a path to its full form in a MAX_PATH buffer; empty when it does not fit or fails.
std::wstring FullPath(const wchar_t* pszPath) {
    wchar_t szFull[FULL_PATH_CHARS + 1] = {};
    GetFullPathNameW(pszPath, FULL_PATH_CHARS, szFull, nullptr);
    return std::wstring(szFull);
}

}  // namespace

DWORD GetSeAgntMaxNum() {
    InitOnceExecuteOnce(&g_seAgntMaxNumOnce, LoadSeAgntMaxNum, nullptr, nullptr);
    return g_dwSeAgntMaxNum;
}

bool FindPathEntry(const std::wstring& strPath, const std::wstring& strDirectory, size_t& nPos,
                   size_t& nLength) {
    if (strDirectory.empty()) {
        return false;
    }
    // A drive root already ends in a backslash; any other directory may stand in Path with one.
    const bool bRoot = strDirectory.back() == L'\\';
    for (size_t n = strPath.find(strDirectory); n != std::wstring::npos;
         n = strPath.find(strDirectory, n + 1)) {
        const size_t nEnd = n + strDirectory.size();
        if (n != 0 && strPath[n - 1] != L';') {
            continue;  // the end of a longer entry
        }
        if (nEnd == strPath.size() || strPath[nEnd] == L';') {
            nPos = n;
            nLength = strDirectory.size();
            return true;
        }
        if (!bRoot && strPath[nEnd] == L'\\' && (nEnd + 1 == strPath.size() || strPath[nEnd + 1] == L';')) {
            nPos = n;
            nLength = strDirectory.size() + 1;
            return true;
        }
        // Otherwise a longer entry begins with the directory (D:\Platform\bin, D:\Platform2): keep it.
    }
    return false;
}

CWatchDog::CWatchDog() {}

CWatchDog::~CWatchDog() {}

CWatchDog* CWatchDog::GetInstance() {
    Guard<CSLock> guard(&s_instanceLock.Get());
    if (s_pInstance == nullptr) {
        s_pInstance = new (std::nothrow) CWatchDog();
    }
    ++s_nRefCount;  // counted also when the allocation failed: every call is matched by a release
    return s_pInstance;
}

void CWatchDog::ReleaseInstance() {
    Guard<CSLock> guard(&s_instanceLock.Get());
    if (s_nRefCount > 0) {
        --s_nRefCount;
    }
    if (s_nRefCount == 0 && s_pInstance != nullptr) {
        delete s_pInstance;
        s_pInstance = nullptr;
    }
}

INT32 CWatchDog::GetRefCount() {
    Guard<CSLock> guard(&s_instanceLock.Get());
    return s_nRefCount;
}

size_t CWatchDog::GetLiveMonitorCount() {
    Guard<CSLock> guard(&m_lock);
    return m_shpSessionManager ? m_shpSessionManager->GetLiveMonitorCount() : 0;
}

bool CWatchDog::GetSessionSnapshot(DWORD dwSessionId, SessionSnapshot& snapshot) {
    Guard<CSLock> guard(&m_lock);
    if (!m_shpSessionManager) {
        return false;
    }
    const boost::shared_ptr<CSessionAgentMonitor> shpMonitor =
        m_shpSessionManager->GetMonitor(dwSessionId / SESSIONS_PER_MONITOR);
    return shpMonitor && shpMonitor->GetSession(dwSessionId, snapshot);
}

DWORD CWatchDog::GetAgentLimit() { return GetSeAgntMaxNum(); }

// Each monitor holds a reference, so the watchdog outlives every monitor thread.
void CWatchDog::MonitorCreated() { GetInstance(); }

void CWatchDog::MonitorEnded(DWORD dwIndex) {
    RemoveMonitor(dwIndex);
    ReleaseInstance();
}

bool CWatchDog::Init(const wchar_t* agentPath, const wchar_t* workingPath) {
    if (agentPath == nullptr || workingPath == nullptr || *agentPath == L'\0' || *workingPath == L'\0') {
        return false;
    }
    const std::wstring strWorking = FullPath(workingPath);
    if (strWorking.empty()) {
        QO_LOG(QoMsg::WORKING_PATH_EMPTY, strWorking);
        return false;
    }
    m_strWorkingPath = strWorking;
    const std::wstring strAgent = FullPath(agentPath);
    if (strAgent.empty()) {
        QO_LOG(QoMsg::AGENT_PATH_EMPTY, strAgent);
        return false;
    }
    m_strAgentPath = strAgent;

    {
        DefSecAttr secAttr(DEF_SEC_ATTR_SDDL);
        m_hCloseEvent.Reset(CreateEventW(&secAttr, TRUE, FALSE, EVENT_ID_BREVANT_WATCHDOG_CLOSE));
        if (!m_hCloseEvent.IsValid()) {
            QO_LOG_LAST_ERROR(QoMsg::CLOSE_EVENT_CREATE_FAILED);
        }
        m_hCloseNoStopEvent.Reset(
            CreateEventW(&secAttr, TRUE, FALSE, EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD));
        if (!m_hCloseNoStopEvent.IsValid()) {
            QO_LOG_LAST_ERROR(QoMsg::CLOSE_NO_STOP_KELD_EVENT_FAILED);
        }
    }

    {
        Guard<CSLock> guard(&m_lock);
        m_shpSessionManager.reset(new (std::nothrow) CSessionManager(WATCHDOG_MAX_SESSIONS, this));
        if (!m_shpSessionManager) {
            QO_LOG(QoMsg::SESSION_MANAGER_FAILED);
            return false;
        }
    }
    RemoveKeldPathFromSystemPath();
    return true;
}

bool CWatchDog::SetCloseEvent(bool stopKeld) {
    HANDLE hEvent = stopKeld ? m_hCloseEvent.Get() : m_hCloseNoStopEvent.Get();
    return hEvent != nullptr && SetEvent(hEvent) != FALSE;
}

void CWatchDog::RemoveMonitor(DWORD index) {
    Guard<CSLock> guard(&m_lock);
    if (m_shpSessionManager) {
        Guard<CSLock> instanceGuard(&s_instanceLock.Get());
        m_shpSessionManager->RemoveMonitor(static_cast<INT32>(index));
    }
}

void CWatchDog::ReloadSessions() {
    Guard<CSLock> guard(&m_lock);
    ResetEvent(m_hCloseEvent.Get());
    if (!m_shpSessionManager) {
        QO_LOG(QoMsg::SESSION_MANAGER_NULL);
        return;
    }
    std::vector<SessionRecord> sessions;
    if (!EnumUserSession(sessions)) {
        return;
    }
    RegisterLocked(sessions);
}

void CWatchDog::RegisterSessions(const std::vector<SessionRecord>& sessions) {
    Guard<CSLock> guard(&m_lock);
    if (m_shpSessionManager) {
        RegisterLocked(sessions);
    }
}

void CWatchDog::RegisterLocked(const std::vector<SessionRecord>& sessions) {
    for (const SessionRecord& record : sessions) {
        const INT32 nCreated = m_shpSessionManager->IsCreated(record.dwSessionId);
        if (nCreated != 0) {
            QO_LOG(QoMsg::SESSION_CREATED, nCreated);
            continue;
        }
        const INT32 nInserted = m_shpSessionManager->InsertSession(record);
        if (nInserted != 1) {
            QO_LOG(QoMsg::INSERT_SESSION_FAILED, nInserted);
        }
    }
}

bool CWatchDog::RemoveKeldPathFromSystemPath() {
    std::wstring strPath;
    if (!GetSystemEnvPath(strPath)) {
        return false;
    }
    const boost::shared_ptr<wchar_t> shpCwd(_wgetcwd(nullptr, 0), free);
    if (!shpCwd) {
        QO_LOG(QoMsg::GETCWD_FAILED);
        return false;
    }
    const std::wstring strDirectory(shpCwd.get());

    size_t nPos = 0;
    size_t nLength = 0;
    if (!FindPathEntry(strPath, strDirectory, nPos, nLength)) {
        return true;
    }
    QO_LOG(QoMsg::KELD_PATH_REMOVED);
    strPath.erase(nPos, nLength);
    QO_LOG(QoMsg::NEW_SYSTEM_PATH, strPath);
    SetSystemEnvPath(strPath);
    return true;
}

bool CWatchDog::WaitStartEvent(DWORD dwPID) {
    CEvent closeEvent(EVENT_ID_BREVANT_WATCHDOG_CLOSE, true);
    if (!closeEvent.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::CLOSE_EVENT_OPEN_FAILED);
        return false;
    }
    DefSecAttr secAttr(DEF_SEC_ATTR_SDDL);
    // Exists exactly while the gate waits: other components may look for it.
    CEvent startServiceEvent(EVENT_ID_BREVANT_START_SERVICE, true, &secAttr);
    if (!startServiceEvent.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::START_SERVICE_EVENT_FAILED);
        return false;
    }
    m_hParentProcess.Reset(
        OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, dwPID));
    if (!m_hParentProcess.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::HOST_OPEN_FAILED, dwPID);
        return false;
    }
    TrimWorkingSet();
    return WaitForSetStartEvent(m_hParentProcess.Get());
}

namespace {

bool IsStartValueSet(CRegKey& key) {
    DWORD dwValue = 0;
    return key.QueryDword(REG_VALUE_SET_START_EVENT, dwValue) == ERROR_SUCCESS && dwValue == 1;
}

// An uninstall deletes the product's keys from the bottom up and a reinstall writes them again from
// the top. While the install key exists the gate watches its values and, for its deletion, the
// subkeys of its parent and grandparent (Windows also tells of a deleted key through the key itself,
// Wine only through its parent). While it is missing the gate watches the subkeys of its nearest
// ancestor that exists, up to Software, and of that ancestor's parent, so every key deleted or
// written on the way wakes it.
class CGateWatch : private boost::noncopyable {
public:
    CGateWatch(CRegKey& installKey, HANDLE hChangeEvent)
        : m_installKey(installKey), m_hChangeEvent(hChangeEvent), m_nWatched(0), m_bLost(false) {
        for (std::wstring strKey = REG_INSTALL_KEY; strKey.find(L'\\') != std::wstring::npos;) {
            strKey.erase(strKey.rfind(L'\\'));
            m_vecAncestors.push_back(strKey);
        }
    }
    virtual ~CGateWatch() {}

    // Arms the change event on what exists now; ERROR_SUCCESS once something is armed or the event
    // is set. The keys may change under it: each attempt looks again.
    LONG Arm() {
        for (int nAttempt = 0; nAttempt < ARM_ATTEMPTS; ++nAttempt) {
            if (!HasInstallKey()) {
                OpenInstallKey();
            }
            const LONG lWatch = WatchNearestAncestor();
            if (lWatch == ERROR_KEY_DELETED) {
                continue;
            }
            if (lWatch != ERROR_SUCCESS) {
                return lWatch;
            }
            if (!HasInstallKey()) {
                if (OpenInstallKey()) {
                    continue;  // back before its ancestor was armed: the next attempt arms it
                }
                return ERROR_SUCCESS;
            }
            const LONG lNotify = RegNotifyChangeKeyValue(m_installKey.GetHandle(), TRUE,
                                                         REG_NOTIFY_CHANGE_LAST_SET, m_hChangeEvent, TRUE);
            if (lNotify != ERROR_KEY_DELETED) {
                return lNotify;
            }
            CloseKey(m_installKey);
            m_bLost = true;
        }
        // The keys changed under every attempt (a reinstall under way): rather than give up, the
        // gate comes round again at once and looks afresh.
        CloseKey(m_installKey);
        CloseWatchedKeys();
        SetEvent(m_hChangeEvent);
        return ERROR_SUCCESS;
    }

    bool HasInstallKey() const { return m_installKey.GetHandle() != nullptr; }

private:
    static const int ARM_ATTEMPTS = 8;
    static const size_t WATCHED_LEVELS = 2;

    // Opens the install key; its return after it was missing is told once.
    bool OpenInstallKey() {
        if (m_installKey.Open(HKEY_LOCAL_MACHINE, REG_INSTALL_KEY, KEY_READ) != ERROR_SUCCESS) {
            return false;
        }
        if (m_bLost) {
            QO_LOG(QoMsg::INSTALL_KEY_RETURNED);
            m_bLost = false;
        }
        return true;
    }

    // A closed key's pending notification may set the event: it is reset before anything is armed
    // again, and every look at the registry comes after the arms, so no change is lost.
    void CloseKey(CRegKey& key) {
        key.Close();
        ResetEvent(m_hChangeEvent);
    }

    // The nearest ancestor that exists and its parent: under Wine a deleted key does not tell of
    // its own deletion, so the key above it is watched too. The handles are kept while the nearest
    // ancestor stays the same key.
    LONG WatchNearestAncestor() {
        CRegKey nearest;
        LONG lOpen = ERROR_FILE_NOT_FOUND;
        size_t n = 0;
        for (; n < m_vecAncestors.size(); ++n) {
            lOpen = nearest.Open(HKEY_LOCAL_MACHINE, m_vecAncestors[n].c_str(), KEY_NOTIFY);
            if (lOpen == ERROR_SUCCESS) {
                break;
            }
        }
        if (lOpen != ERROR_SUCCESS) {
            return lOpen;
        }
        const size_t nLevels = std::min(WATCHED_LEVELS, m_vecAncestors.size() - n);
        if (m_watchedKeys[0].GetHandle() == nullptr || m_nWatched != n) {
            CloseWatchedKeys();
            for (size_t i = 0; i < nLevels; ++i) {
                m_watchedKeys[i].Open(HKEY_LOCAL_MACHINE, m_vecAncestors[n + i].c_str(), KEY_NOTIFY);
            }
            m_nWatched = n;
        }
        for (size_t i = 0; i < nLevels; ++i) {
            const LONG lNotify = m_watchedKeys[i].GetHandle() == nullptr
                                     ? ERROR_KEY_DELETED
                                     : RegNotifyChangeKeyValue(m_watchedKeys[i].GetHandle(), TRUE,
                                                               REG_NOTIFY_CHANGE_NAME, m_hChangeEvent, TRUE);
            if (lNotify != ERROR_SUCCESS) {
                if (lNotify == ERROR_KEY_DELETED) {
                    CloseWatchedKeys();
                }
                return lNotify;
            }
        }
        return ERROR_SUCCESS;
    }

    void CloseWatchedKeys() {
        for (CRegKey& key : m_watchedKeys) {
            CloseKey(key);
        }
    }

    CRegKey& m_installKey;
    CRegKey m_watchedKeys[WATCHED_LEVELS];
    const HANDLE m_hChangeEvent;
    std::vector<std::wstring> m_vecAncestors;  // the install key's parent first, Software last
    size_t m_nWatched;
    bool m_bLost;  // the install key was missing: its return is told once
};

}  // namespace

bool WaitForSetStartEvent(HANDLE hParentProcess) {
    CRegKey installKey;
    const LONG lOpen = installKey.Open(HKEY_LOCAL_MACHINE, REG_INSTALL_KEY, KEY_READ);
    if (lOpen != ERROR_SUCCESS) {
        QO_LOG(QoMsg::INSTALL_KEY_OPEN_FAILED, lOpen);
        return false;
    }
    CKernelHandle changeEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!changeEvent.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::CREATE_EVENT_FAILED);
        return false;
    }
    CKernelHandle terminateEvent(OpenEventW(SYNCHRONIZE, FALSE, EVENT_ID_BREVANT_TERMINATE_WATCHDOG));
    DWORD dwWaitCount = 3;
    if (!terminateEvent.IsValid()) {
        QO_LOG(QoMsg::NO_TERMINATED_EVENT);
        dwWaitCount = 2;
    }
    CGateWatch watch(installKey, changeEvent.Get());
    const HANDLE waitList[3] = {hParentProcess, changeEvent.Get(), terminateEvent.Get()};
    QO_LOG(QoMsg::GATE_WAIT);

    for (;;) {
        // Armed before every look, so a change between the look and the wait still wakes it.
        const LONG lNotify = watch.Arm();
        if (lNotify != ERROR_SUCCESS) {
            QO_LOG(QoMsg::GATE_NOTIFY_FAILED, lNotify);
            return false;
        }
        if (watch.HasInstallKey() && IsStartValueSet(installKey)) {
            return true;
        }
        const DWORD dwRet = WaitForMultipleObjects(dwWaitCount, waitList, FALSE, INFINITE);
        if (dwRet == WAIT_OBJECT_0) {
            QO_LOG(QoMsg::GATE_HOST_ENDED);
            return false;
        }
        if (dwRet == WAIT_OBJECT_0 + 1) {
            QO_LOG(QoMsg::GATE_KEY_CHANGED);
            ResetEvent(changeEvent.Get());
            continue;
        }
        if (dwRet == WAIT_OBJECT_0 + 2) {
            QO_LOG(QoMsg::GATE_TERMINATE);
            return false;
        }
        if (dwRet >= WAIT_ABANDONED_0 && dwRet <= WAIT_ABANDONED_0 + 2) {
            QO_LOG(QoMsg::GATE_ABANDONED);
        } else if (dwRet == WAIT_TIMEOUT) {
            QO_LOG(QoMsg::GATE_TIMEOUT);
        } else if (dwRet == WAIT_FAILED) {
            QO_LOG_LAST_ERROR(QoMsg::GATE_WAIT_FAILED);
        } else {
            QO_LOG(QoMsg::GATE_UNKNOWN_RETURN, dwRet);
        }
        return false;
    }
}
