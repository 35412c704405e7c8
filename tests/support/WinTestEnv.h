// What a test needs around the code under test: the paths of the programs CMake built, the
// installed-client layout of the test prefix, registry and process helpers, and the controls of the
// helper programs (tests/helpers/test_agent_protocol.h). Every wait here is bounded by a timeout.
#pragma once

#include <windows.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "test_agent_protocol.h"

namespace qotest {

// ---------------------------------------------------------------------------------------------
// Text and paths

// ToUtf8 comes with test_agent_protocol.h.
std::wstring FromUtf8(const std::string& text);

// "/a/b" (a Unix path, which Wine shows on drive Z:) becomes "Z:\a\b"; any other path is returned
// unchanged.
std::wstring ToWindowsPath(const std::wstring& path);

// a + "\" + b, without doubling a separator.
std::wstring JoinPath(const std::wstring& a, const std::wstring& b);

// The value of an environment variable, empty when it is not set.
std::wstring GetEnv(const wchar_t* name);

bool FileExists(const std::wstring& path);
bool DirectoryExists(const std::wstring& path);
// Removes a directory with everything below it; true when it is gone (or was never there).
bool RemoveDirectoryTree(const std::wstring& path);
// A fresh, empty directory %TEMP%\qotest\<name> (emptied when it existed). Empty string on failure.
std::wstring MakeScratchDirectory(const std::wstring& name);
// Names (not paths) of the files in `directory` that match `pattern` (FindFirstFileW syntax).
std::vector<std::wstring> ListFiles(const std::wstring& directory, const std::wstring& pattern);
// Copies a file, replacing the target.
bool CopyFileTo(const std::wstring& from, const std::wstring& to);
// The whole content of a file; nothing when it cannot be opened (GetLastError tells why).
std::optional<std::string> ReadWholeFile(const std::wstring& path);

// ---------------------------------------------------------------------------------------------
// Paths handed over by CMake (environment of every test; Windows form).

std::wstring WatchDogExe();    // QO_WATCHDOG_EXE: the build's QoWatchDog.exe
std::wstring TestAgentExe();   // QO_TEST_AGENT_EXE
std::wstring TestParentExe();  // QO_TEST_PARENT_EXE

// The installed client in the test prefix.
std::wstring PlatformDir();        // C:\Program Files\Corvane\Brevant\Platform (holds Session_Agent.ini)
std::wstring AgentDir();           // PlatformDir()\agent
std::wstring InstalledAgentExe();  // AgentDir()\QoSessionAgent.exe, a copy of test_agent.exe
std::wstring KeldInstallDir();     // C:\Program Files\Corvane\Keld (value InstallDir)
std::wstring WatchDogLogDir();     // KeldInstallDir()\debug, made by the watchdog
std::wstring WatchDogLogPath();    // WatchDogLogDir()\QoWatchDog.log

// Registry keys (under HKEY_LOCAL_MACHINE) of the installed client.
inline constexpr wchar_t kBrevantInstallKey[] = L"Software\\Corvane\\Brevant\\0\\Install";
inline constexpr wchar_t kKeldKey[] = L"SOFTWARE\\Corvane\\Keld";
inline constexpr wchar_t kKeldInstallDirValue[] = L"InstallDir";
inline constexpr wchar_t kSetStartEventValue[] = L"SetStartEvent";
inline constexpr wchar_t kSeAgntMaxNumValue[] = L"SeAgntMaxNum";

// The named objects of the deployment contract, spelled out here rather than taken from the product,
// so that a misspelt name in the product fails the tests.
inline constexpr wchar_t kReloadEvent[] = L"Global\\EVENT_ID_BREVANT_WATCHDOG_RELOAD";
inline constexpr wchar_t kStopServiceEvent[] = L"Global\\EVENT_ID_BREVANT_STOP_SERVICE";
inline constexpr wchar_t kTerminateEvent[] = L"Global\\EVENT_ID_BREVANT_TERMINATE_WATCHDOG";
inline constexpr wchar_t kShutdownUiFrameworkEvent[] = L"Global\\EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK";
inline constexpr wchar_t kAgentAndWaitingEvent[] =
    L"Global\\EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING";
inline constexpr wchar_t kWatchDogCloseEvent[] = L"Global\\EVENT_ID_BREVANT_WATCHDOG_CLOSE";
inline constexpr wchar_t kWatchDogCloseNoStopKeldEvent[] =
    L"Global\\EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD";
inline constexpr wchar_t kStartServiceEvent[] = L"Global\\EVENT_ID_BREVANT_START_SERVICE";
inline constexpr wchar_t kStartKeldEvent[] = L"Global\\EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC";
inline constexpr wchar_t kWatchDogMutex[] = L"Global\\_QO_WATCH_DOG_NAMED_MUTEX";

// ---------------------------------------------------------------------------------------------
// Handles

// Sole owner of a kernel handle; null and INVALID_HANDLE_VALUE both mean "none".
class OwnedHandle {
public:
    OwnedHandle() = default;
    explicit OwnedHandle(HANDLE handle) { reset(handle); }
    ~OwnedHandle() { reset(); }
    OwnedHandle(OwnedHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    OwnedHandle& operator=(OwnedHandle&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.handle_, nullptr));
        }
        return *this;
    }
    OwnedHandle(const OwnedHandle&) = delete;
    OwnedHandle& operator=(const OwnedHandle&) = delete;

    HANDLE get() const { return handle_; }
    bool valid() const { return handle_ != nullptr; }
    explicit operator bool() const { return valid(); }
    // Closes the current handle; the thread's last-error value survives the close.
    void reset(HANDLE handle = nullptr);

private:
    HANDLE handle_ = nullptr;
};

// ---------------------------------------------------------------------------------------------
// Named objects, looked at and set as the other client components do

