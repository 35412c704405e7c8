// What the tests, the demo and the benchmark do around the watchdog under Wine: start, find, wait
// for and end processes; registry values; named events; the agent stand-in; the watchdog's log.
// Every wait is bounded by kWaitMs unless told otherwise.
#pragma once

#include <windows.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Protocol.h"

namespace qt {

inline constexpr DWORD kWaitMs = 20000;
inline constexpr DWORD kFailed = 0xFFFFFFFF;  // the watchdog's -1

// The deployment contract's names, spelled here and not taken from the product, so that a misspelt
// name in the product fails the tests.
inline constexpr wchar_t kInstallKey[] = L"Software\\Corvane\\Brevant\\0\\Install";
inline constexpr wchar_t kInstallParentKey[] = L"Software\\Corvane\\Brevant\\0";
inline constexpr wchar_t kProductKey[] = L"Software\\Corvane\\Brevant";
inline constexpr wchar_t kKeldKey[] = L"SOFTWARE\\Corvane\\Keld";
inline constexpr wchar_t kEnvKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment";
inline constexpr wchar_t kReload[] = L"Global\\EVENT_ID_BREVANT_WATCHDOG_RELOAD";
inline constexpr wchar_t kTerminate[] = L"Global\\EVENT_ID_BREVANT_TERMINATE_WATCHDOG";
inline constexpr wchar_t kStartKeld[] = L"Global\\EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC";
inline constexpr wchar_t kClose[] = L"Global\\EVENT_ID_BREVANT_WATCHDOG_CLOSE";
inline constexpr wchar_t kCloseNoStop[] = L"Global\\EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD";
inline constexpr wchar_t kStartService[] = L"Global\\EVENT_ID_BREVANT_START_SERVICE";
inline constexpr wchar_t kMutex[] = L"Global\\_QO_WATCH_DOG_NAMED_MUTEX";
inline constexpr wchar_t kLogWriter[] = L"Global\\QO_WATCH_DOG_LOG_WRITER";

struct CloseHandleOf {
    void operator()(HANDLE h) const { CloseHandle(h); }
};
using Handle = std::unique_ptr<void, CloseHandleOf>;
Handle Own(HANDLE h);  // null for null and INVALID_HANDLE_VALUE

// Paths: the build's programs (given by CMake as Unix paths) and the installed client of the prefix.
// A file's bytes as they stand; empty when it cannot be read.
std::string ReadBytes(const std::wstring& path);
// The ids of a process's threads.
std::vector<DWORD> ThreadsOf(DWORD pid);
// A Unix path that CMake put in an environment variable, as Wine shows it on drive Z:.
std::wstring BuildPath(const char* variable);
std::wstring WatchDogExe();
std::wstring PlatformDir();
std::wstring AgentDir();
std::wstring KeldDir();
std::wstring LogPath();
std::wstring Scratch(const std::wstring& name);  // a new empty directory under %TEMP%

struct Proc {
    Handle h;
    DWORD pid = 0;
};
// "exe" args, in cwd (empty: ours).
Proc Start(const std::wstring& exe, const std::wstring& args = L"", const std::wstring& cwd = L"");
// As the host starts it ("<pid>") or the Run key ("" or "0"), in the platform directory.
Proc StartWatchDog(const std::wstring& args);
std::optional<DWORD> ExitCode(const Proc& p, DWORD ms = kWaitMs);
// qo_helper.exe copied as name into a directory of its own (once per name) and started with mode
// ("idle": a host process or, named explorer.exe, a shell).
Proc StartHelper(const std::wstring& name, const std::wstring& mode);
// QoWatchCtl.exe with these arguments, in the platform directory: its exit code and its output.
std::pair<DWORD, std::string> Ctl(const std::wstring& args);
// Another process that has taken this mutex and keeps it.
Proc Hold(const wchar_t* mutex);
// Prints every thread's stack of a live process (Wine's debugger attached for a moment).
void Stacks(DWORD pid = GetCurrentProcessId());
// Ends the test program if it has not been destroyed ms from now, after printing what was awaited
// and every thread's stack and ending the test's processes: a wait that never returns must not
// cost the caller's time-out.
class Deadline {
public:
    Deadline(const std::string& what, DWORD ms);
    ~Deadline();

private:
    std::string m_what;
    DWORD m_ms;
    Handle m_done;
    HANDLE m_thread;
};
// Pids of the processes whose executable name is exactly this (any case); "*" for all.
std::vector<DWORD> Find(const std::wstring& exeName);
// Brings the prefix back to the installed client: ends the tests' processes, removes the tests'
// registry values, the log directory and the agents' reports, stops Keld.
void Reset();

bool SetDword(const std::wstring& key, const std::wstring& value, DWORD data);
bool SetString(const std::wstring& key, const std::wstring& value, const std::wstring& data,
               DWORD type = REG_SZ);
std::wstring ReadString(const std::wstring& key, const std::wstring& value);  // empty when missing

bool Signal(const wchar_t* event);  // sets an existing event
bool Exists(const wchar_t* event);

// Counts agent starts: kAgentReady (report written, exit event made) or kAgentStarted.
class Agents {
public:
    explicit Agents(const wchar_t* semaphore = kAgentReady);
    bool Wait(int count = 1, DWORD ms = kWaitMs);

private:
    Handle m_semaphore;
};
bool EndAgent(DWORD pid, DWORD code);
void EndAllAgents(DWORD code);  // also every agent started while it stays set
void ResetAllAgents();
std::string Report(DWORD pid);  // the agent's report, "\r\n" before and after each key=value line
DWORD OnlyAgent();              // the one running agent, 0 unless exactly one runs

struct Line {
    DWORD pid = 0;
    std::string source;
    bool error = false;
    std::string message;
};
struct Log {
    std::vector<Line> lines;
    std::vector<std::string> malformed;
    size_t Count(const std::string& text) const;  // lines whose message holds the text
    size_t Errors() const;
};
Log ReadLog(const std::wstring& path = LogPath());
// Waits until count messages hold the text; false on time-out.
bool WaitLog(const std::string& text, size_t count = 1, const std::wstring& path = LogPath(),
             DWORD ms = kWaitMs);
// The lines from the first, one a row, for a failure's message.
std::string Shown(const std::vector<Line>& lines, size_t first);
// "" when messages holding these texts appear in this order, else the first one missed and the log.
std::string InOrder(const Log& log, const std::vector<std::string>& texts);

// The log as it grows: each read parses only the lines appended since the last one.
class LogTail {
public:
    explicit LogTail(const std::wstring& path = LogPath()) : m_path(path) {}
    void Mark();  // waits count the lines from here on
    // Waits until count lines since the mark hold the text; false on time-out.
    bool Wait(const std::string& text, size_t count = 1, DWORD ms = kWaitMs);
    std::string Seen();         // the lines since the mark (the last 40), for a failure's message
    std::vector<Line> Since();  // every line since the mark
    const std::wstring& Path() const { return m_path; }

private:
    size_t Count(const std::string& text);
    std::wstring m_path;
    unsigned long long m_offset = 0;
    std::vector<Line> m_lines;
    size_t m_mark = 0;
};

// This process's open handles and threads.
std::pair<DWORD, DWORD> HandlesAndThreads();

}  // namespace qt
