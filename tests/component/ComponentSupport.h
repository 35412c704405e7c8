// What the component tests need besides tests/support: pointing this process's own log at a
// scratch file, exact-message log queries, plain file and registry helpers.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "LogReader.h"
#include "foundation/SessionRecord.h"

class CWatchDog;

namespace qotest {

// Points this process's log at a fresh QoWatchDog.log in a scratch directory named `name`; returns
// the file's path. StopUsingScratchLog sends lines to the debugger output again.
std::wstring UseScratchLog(const std::wstring& name);
void StopUsingScratchLog();

// Records whose message is exactly `message` (UTF-8).
LogPredicate MessageIs(const std::string& message);
size_t CountMessage(const LogFile& log, const std::string& message);
bool HasMessage(const LogFile& log, const std::string& message);
bool HasMessageEndingWith(const LogFile& log, const std::string& suffix);
bool WaitForMessage(const std::wstring& logPath, const std::string& message, DWORD timeoutMs);

std::string ReadFileBytes(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, const std::string& bytes);
void TruncateFile(const std::wstring& path);
size_t FileSize(const std::wstring& path);
size_t CountSubstr(const std::string& text, const std::string& part);
std::wstring ToLower(std::wstring text);

struct RegValue {
    bool found = false;
    DWORD dwType = REG_NONE;
    std::string data;
};
RegValue RegRead(HKEY root, const std::wstring& key, const std::wstring& value);
// Stores exactly cbData bytes of `data` with the given type (the key is created when missing).
bool RegSetRaw(HKEY root, const std::wstring& key, const std::wstring& value, DWORD dwType, const void* data,
               DWORD cbData);

DWORD ProcessHandleCount();

// A session record as the watchdog registers it: the session's id and its shell's pid.
SessionRecord SessionRecordFor(DWORD dwSessionId, DWORD dwExplorerPid);
// The pid of the agent the watchdog holds for a session, 0 when none.
DWORD AgentPidOf(CWatchDog* pWatchDog, DWORD dwSessionId);

// Closes the watchdog as its main loop does (the close event that stops Keld), first telling every
// agent to end with 0 when endAgents, and waits at most timeoutMs for each monitor thread; true when
// all of them ended.
bool CloseAndWaitForMonitors(CWatchDog* pWatchDog, bool endAgents, DWORD timeoutMs);

// Ends a process the harness does not know by name (a stand-in shell, say) when the scope ends, so
// that a failed assertion cannot leave it holding the test's output open.
class EndOnExit {
public:
    explicit EndOnExit(HANDLE hProcess) : m_hProcess(hProcess) {}
    ~EndOnExit() {
        if (m_hProcess != nullptr) {
            TerminateProcess(m_hProcess, 0);
            WaitForSingleObject(m_hProcess, 5000);
        }
    }
    EndOnExit(const EndOnExit&) = delete;
    EndOnExit& operator=(const EndOnExit&) = delete;

private:
    HANDLE m_hProcess;
};

}  // namespace qotest
