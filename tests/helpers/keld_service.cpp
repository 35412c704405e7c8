// keld_service.exe: the Keld service of the test prefix. Started by the service manager, it reports
// start-pending then running, sets kKeldRunningEvent when a test created it (so the test waits for the
// start instead of polling the status), and stops on SERVICE_CONTROL_STOP or SHUTDOWN.
#include <windows.h>

#include <string>

#include "test_agent_protocol.h"

namespace {

SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
HANDLE g_stopEvent = nullptr;
DWORD g_checkPoint = 0;

void ReportStatus(DWORD state, DWORD exitCode = NO_ERROR) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
    status.dwWin32ExitCode = exitCode;
    const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    status.dwCheckPoint = pending ? ++g_checkPoint : 0;
    status.dwWaitHint = pending ? 3000 : 0;
    SetServiceStatus(g_statusHandle, &status);
}

DWORD WINAPI ControlHandler(DWORD control, DWORD, LPVOID, LPVOID) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
        case SERVICE_CONTROL_SHUTDOWN:
            ReportStatus(SERVICE_STOP_PENDING);
            SetEvent(g_stopEvent);
            return NO_ERROR;
        case SERVICE_CONTROL_INTERROGATE:
            return NO_ERROR;
        default:
            return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
    g_statusHandle = RegisterServiceCtrlHandlerExW(qotest::kKeldServiceName, ControlHandler, nullptr);
    if (g_statusHandle == nullptr) {
        return;
    }
    ReportStatus(SERVICE_START_PENDING);
    g_stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (g_stopEvent == nullptr) {
        ReportStatus(SERVICE_STOPPED, GetLastError());
        return;
    }
    ReportStatus(SERVICE_RUNNING);

    if (HANDLE running = OpenEventW(EVENT_MODIFY_STATE, FALSE, qotest::kKeldRunningEvent)) {
        SetEvent(running);
        CloseHandle(running);
    }

    WaitForSingleObject(g_stopEvent, INFINITE);
    CloseHandle(g_stopEvent);
    g_stopEvent = nullptr;
    ReportStatus(SERVICE_STOPPED);
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
    std::wstring name = qotest::kKeldServiceName;
    const SERVICE_TABLE_ENTRYW table[] = {{&name[0], ServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : static_cast<int>(GetLastError());
}
