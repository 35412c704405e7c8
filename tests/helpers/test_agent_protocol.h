// The contract between the tests and the helper programs in tests/helpers: the names of the kernel
// objects, registry values and report lines each side relies on. Both sides include this header, so a
// name is spelled once.
#pragma once

#include <windows.h>

#include <string>

namespace qotest {

// --- test_agent.exe: the session agent stand-in -------------------------------------------------
//
// On start the agent writes agent-<pid>.txt beside its own executable (UTF-8, one key=value a line,
// the keys below), creates its exit events, then releases one count of kAgentStartedSemaphore (when
// the test created it). So once a test has taken a count, the report is complete and the agent's exit
// events exist.
//
// Then:
// - executable named <anything>_exit<HEX>.exe: the agent exits at once with code HEX;
// - otherwise it waits on kAgentExitEventPrefix<pid> and on kAgentExitAllEvent. Its own event makes
//   it exit with the DWORD value named <pid> (decimal) under HKLM\kAgentExitKey, 1 when missing; the
//   broadcast event with the value kAgentExitAllValue, 0 when missing.
// The exit code 0xC0000005 is always produced by a real access violation.

// Semaphore created by the test; each agent start releases one count.
inline constexpr wchar_t kAgentStartedSemaphore[] = L"Global\\QoTestAgentStarted";
// Manual-reset event of one agent: the prefix followed by its pid in decimal.
inline constexpr wchar_t kAgentExitEventPrefix[] = L"Global\\QoTestAgentExit_";
// Manual-reset event that ends every waiting agent.
inline constexpr wchar_t kAgentExitAllEvent[] = L"Global\\QoTestAgentExitAll";
// Key under HKEY_LOCAL_MACHINE with the exit codes (REG_DWORD values).
inline constexpr wchar_t kAgentExitKey[] = L"Software\\QoTest\\AgentExit";
// Value read on the broadcast event; the per-agent value is named by the pid in decimal.
inline constexpr wchar_t kAgentExitAllValue[] = L"All";
inline constexpr DWORD kAgentDefaultExitCode = 1;
inline constexpr DWORD kAgentDefaultExitAllCode = 0;
// Marker in the executable's base name that asks for an immediate exit: Name_exitC0000142.exe.
inline constexpr wchar_t kAgentExitNameMarker[] = L"_exit";
// The code that is produced by writing through a null pointer instead of ExitProcess.
inline constexpr DWORD kAccessViolationCode = 0xC0000005;
// Exit code of an agent that could not create its exit events (it cannot be told to exit then).
inline constexpr DWORD kAgentBrokenExitCode = 0x0000BAD1;

// Report file: kAgentReportPrefix + pid (decimal) + kAgentReportSuffix, beside the executable.
inline constexpr wchar_t kAgentReportPrefix[] = L"agent-";
inline constexpr wchar_t kAgentReportSuffix[] = L".txt";

// The report's encoding; the harness reads it back with FromUtf8.
inline std::string ToUtf8(const std::wstring& text) {
    if (text.empty()) {
        return std::string();
    }
    const int length = static_cast<int>(text.size());
    std::string out(WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, out.data(), static_cast<int>(out.size()), nullptr,
                        nullptr);
    return out;
}

// Report keys (the part before the first '=' of a line).
inline constexpr char kReportSession[] = "session";  // ProcessIdToSessionId, decimal
inline constexpr char kReportCmdline[] = "cmdline";  // GetCommandLineW
inline constexpr char kReportCwd[] = "cwd";          // GetCurrentDirectoryW
inline constexpr char kReportDesktop[] = "desktop";  // winsta\desktop of the main thread
// Environment variables reported by name (empty value when the variable is missing).
inline constexpr char kReportPath[] = "Path";
inline constexpr char kReportCommonProgramFilesX86[] = "CommonProgramFiles(x86)";
inline constexpr char kReportCommonProgramW6432[] = "CommonProgramW6432";
inline constexpr char kReportProgramFilesX86[] = "ProgramFiles(x86)";
inline constexpr char kReportProgramW6432[] = "ProgramW6432";

// --- test_parent.exe: the host process that starts the watchdog ---------------------------------
// Waits on this manual-reset event (prefix + its pid in decimal) and exits with 0 when it is set.
inline constexpr wchar_t kParentExitEventPrefix[] = L"Global\\QoTestParentExit_";

// --- keld_service.exe: the Keld service ---------------------------------------------------------
inline constexpr wchar_t kKeldServiceName[] = L"Keld";
// Set (never created) by the service once it reports SERVICE_RUNNING.
inline constexpr wchar_t kKeldRunningEvent[] = L"Global\\QoTestKeldRunning";

}  // namespace qotest
