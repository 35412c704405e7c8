#include "watchdog/QoWatchDog.h"

#include <shellapi.h>
#include <stdlib.h>

#include <algorithm>
#include <vector>

#include "foundation/AgentLocation.h"
#include "foundation/LogLocation.h"
#include "foundation/ProcessSession.h"
#include "foundation/ScopedHandle.h"
#include "foundation/SessionRecord.h"
#include "foundation/TrimWorkingSet.h"
#include "foundation/kernel_objects.h"
#include "foundation/logging.h"
#include "foundation/service.h"
#include "session/SessionAgentMonitor.h"
#include "session/utilWinUserSession.h"
#include "watchdog/WatchDog.h"

using BrevantUtility::OperationSystem::CMutex;

namespace {

const DWORD WORKING_PATH_CHARS = 260;
const DWORD EXPLORER_POLL_MS = 200;
const DWORD HANDOVER_POLL_MS = 200;
// The hand-over line is written on the first pass and then every 9001 passes (about 30 minutes).
const int HANDOVER_LOG_EVERY = 9000;
const int EXIT_FAILURE_CODE = -1;

// Positions of the main loop's wait array.
enum MainWaitPosition {
    POS_RELOAD = 0,
    POS_STOP_SERVICE = 1,
    POS_TERMINATE = 2,
    POS_PARENT = 3,
    POS_SHUTDOWN_UIFRAMEWORK = 4,
    POS_TERMINATE_AGENT_AND_WAITING = 5,
    MAIN_WAIT_COUNT = 6
};

std::wstring ToDecimal(DWORD dwValue) { return std::to_wstring(dwValue); }

void SetLogFile(const std::wstring& strDir) {
    if (strDir.empty()) {
        return;  // nowhere to write: lines go to the debugger output
    }
    std::wstring strFile = strDir;
    if (strFile.back() != L'\\') {
        strFile += L'\\';
    }
    strFile += LOG_FILE_NAME;
    GetLogger().set_file(strFile.c_str());
}

int RunKeyMode() {
    QO_LOG(QoMsg::RUN_KEY_STARTED);
    int nRet = 0;
    if (!waitExplorerProcessReady(EXPLORER_READY_TIMEOUT_MS)) {
        QO_LOG(QoMsg::EXPLORER_NOT_READY);
    }
    if (!SetWatchDogReloadEvent()) {
        nRet = EXIT_FAILURE_CODE;
    }
    QO_LOG(QoMsg::RUN_KEY_EXIT, nRet);
    return nRet;
}

// A predecessor waiting in its final state holds the start event: ask it to start Keld and end,
// then wait until its objects are gone.
void HandOverFromPredecessor(const CMutex& mutex) {
    if (!CEvent::Exists(EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC)) {
        return;
    }
    QO_LOG(QoMsg::HAND_OVER);
    {
        CEvent startKeld(EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC, false);
        if (!startKeld.Set()) {
            QO_LOG_LAST_ERROR(QoMsg::HAND_OVER_SET_FAILED);
        }
    }
    int nPasses = HANDOVER_LOG_EVERY;
    while (CEvent::Exists(EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC) || mutex.Exists()) {
        if (nPasses == HANDOVER_LOG_EVERY) {
            QO_LOG(QoMsg::HAND_OVER_WAIT);
            nPasses = 0;
        } else {
            ++nPasses;
        }
        Sleep(HANDOVER_POLL_MS);
    }
    QO_LOG(QoMsg::HAND_OVER_DONE);
}

// Reads where the session agent lives from Session_Agent.ini in the working directory.
bool GetAgentLocation(std::wstring& strAgentDir, std::wstring& strAgentPath, bool& bNoWorkingPath) {
    wchar_t szWorking[WORKING_PATH_CHARS] = {};
    const DWORD nWorking = GetCurrentDirectoryW(WORKING_PATH_CHARS, szWorking);
    // A directory that does not fit the buffer is as unusable as none.
    if (nWorking == 0 || nWorking >= WORKING_PATH_CHARS) {
        bNoWorkingPath = true;
        return false;
    }
    bNoWorkingPath = false;
    return ReadAgentLocation(szWorking, strAgentDir, strAgentPath);
}

// Serves reload and stop requests until one ends the loop. True when a final wait follows.
bool RunMainLoop(CWatchDog* pWatchDog, const HANDLE (&waitArray)[MAIN_WAIT_COUNT]) {
    for (;;) {
        TrimWorkingSet();
        const DWORD dwRet = WaitForMultipleObjects(MAIN_WAIT_COUNT, waitArray, FALSE, INFINITE);
        switch (dwRet) {
            case WAIT_OBJECT_0 + POS_RELOAD:
                QO_LOG(QoMsg::REQUEST_RELOAD);
                pWatchDog->ReloadSessions();
                break;
            case WAIT_OBJECT_0 + POS_STOP_SERVICE:
                QO_LOG(QoMsg::REQUEST_STOP);
                pWatchDog->SetCloseEvent(true);
                break;
            case WAIT_OBJECT_0 + POS_TERMINATE:
                pWatchDog->SetCloseEvent(true);
                QO_LOG(QoMsg::REQUEST_TERMINATE);
                return false;
            case WAIT_OBJECT_0 + POS_PARENT:
                pWatchDog->SetCloseEvent(true);
                QO_LOG(QoMsg::HOST_ENDED);
                return true;
            case WAIT_OBJECT_0 + POS_SHUTDOWN_UIFRAMEWORK:
                QO_LOG(QoMsg::REQUEST_UPDATE);
                pWatchDog->SetCloseEvent(false);
                return false;
            case WAIT_OBJECT_0 + POS_TERMINATE_AGENT_AND_WAITING:
                pWatchDog->SetCloseEvent(true);
                QO_LOG(QoMsg::REQUEST_CLOSE_AND_WAIT);
                return true;
            default:
                pWatchDog->SetCloseEvent(true);
                QO_LOG(QoMsg::MAIN_WAIT_FAILED);
                return false;
        }
    }
}

// Still holding the single-instance mutex, waits until a successor asks for Keld to be started
// or a terminate request arrives.
void FinalWait(HANDLE hTerminateEvent) {
    DefSecAttr secAttr(DEF_SEC_ATTR_SDDL);
    CEvent startKeld(EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC, false, &secAttr);
    const HANDLE waitArray[2] = {startKeld.GetHandle(), hTerminateEvent};
    const DWORD dwRet = WaitForMultipleObjects(2, waitArray, FALSE, INFINITE);
    if (dwRet == WAIT_OBJECT_0) {
        StartKeldService();
    }
}

int Supervise(DWORD dwParentPid, HANDLE hTerminateEvent) {
    std::wstring strAgentDir;
    std::wstring strAgentPath;
    bool bNoWorkingPath = false;
    if (!GetAgentLocation(strAgentDir, strAgentPath, bNoWorkingPath)) {
        if (bNoWorkingPath) {
            QO_LOG(QoMsg::WORKING_PATH_FAILED);
        } else {
            QO_LOG(QoMsg::AGENT_PATH_FAILED);
        }
        return EXIT_FAILURE_CODE;
    }

    CWatchDog* pWatchDog = CWatchDog::GetInstance();
    if (pWatchDog == nullptr) {
        QO_LOG(QoMsg::INSTANCE_FAILED);
        return EXIT_FAILURE_CODE;
    }
    pWatchDog->Init(strAgentPath.c_str(), strAgentDir.c_str());

    if (!pWatchDog->WaitStartEvent(dwParentPid)) {
        QO_LOG(QoMsg::GATE_FAILED);
        return EXIT_FAILURE_CODE;
    }
    pWatchDog->ReloadSessions();
    QO_LOG(QoMsg::GATE_PASSED);

    DefSecAttr secAttr(DEF_SEC_ATTR_SDDL);
    CEvent reloadEvent(EVENT_ID_BREVANT_WATCHDOG_RELOAD, false, &secAttr);
    if (!reloadEvent.IsValid()) {
        QO_LOG(QoMsg::RELOAD_EVENT_FAILED);
        return EXIT_FAILURE_CODE;
    }
    CEvent stopServiceEvent(EVENT_ID_BREVANT_STOP_SERVICE, false);
    if (!stopServiceEvent.IsValid()) {
        QO_LOG(QoMsg::STOP_EVENT_FAILED);
        return EXIT_FAILURE_CODE;
    }
    CEvent agentAndWaitingEvent(EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING, true);
    if (!agentAndWaitingEvent.IsValid()) {
        QO_LOG(QoMsg::CLOSE_AND_WAIT_EVENT_FAILED);
        return EXIT_FAILURE_CODE;
    }
    CEvent uiFrameworkEvent(EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK, true);
    if (!uiFrameworkEvent.IsValid()) {
        QO_LOG(QoMsg::SHUTDOWN_EVENT_FAILED);
        return EXIT_FAILURE_CODE;
    }
    if (pWatchDog->GetParentProcess() == nullptr) {
        QO_LOG(QoMsg::HOST_MISSING);
        return EXIT_FAILURE_CODE;
    }
    const HANDLE waitArray[MAIN_WAIT_COUNT] = {
        reloadEvent.GetHandle(),       stopServiceEvent.GetHandle(), hTerminateEvent,
        pWatchDog->GetParentProcess(), uiFrameworkEvent.GetHandle(), agentAndWaitingEvent.GetHandle()};

    QO_LOG(QoMsg::MAIN_LOOP);
    if (RunMainLoop(pWatchDog, waitArray)) {
        FinalWait(hTerminateEvent);
    }
    WaitForAllMonitorThreads();
    CWatchDog::ReleaseInstance();
    QO_LOG(QoMsg::FINISHED);
    return 0;
}

}  // namespace