bool EventExists(const std::wstring& name);
bool MutexExists(const std::wstring& name);
// Sets an existing named event; false when it does not exist.
bool SetNamedEvent(const std::wstring& name);

// ---------------------------------------------------------------------------------------------
// Registry (HKEY_LOCAL_MACHINE unless a root is given). Setters create the key. Deleting something
// that is not there counts as success.

bool SetRegDword(const std::wstring& key, const std::wstring& value, DWORD data,
                 HKEY root = HKEY_LOCAL_MACHINE);
bool SetRegString(const std::wstring& key, const std::wstring& value, const std::wstring& data,
                  HKEY root = HKEY_LOCAL_MACHINE);
bool CreateRegKey(const std::wstring& key, HKEY root = HKEY_LOCAL_MACHINE);
bool DeleteRegValue(const std::wstring& key, const std::wstring& value, HKEY root = HKEY_LOCAL_MACHINE);
bool DeleteRegKeyTree(const std::wstring& key, HKEY root = HKEY_LOCAL_MACHINE);

// ---------------------------------------------------------------------------------------------
// Processes

struct ChildProcess {
    OwnedHandle handle;  // the process; invalid when the start failed
    DWORD pid = 0;
    DWORD error = ERROR_SUCCESS;  // GetLastError of CreateProcessW when it failed
    OwnedHandle exitEvent;        // test_parent.exe only: its exit event, made before it ran
};

// Starts exe with the command line "<exe>" <arguments> in currentDirectory (empty: this process's
// current directory).
ChildProcess StartProcess(const std::wstring& exe, const std::wstring& arguments = std::wstring(),
                          const std::wstring& currentDirectory = std::wstring());

// Starts the watchdog as the host process does: "QoWatchDog.exe <parentPid>", current directory the
// platform directory.
ChildProcess StartWatchDog(DWORD parentPid, const std::wstring& exe = WatchDogExe(),
                           const std::wstring& currentDirectory = PlatformDir());

// Starts test_parent.exe, which lives until MakeTestParentExit or TerminateProcess. Its exit event
// is created (and held in exitEvent) before the program runs, so MakeTestParentExit works at once.
ChildProcess StartTestParent();
bool MakeTestParentExit(DWORD pid);

// Waits at most timeoutMs for the process to end; its exit code, or nothing on timeout.
std::optional<DWORD> WaitForExitCode(HANDLE process, DWORD timeoutMs);
bool IsRunning(HANDLE process);

// Pid of Wine's explorer.exe, which the prefix's desktop keeper holds running; 0 when none runs.
DWORD WineExplorerPid();

// Pids of the running processes whose executable name matches pattern (case-insensitive; '*' matches
// any run of characters), for example L"QoSessionAgent*.exe". This process is never listed.
std::vector<DWORD> FindProcesses(const std::wstring& pattern);

// Ends every process of the tests still running - QoWatchDog.exe, QoSessionAgent*.exe,
// test_agent*.exe, test_parent.exe - and waits (bounded) for them to be gone. Returns how many it
// ended.
size_t TerminateTestProcesses(DWORD timeoutMs = 5000);

// Brings the prefix back to the installed-client state before a test: ends the tests' processes,
// stops the Keld service, removes the tests' registry key (HKLM\Software\QoTest), restores the Install key
// without SetStartEvent and the Keld InstallDir value, removes the watchdog's debug directory and the
// agent reports, and clears the broadcast exit event. Every test program runs it before its tests
// (and ends the processes after them), see TestStateGuard.cpp.
void ResetTestState();

// ---------------------------------------------------------------------------------------------
// The agent stand-in

// Owns Global\QoTestAgentStarted. Create it before anything that starts agents; it starts at zero.
class AgentStartCounter {
public:
    AgentStartCounter();
    bool valid() const { return semaphore_.valid(); }
    // Takes `count` agent starts, waiting at most timeoutMs for all of them.
    bool WaitForStarts(int count, DWORD timeoutMs) { return Take(count, timeoutMs) == count; }
    // Takes up to `count` starts within timeoutMs; returns how many it took.
    int Take(int count, DWORD timeoutMs);
    // True when no agent starts within timeoutMs (for "nothing is started" checks).
    bool NoStartWithin(DWORD timeoutMs);

private:
    OwnedHandle semaphore_;
};

struct AgentReport {
    bool found = false;
    std::map<std::string, std::wstring> values;  // key -> value, see kReport* in the protocol

    // The value of a key, empty when missing.
    std::wstring Get(const char* key) const;
};

AgentReport ReadAgentReport(DWORD pid, const std::wstring& directory = AgentDir());
// Deletes agent-*.txt in the directory.
void RemoveAgentReports(const std::wstring& directory = AgentDir());

// Sets the exit code an agent will use when its event is set.
bool SetAgentExitCode(DWORD pid, DWORD exitCode);
// Sets the exit code, then the agent's exit event. False when the agent's event does not exist.
bool MakeAgentExit(DWORD pid, DWORD exitCode);
// Sets the code of value "All", then the broadcast event: every waiting agent exits with exitCode.
// The event stays set (agents started afterwards exit at once) until ResetAllAgentsExit.
bool MakeAllAgentsExit(DWORD exitCode);
void ResetAllAgentsExit();

// ---------------------------------------------------------------------------------------------
// The Keld service

// SERVICE_STOPPED, SERVICE_RUNNING, ...; 0 when it cannot be queried.
DWORD KeldServiceState();
// Starts Keld and waits (bounded) until the service reports running.
bool StartKeldService(DWORD timeoutMs = 10000);
// Stops Keld when it runs and waits (bounded) until its process has ended.
bool StopKeldService(DWORD timeoutMs = 10000);

}  // namespace qotest
