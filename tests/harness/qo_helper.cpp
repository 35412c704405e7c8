// qo_helper.exe: the session agent, host process, shell, desktop keeper, Keld service and mutex
// holder of the tests, the demo and the benchmarks (tests/harness/Protocol.h).
#include <windows.h>

#include <string>

#include "Protocol.h"

namespace {

int* volatile g_null = nullptr;  // volatile: the compiler must emit the faulting store

LONG WINAPI EndQuietly(EXCEPTION_POINTERS*) { return EXCEPTION_EXECUTE_HANDLER; }

[[noreturn]] void ExitWith(DWORD code) {
    if (code == 0xC0000005) {
        SetUnhandledExceptionFilter(EndQuietly);  // no winedbg on the test's output
        *g_null = 1;
    }
    ExitProcess(code);
}

bool ReadCode(const std::wstring& name, DWORD& code) {
    DWORD size = sizeof(code);
    return RegGetValueW(HKEY_LOCAL_MACHINE, qt::kAgentKey, name.c_str(), RRF_RT_REG_DWORD, nullptr, &code,
                        &size) == ERROR_SUCCESS;
}

void Release(const wchar_t* semaphore) {
    if (HANDLE h = OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, semaphore)) {
        ReleaseSemaphore(h, 1, nullptr);
        CloseHandle(h);
    }
}

std::wstring Text(DWORD (*get)(DWORD, wchar_t*, const wchar_t*), const wchar_t* name) {
    wchar_t buffer[32768] = {};
    get(32767, buffer, name);
    return buffer;
}

std::wstring ObjectName(HANDLE object) {
    wchar_t name[256] = {};
    GetUserObjectInformationW(object, UOI_NAME, name, sizeof(name) - sizeof(wchar_t), nullptr);
    return name;
}

void WriteReport(const std::wstring& pid) {
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    const std::wstring values[] = {
        std::to_wstring(session), GetCommandLineW(),
        Text([](DWORD n, wchar_t* b, const wchar_t*) { return GetCurrentDirectoryW(n, b); }, nullptr),
        ObjectName(GetProcessWindowStation()) + L"\\" + ObjectName(GetThreadDesktop(GetCurrentThreadId()))};
    std::string report;
    size_t i = 0;
    for (const char* key : qt::kReportKeys) {
        const std::wstring wkey(key, key + strlen(key));
        const std::wstring value =
            i < 4
                ? values[i]
                : Text([](DWORD n, wchar_t* b, const wchar_t* v) { return GetEnvironmentVariableW(v, b, n); },
                       wkey.c_str());
        report += std::string(key) + "=" + qt::ToUtf8(value) + "\r\n";
        ++i;
    }
    wchar_t exe[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring path(exe);
    path = path.substr(0, path.find_last_of(L'\\') + 1) + L"agent-" + pid + L".txt";
    // Written aside and renamed, so a reader never sees half a report.
    HANDLE file = CreateFileW((path + L".tmp").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(file, report.data(), static_cast<DWORD>(report.size()), &written, nullptr);
    CloseHandle(file);
    MoveFileExW((path + L".tmp").c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING);
}

int Agent() {
    Release(qt::kAgentStarted);
    DWORD code = 0;
    if (ReadCode(qt::kImmediate, code)) {
        ExitWith(code);
    }
    const std::wstring pid = std::to_wstring(GetCurrentProcessId());
    const HANDLE events[2] = {CreateEventW(nullptr, TRUE, FALSE, (qt::kAgentExitPrefix + pid).c_str()),
                              CreateEventW(nullptr, TRUE, FALSE, qt::kAgentExitAll)};
    WriteReport(pid);
    Release(qt::kAgentReady);
    const DWORD which = WaitForMultipleObjects(2, events, FALSE, INFINITE) - WAIT_OBJECT_0;
    const bool own = which == 0;
    if (!ReadCode(own ? pid : qt::kAll, code)) {
        code = own ? 1 : 0;
    }
    ExitWith(code);
}

SERVICE_STATUS_HANDLE g_status = nullptr;
HANDLE g_stop = nullptr;

void Report(DWORD state) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    SetServiceStatus(g_status, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD, LPVOID, LPVOID) {
    if (control == SERVICE_CONTROL_STOP) {
        Report(SERVICE_STOP_PENDING);
        SetEvent(g_stop);
    }
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
    g_status = RegisterServiceCtrlHandlerExW(L"Keld", OnControl, nullptr);
    g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    Report(SERVICE_RUNNING);
    if (HANDLE running = OpenEventW(EVENT_MODIFY_STATE, FALSE, qt::kKeldRunning)) {
        SetEvent(running);
        CloseHandle(running);
    }
    WaitForSingleObject(g_stop, INFINITE);
    Report(SERVICE_STOPPED);
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR cmdLine, int) {
    const std::wstring mode(cmdLine);
    if (mode.empty()) {
        return Agent();
    }
    if (mode == L"service") {
        wchar_t name[] = L"Keld";
        const SERVICE_TABLE_ENTRYW table[] = {{name, ServiceMain}, {nullptr, nullptr}};
        return StartServiceCtrlDispatcherW(table) ? 0 : 1;
    }
    if (mode == L"keeper" && GetDesktopWindow() == nullptr) {
        return 1;
    }
    if (mode.rfind(L"hold ", 0) == 0) {
        WaitForSingleObject(CreateMutexW(nullptr, FALSE, mode.substr(5).c_str()), INFINITE);
        if (HANDLE held = OpenEventW(EVENT_MODIFY_STATE, FALSE, qt::kHeld)) {
            SetEvent(held);
        }
    }
    Sleep(INFINITE);
    return 0;
}