bool GetKeldDebugLogPath(std::wstring& strDir, std::wstring& strMessage) {
    strDir.clear();
    std::wstring strLogDir;
    if (!ReadDebugLogDirectory(strLogDir, strMessage)) {
        return false;
    }
    const DWORD dwAttributes = GetFileAttributesW(strLogDir.c_str());
    if (dwAttributes == INVALID_FILE_ATTRIBUTES || (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        if (!CreateDirectoryW(strLogDir.c_str(), nullptr)) {
            const DWORD dwErr = GetLastError();
            if (dwErr != ERROR_ALREADY_EXISTS) {
                strMessage +=
                    L"CreateDirectoryW failed. GetLastError=" + ToDecimal(dwErr) + L", path=" + strLogDir;
                return false;
            }
        }
    }
    strDir = strLogDir;
    return true;
}

bool waitExplorerProcessReady(DWORD dwTimeoutMs) {
    const DWORD dwStart = GetTickCount();
    DWORD dwOwnSession = 0;
    if (!GetProcessSessionId(GetCurrentProcessId(), dwOwnSession)) {
        QO_LOG_LAST_ERROR(QoMsg::SESSION_ID_FAILED);
        return false;
    }
    std::vector<SessionRecord> sessions;
    for (;;) {
        sessions.clear();
        if (!EnumUserSession(sessions)) {
            QO_LOG(QoMsg::ENUM_SESSION_FAILED);
            return false;
        }
        for (const SessionRecord& record : sessions) {
            if (record.dwSessionId == dwOwnSession) {
                return true;
            }
        }
        Sleep(EXPLORER_POLL_MS);
        // Unsigned difference: correct across the tick counter's wrap-around.
        if (GetTickCount() - dwStart >= dwTimeoutMs) {
            return false;
        }
    }
}

bool SetWatchDogReloadEvent() {
    const CKernelHandle event(OpenEventW(EVENT_MODIFY_STATE, FALSE, EVENT_ID_BREVANT_WATCHDOG_RELOAD));
    if (!event.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::RELOAD_OPEN_FAILED);
        return false;
    }
    if (!SetEvent(event.Get())) {
        QO_LOG_LAST_ERROR(QoMsg::RELOAD_SET_FAILED);
        return false;
    }
    QO_LOG(QoMsg::RELOAD_SET);
    return true;
}

