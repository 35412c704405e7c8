// What the tests and qo_helper.exe (tests/harness/qo_helper.cpp) agree on.
//
// qo_helper.exe without arguments is the session agent stand-in. Its first instruction releases one
// count of kAgentStarted. With HKLM\kAgentKey\kImmediate set it then exits at once with that code.
// Otherwise it writes agent-<pid>.txt beside its executable (key=value lines, UTF-8), creates its exit event,
// releases kAgentReady and waits: its own event ends it with the DWORD named by its pid under kAgentKey (1
// when missing), kAgentExitAll with the value kAll (0 when missing). 0xC0000005 is produced by a real access
// violation. "qo_helper.exe idle" lives until it is ended (a host process, a shell); "keeper" holds Wine's
// desktop; "service" is the Keld service, and sets kKeldRunning once it runs; "hold <mutex>" takes the named
// mutex, sets kHeld and keeps it. While kClock exists, an agent writes QueryPerformanceCounter into its
// first slot at its first instruction and into its second just before it exits.
#pragma once

#include <windows.h>

#include <string>

namespace qt {

inline constexpr wchar_t kAgentStarted[] = L"Global\\QoTestAgentStarted";
inline constexpr wchar_t kAgentReady[] = L"Global\\QoTestAgentReady";
inline constexpr wchar_t kAgentExitPrefix[] = L"Global\\QoTestAgentExit_";
inline constexpr wchar_t kAgentExitAll[] = L"Global\\QoTestAgentExitAll";
inline constexpr wchar_t kAgentKey[] = L"Software\\QoTest\\AgentExit";
inline constexpr wchar_t kAll[] = L"All";
inline constexpr wchar_t kImmediate[] = L"Immediate";
inline constexpr wchar_t kKeldRunning[] = L"Global\\QoTestKeldRunning";
inline constexpr wchar_t kHeld[] = L"Global\\QoTestMutexHeld";
inline constexpr wchar_t kClock[] = L"Global\\QoTestAgentClock";  // a mapping of two LONGLONGs
// The report's keys besides session, cmdline, cwd and desktop (winsta\\desktop); QoTestOwn is set in
// the test's own environment alone.
inline constexpr const wchar_t* kReportedVariables[] = {
    L"Path",     L"CommonProgramFiles(x86)", L"CommonProgramW6432", L"ProgramFiles(x86)", L"ProgramW6432",
    L"QoTestOwn"};

inline std::string ToUtf8(const std::wstring& text) {
    std::string out(text.size() * 3, '\0');
    out.resize(
        static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                out.data(), static_cast<int>(out.size()), nullptr, nullptr)));
    return out;
}

}  // namespace qt
