// qo_helper.exe: the session agent, host process, shell, desktop keeper and Keld service
// of the tests, the demo and the benchmark (Protocol.h).
#include <windows.h>

#include <string>

#include "Protocol.h"

namespace {

int* volatile g_null = nullptr;  // volatile: the compiler must emit the faulting store
SERVICE_STATUS_HANDLE g_status = nullptr;
HANDLE g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);

LONG WINAPI EndQuietly(EXCEPTION_POINTERS*) { return EXCEPTION_EXECUTE_HANDLER; }

void Mark(int slot) {
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    const HANDLE clock = OpenFileMappingW(FILE_MAP_WRITE, FALSE, qt::kClock);
    LONGLONG* slots = clock ? static_cast<LONGLONG*>(MapViewOfFile(clock, FILE_MAP_WRITE, 0, 0, 0)) : nullptr;
    if (slots != nullptr)
        slots[slot] = now.QuadPart;
}

[[noreturn]] void ExitWith(DWORD code) {
    Mark(1);
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

void Notify(const wchar_t* name) {
    ReleaseSemaphore(OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, name), 1, nullptr) ||
        SetEvent(OpenEventW(EVENT_MODIFY_STATE, FALSE, name));
}

std::wstring NameOf(HANDLE object) {
    wchar_t name[256] = {};
    GetUserObjectInformationW(object, UOI_NAME, name, sizeof(name) - sizeof(wchar_t), nullptr);
    return name;
}

void WriteReport(const std::wstring& pid) {
    static wchar_t text[32768];
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    GetCurrentDirectoryW(32768, text);
    std::string report = "session=" + std::to_string(session) +
                         "\r\ncmdline=" + qt::ToUtf8(GetCommandLineW()) + "\r\ncwd=" + qt::ToUtf8(text) +
                         "\r\ndesktop=" + qt::ToUtf8(NameOf(GetProcessWindowStation())) + "\\" +
                         qt::ToUtf8(NameOf(GetThreadDesktop(GetCurrentThreadId()))) + "\r\n";
    for (const wchar_t* name : qt::kReportedVariables) {
        const DWORD n = GetEnvironmentVariableW(name, text, 32768);  // 0 for a variable not set
        text[n < 32768 ? n : 0] = L'\0';
        report += qt::ToUtf8(name) + "=" + qt::ToUtf8(text) + "\r\n";
    }
    GetModuleFileNameW(nullptr, text, MAX_PATH);
    std::wstring path(text);
    path = path.substr(0, path.find_last_of(L'\\') + 1) + L"agent-" + pid + L".txt";
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(file, report.data(), static_cast<DWORD>(report.size()), &written, nullptr);
    CloseHandle(file);
}

int Agent() {
    Mark(0);
    Notify(qt::kAgentStarted);
    DWORD code = 0;
    if (ReadCode(qt::kImmediate, code))
        ExitWith(code);
    const std::wstring pid = std::to_wstring(GetCurrentProcessId());
    const HANDLE events[2] = {CreateEventW(nullptr, TRUE, FALSE, (qt::kAgentExitPrefix + pid).c_str()),
                              CreateEventW(nullptr, TRUE, FALSE, qt::kAgentExitAll)};
    WriteReport(pid);
    Notify(qt::kAgentReady);
    const bool own = WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0;
    ExitWith(ReadCode(own ? pid : qt::kAll, code) ? code : own ? 1 : 0);
}

void Report(DWORD state) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    SetServiceStatus(g_status, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD, LPVOID, LPVOID) {
    if (control == SERVICE_CONTROL_STOP)
        SetEvent(g_stop);
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
    g_status = RegisterServiceCtrlHandlerExW(L"Keld", OnControl, nullptr);
    Report(SERVICE_RUNNING);
    Notify(qt::kKeldRunning);
    WaitForSingleObject(g_stop, INFINITE);
    Report(SERVICE_STOPPED);
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR cmdLine, int) {
    const std::wstring mode(cmdLine);
    wchar_t keld[] = L"Keld";
    const SERVICE_TABLE_ENTRYW table[] = {{keld, ServiceMain}, {nullptr, nullptr}};
    if (mode.empty()) {
        return Agent();
    } else if (mode == L"service") {
        return StartServiceCtrlDispatcherW(table) ? 0 : 1;
    } else if (mode == L"keeper") {
        GetDesktopWindow();
    } else if (mode.rfind(L"hold ", 0) == 0) {
        WaitForSingleObject(CreateMutexW(nullptr, FALSE, mode.substr(5).c_str()), INFINITE);
        Notify(qt::kHeld);
    }
    Sleep(INFINITE);
    return 0;
}