bool IsServiceRunning(const std::wstring& strServiceName) {
    const CServiceHandle manager(OpenSCManagerW(nullptr, nullptr, GENERIC_READ));
    if (!manager.IsValid()) {
        return false;
    }
    const CServiceHandle service(OpenServiceW(manager.Get(), strServiceName.c_str(), GENERIC_READ));
    SERVICE_STATUS status = {};
    return service.IsValid() && QueryServiceStatus(service.Get(), &status) == TRUE &&
           status.dwCurrentState == SERVICE_RUNNING;
}

DWORD CheckServiceAccess(const std::wstring& strServiceName, DWORD dwAccess) {
    const CServiceHandle manager(OpenSCManagerW(nullptr, nullptr, GENERIC_READ));
    if (!manager.IsValid()) {
        const DWORD dwErr = GetLastError();
        QO_LOG(QoMsg::SCM_OPEN_FAILED, dwErr);
        return dwErr;
    }
    const CServiceHandle service(OpenServiceW(manager.Get(), strServiceName.c_str(), dwAccess));
    if (!service.IsValid()) {
        const DWORD dwErr = GetLastError();
        QO_LOG(QoMsg::SERVICE_OPEN_FAILED, dwErr);
        return dwErr;
    }
    return 0;
}

void StartKeldService() {
    if (IsServiceRunning(KELD_SERVICE_NAME)) {
        QO_LOG(QoMsg::KELD_RUNNING);
        return;
    }
    BrevantUtility::Service::Control control;
    if (CheckServiceAccess(KELD_SERVICE_NAME, SERVICE_ALL_ACCESS) == 0) {
        QO_LOG(QoMsg::KELD_START);
        control.Start(KELD_SERVICE_NAME);
    }
}

