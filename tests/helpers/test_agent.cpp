// test_agent.exe: stands in for the session agent. It tells the test how it was started (a report
// file beside its executable), signals its start, and ends with the exit code the test chooses. The
// contract is in test_agent_protocol.h.
#include <windows.h>

#include <cwchar>
#include <cwctype>
#include <string>

#include "test_agent_protocol.h"

namespace {

// Read through a volatile pointer so the compiler cannot see the null and must emit the store.
int* volatile g_nullTarget = nullptr;

std::string ToUtf8(const std::wstring& text) {
    if (text.empty()) {
        return std::string();
    }
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                         nullptr, nullptr);
    if (size <= 0) {
        return std::string();
    }
    std::string out(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], size, nullptr,
                        nullptr);
    return out;
}

std::wstring ModulePath() {
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(nullptr, &buffer[0], static_cast<DWORD>(buffer.size()));
        if (length == 0) {
            return std::wstring();
        }
        if (length < buffer.size()) {
            buffer.resize(length);
            return buffer;
        }
        buffer.resize(buffer.size() * 2);
    }
}

std::wstring DirectoryOf(const std::wstring& path) {
    const size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring(L".") : path.substr(0, slash);
}

// File name without its directory and without a trailing ".exe".
std::wstring BaseNameOf(const std::wstring& path) {
    const size_t slash = path.find_last_of(L"\\/");
    std::wstring name = slash == std::wstring::npos ? path : path.substr(slash + 1);
    if (name.size() > 4 && _wcsicmp(name.c_str() + name.size() - 4, L".exe") == 0) {
        name.resize(name.size() - 4);
    }
    return name;
}

std::wstring CurrentDirectory() {
    const DWORD size = GetCurrentDirectoryW(0, nullptr);
    if (size == 0) {
        return std::wstring();
    }
    std::wstring buffer(size, L'\0');
    const DWORD length = GetCurrentDirectoryW(size, &buffer[0]);
    buffer.resize(length < size ? length : 0);
    return buffer;
}

std::wstring EnvironmentValue(const wchar_t* name) {
    const DWORD size = GetEnvironmentVariableW(name, nullptr, 0);
    if (size == 0) {
        return std::wstring();
    }
    std::wstring buffer(size, L'\0');
    const DWORD length = GetEnvironmentVariableW(name, &buffer[0], size);
    buffer.resize(length < size ? length : 0);
    return buffer;
}

std::wstring ObjectName(HANDLE object) {
    if (object == nullptr) {
        return std::wstring();
    }
    DWORD needed = 0;
    GetUserObjectInformationW(object, UOI_NAME, nullptr, 0, &needed);
    if (needed == 0) {
        return std::wstring();
    }
    std::wstring buffer(needed / sizeof(wchar_t) + 1, L'\0');
    if (!GetUserObjectInformationW(object, UOI_NAME, &buffer[0],
                                   static_cast<DWORD>(buffer.size() * sizeof(wchar_t)), &needed)) {
        return std::wstring();
    }
    buffer.resize(wcslen(buffer.c_str()));
    return buffer;
}

std::wstring Widen(const char* text) {
    std::wstring out;
    for (; *text != '\0'; ++text) {
        out.push_back(static_cast<wchar_t>(*text));
    }
    return out;
}

// One report line; a line break inside a value would split the record, so it becomes a space.
void AppendLine(std::string& report, const char* key, std::wstring value) {
    for (wchar_t& c : value) {
        if (c == L'\r' || c == L'\n') {
            c = L' ';
        }
    }
    report += key;
    report += '=';
    report += ToUtf8(value);
    report += "\r\n";
}

std::string BuildReport(const std::wstring& exePath) {
    const DWORD pid = GetCurrentProcessId();
    DWORD session = 0;
    const bool haveSession = ProcessIdToSessionId(pid, &session) != FALSE;

    std::string report;
    AppendLine(report, qotest::kReportPid, std::to_wstring(pid));
    AppendLine(report, qotest::kReportSession, haveSession ? std::to_wstring(session) : std::wstring());
    AppendLine(report, qotest::kReportCmdline, GetCommandLineW());
    AppendLine(report, qotest::kReportCwd, CurrentDirectory());
    AppendLine(report, qotest::kReportExe, exePath);

    const char* const variables[] = {qotest::kReportPath, qotest::kReportCommonProgramFilesX86,
                                     qotest::kReportCommonProgramW6432, qotest::kReportProgramFilesX86,
                                     qotest::kReportProgramW6432};
    for (const char* name : variables) {
        AppendLine(report, name, EnvironmentValue(Widen(name).c_str()));
    }

    const std::wstring station = ObjectName(GetProcessWindowStation());
    const std::wstring desktop = ObjectName(GetThreadDesktop(GetCurrentThreadId()));
    AppendLine(report, qotest::kReportWindowStation, station);
    AppendLine(report, qotest::kReportDesktop,
               station.empty() || desktop.empty() ? desktop : station + L"\\" + desktop);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    GetStartupInfoW(&startup);
    AppendLine(report, qotest::kReportStartupDesktop,
               startup.lpDesktop != nullptr ? std::wstring(startup.lpDesktop) : std::wstring());

    if (wchar_t* block = GetEnvironmentStringsW()) {
        for (const wchar_t* entry = block; *entry != L'\0'; entry += wcslen(entry) + 1) {
            AppendLine(report, qotest::kReportEnv, entry);
        }
        FreeEnvironmentStringsW(block);
    }
    return report;
}

