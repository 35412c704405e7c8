// test_agent.exe: stands in for the session agent. It tells the test how it was started (a report
// file beside its executable), signals its start, and ends with the exit code the test chooses. The
// contract is in test_agent_protocol.h.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <string>

#include "test_agent_protocol.h"

namespace {

// Read through a volatile pointer so the compiler cannot see the null and must emit the store.
int* volatile g_nullTarget = nullptr;

// 32767 characters is the longest path or variable these calls can give; each returns the length.
constexpr DWORD kMaxText = 32767;

std::wstring ModulePath() {
    std::wstring buffer(kMaxText, L'\0');
    buffer.resize(GetModuleFileNameW(nullptr, buffer.data(), kMaxText));
    return buffer;
}

std::wstring CurrentDirectory() {
    std::wstring buffer(kMaxText, L'\0');
    buffer.resize(GetCurrentDirectoryW(kMaxText, buffer.data()));
    return buffer;
}

std::wstring EnvironmentValue(const char* name) {
    std::wstring buffer(kMaxText, L'\0');
    buffer.resize(
        GetEnvironmentVariableW(std::wstring(name, name + strlen(name)).c_str(), buffer.data(), kMaxText));
    return buffer;
}

std::wstring ObjectName(HANDLE object) {
    wchar_t name[1024] = {};  // the last one stays NUL; a failed call leaves it all empty
    DWORD needed = 0;
    if (object != nullptr) {
        GetUserObjectInformationW(object, UOI_NAME, name, sizeof(name) - sizeof(wchar_t), &needed);
    }
    return name;
}

// One report line; a line break inside a value would split the record, so it becomes a space.
void AppendLine(std::string& report, const char* key, std::wstring value) {
    std::replace(value.begin(), value.end(), L'\r', L' ');
    std::replace(value.begin(), value.end(), L'\n', L' ');
    report += std::string(key) + '=' + qotest::ToUtf8(value) + "\r\n";
}

std::string BuildReport() {
    DWORD session = 0;
    const bool haveSession = ProcessIdToSessionId(GetCurrentProcessId(), &session) != FALSE;

    std::string report;
    AppendLine(report, qotest::kReportSession, haveSession ? std::to_wstring(session) : std::wstring());
    AppendLine(report, qotest::kReportCmdline, GetCommandLineW());
    AppendLine(report, qotest::kReportCwd, CurrentDirectory());
    for (const char* name :
         {qotest::kReportPath, qotest::kReportCommonProgramFilesX86, qotest::kReportCommonProgramW6432,
          qotest::kReportProgramFilesX86, qotest::kReportProgramW6432}) {
        AppendLine(report, name, EnvironmentValue(name));
    }
    const std::wstring station = ObjectName(GetProcessWindowStation());
    const std::wstring desktop = ObjectName(GetThreadDesktop(GetCurrentThreadId()));
    AppendLine(report, qotest::kReportDesktop,
               station.empty() || desktop.empty() ? desktop : station + L"\\" + desktop);
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

// "<name>_exit<HEX>.exe" (the last marker, any case) asks for an immediate exit with HEX (one to
// eight hex digits).
bool ExitCodeFromName(const std::wstring& exePath, DWORD* code) {
    std::wstring name = exePath.substr(exePath.find_last_of(L"\\/") + 1);
    if (name.size() > 4 && _wcsicmp(name.c_str() + name.size() - 4, L".exe") == 0) {
        name.resize(name.size() - 4);
    }
    std::transform(name.begin(), name.end(), name.begin(), towlower);
    const size_t at = name.rfind(qotest::kAgentExitNameMarker);
    if (at == std::wstring::npos) {
        return false;
    }
    const std::wstring digits = name.substr(at + wcslen(qotest::kAgentExitNameMarker));
    if (digits.empty() || digits.size() > 8 ||
        digits.find_first_not_of(L"0123456789abcdef") != std::wstring::npos) {
        return false;
    }
    *code = static_cast<DWORD>(wcstoul(digits.c_str(), nullptr, 16));
    return true;
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
LONG WINAPI EndOnUnhandledException(EXCEPTION_POINTERS*) { return EXCEPTION_EXECUTE_HANDLER; }

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
    const size_t slash = exePath.find_last_of(L"\\/");
    WriteReport(slash == std::wstring::npos ? std::wstring(L".") : exePath.substr(0, slash), BuildReport());

    DWORD immediateCode = 0;
    const bool exitAtOnce = ExitCodeFromName(exePath, &immediateCode);

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