void WaitForAllMonitorThreads() {
    QO_LOG(QoMsg::MONITOR_WAIT_BEGIN);
    if (g_vecMonitorThreads.empty()) {
        QO_LOG(QoMsg::NO_MONITOR);
        return;
    }
    std::vector<HANDLE> vecThreads;
    vecThreads.reserve(g_vecMonitorThreads.size());
    for (const CKernelHandle& thread : g_vecMonitorThreads) {
        vecThreads.push_back(thread.Get());
    }
    // One wait takes at most 64 handles; repeated stop and reload cycles can leave more threads
    // than that, so wait for them in batches and report the first failure, if any.
    DWORD dwRet = WAIT_OBJECT_0;
    for (size_t nFirst = 0; nFirst < vecThreads.size(); nFirst += MAXIMUM_WAIT_OBJECTS) {
        const DWORD nCount =
            static_cast<DWORD>(std::min<size_t>(MAXIMUM_WAIT_OBJECTS, vecThreads.size() - nFirst));
        const DWORD dwBatch = WaitForMultipleObjects(nCount, &vecThreads[nFirst], TRUE, INFINITE);
        if (dwRet == WAIT_OBJECT_0) {
            dwRet = dwBatch;
        }
    }
    QO_LOG(QoMsg::MONITOR_WAIT_END, dwRet);
    g_vecMonitorThreads.clear();
}

int WatchDogMain(const wchar_t* lpCmdLine) {
    std::wstring strLogDir;
    std::wstring strMessage;
    const bool bDebugDir = GetKeldDebugLogPath(strLogDir, strMessage);
    if (!bDebugDir) {
        strLogDir = FallbackLogDirectory();
    }
    SetLogFile(strLogDir);

    QO_LOG(QoMsg::START);
    if (!bDebugDir) {
        QO_LOG(QoMsg::LOG_PATH_FAILED, strMessage);
    }

    int nParentPid = 0;
    int nArgs = 0;
    LPWSTR* ppArgs = CommandLineToArgvW(lpCmdLine, &nArgs);
    const CLocalMemory args(ppArgs);
    if (ppArgs != nullptr && nArgs > 0) {
        nParentPid = _wtoi(ppArgs[0]);
    }
    if (nParentPid == 0) {
        return RunKeyMode();
    }

    QO_LOG(QoMsg::STARTED);
    DefSecAttr secAttr(DEF_SEC_ATTR_SDDL);
    CEvent terminateEvent(EVENT_ID_BREVANT_TERMINATE_WATCHDOG, false, &secAttr);
    if (!terminateEvent.IsValid()) {
        QO_LOG(QoMsg::TERMINATE_EVENT_FAILED);
        return EXIT_FAILURE_CODE;
    }
    if (WaitForSingleObject(terminateEvent.GetHandle(), 0) == WAIT_OBJECT_0) {
        QO_LOG(QoMsg::TERMINATE_PENDING);
        return EXIT_FAILURE_CODE;
    }

    CMutex mutex(QO_WATCH_DOG_NAMED_MUTEX);
    HandOverFromPredecessor(mutex);
    if (mutex.Exists()) {
        QO_LOG(QoMsg::ANOTHER_INSTANCE);
        return EXIT_FAILURE_CODE;
    }
    if (!mutex.Create()) {
        QO_LOG(QoMsg::MUTEX_FAILED);
        return EXIT_FAILURE_CODE;
    }
    return Supervise(static_cast<DWORD>(nParentPid), terminateEvent.GetHandle());
}

int APIENTRY wWinMain(HINSTANCE, HINSTANCE, LPWSTR lpCmdLine, int) { return WatchDogMain(lpCmdLine); }