// Written under a temporary name and renamed, so a reader never sees half a report.
bool WriteReport(const std::wstring& directory, const std::string& report) {
    const std::wstring pid = std::to_wstring(GetCurrentProcessId());
    const std::wstring finalPath =
        directory + L"\\" + qotest::kAgentReportPrefix + pid + qotest::kAgentReportSuffix;
    const std::wstring tempPath = finalPath + L".tmp";

    HANDLE file = CreateFileW(tempPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    DWORD written = 0;
    const bool ok = WriteFile(file, report.data(), static_cast<DWORD>(report.size()), &written, nullptr) &&
                    written == report.size();
    CloseHandle(file);
    if (!ok || !MoveFileExW(tempPath.c_str(), finalPath.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        DeleteFileW(tempPath.c_str());
        return false;
    }
    return true;
}

// "<name>_exit<HEX>" asks for an immediate exit with HEX (one to eight hex digits).
bool ExitCodeFromName(const std::wstring& baseName, DWORD* code) {
    const std::wstring marker = qotest::kAgentExitNameMarker;
    if (baseName.size() <= marker.size()) {
        return false;
    }
    for (size_t at = baseName.size() - marker.size(); ; --at) {
        if (_wcsnicmp(baseName.c_str() + at, marker.c_str(), marker.size()) == 0) {
            const std::wstring digits = baseName.substr(at + marker.size());
            if (digits.empty() || digits.size() > 8) {
                return false;
            }
            DWORD value = 0;
            for (wchar_t c : digits) {
                if (!iswxdigit(c)) {
                    return false;
                }
                value = value * 16 + static_cast<DWORD>(c <= L'9' ? c - L'0' : (towupper(c) - L'A' + 10));
            }
            *code = value;
            return true;
        }
        if (at == 0) {
            return false;
        }
    }
}

DWORD ConfiguredExitCode(const std::wstring& valueName, DWORD fallback) {
    DWORD value = 0;
    DWORD size = sizeof(value);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, qotest::kAgentExitKey, valueName.c_str(), RRF_RT_REG_DWORD, nullptr,
                     &value, &size) != ERROR_SUCCESS) {
        return fallback;
    }
    return value;
}

// Ends the process the way an unhandled exception does, without handing it to a debugger: Wine prints
// a line on the inherited stderr and starts winedbg before it runs its own filter, and this keeps a
// test's output clean while the exit code stays the exception code.
LONG WINAPI EndOnUnhandledException(EXCEPTION_POINTERS*) {
    return EXCEPTION_EXECUTE_HANDLER;
}

[[noreturn]] void ExitWith(DWORD code) {
    if (code == qotest::kAccessViolationCode) {
        SetUnhandledExceptionFilter(EndOnUnhandledException);
        *g_nullTarget = 1;
    }
    ExitProcess(code);
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
    const std::wstring exePath = ModulePath();
    const std::wstring pid = std::to_wstring(GetCurrentProcessId());
    WriteReport(DirectoryOf(exePath), BuildReport(exePath));

    DWORD immediateCode = 0;
    const bool exitAtOnce = ExitCodeFromName(BaseNameOf(exePath), &immediateCode);

    // The exit events exist before the start is signalled, so a test that saw the start can set them.
    HANDLE exitEvents[2] = {nullptr, nullptr};
    if (!exitAtOnce) {
        exitEvents[0] = CreateEventW(nullptr, TRUE, FALSE, (qotest::kAgentExitEventPrefix + pid).c_str());
        exitEvents[1] = CreateEventW(nullptr, TRUE, FALSE, qotest::kAgentExitAllEvent);
    }

    if (HANDLE started = OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, qotest::kAgentStartedSemaphore)) {
        ReleaseSemaphore(started, 1, nullptr);
        CloseHandle(started);
    }

    if (exitAtOnce) {
        ExitWith(immediateCode);
    }
    if (exitEvents[0] == nullptr || exitEvents[1] == nullptr) {
        ExitWith(qotest::kAgentBrokenExitCode);
    }

    switch (WaitForMultipleObjects(2, exitEvents, FALSE, INFINITE)) {
        case WAIT_OBJECT_0:
            ExitWith(ConfiguredExitCode(pid, qotest::kAgentDefaultExitCode));
        case WAIT_OBJECT_0 + 1:
            ExitWith(ConfiguredExitCode(qotest::kAgentExitAllValue, qotest::kAgentDefaultExitAllCode));
        default:
            ExitWith(qotest::kAgentBrokenExitCode);
    }
}
