#include "ComponentSupport.h"

#include <algorithm>
#include <cwctype>

#include "WinTestEnv.h"
#include "foundation/logging.h"
#include "session/SessionAgentMonitor.h"
#include "watchdog/WatchDog.h"

namespace qotest {

std::wstring UseScratchLog(const std::wstring& name) {
    const std::wstring path = JoinPath(MakeScratchDirectory(name), L"QoWatchDog.log");
    GetLogger().set_file(path.c_str());
    return path;
}

void StopUsingScratchLog() { GetLogger().set_file(nullptr); }

LogPredicate MessageIs(const std::string& message) {
    return [message](const LogRecord& record) { return record.message == message; };
}

size_t CountMessage(const LogFile& log, const std::string& message) { return log.Count(MessageIs(message)); }

bool HasMessage(const LogFile& log, const std::string& message) { return CountMessage(log, message) > 0; }

bool HasMessageEndingWith(const LogFile& log, const std::string& suffix) {
    return log.Count([&suffix](const LogRecord& record) {
        return record.message.size() >= suffix.size() &&
               record.message.compare(record.message.size() - suffix.size(), suffix.size(), suffix) == 0;
    }) > 0;
}

bool WaitForMessage(const std::wstring& logPath, const std::string& message, DWORD timeoutMs) {
    return WaitForLogLine(logPath, MessageIs(message), timeoutMs).has_value();
}

std::string ReadFileBytes(const std::wstring& path) { return ReadWholeFile(path).value_or(std::string()); }

void WriteFileBytes(const std::wstring& path, const std::string& bytes) {
    OwnedHandle file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD nWritten = 0;
    if (file.valid() && !bytes.empty()) {
        WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &nWritten, nullptr);
    }
}

void TruncateFile(const std::wstring& path) { WriteFileBytes(path, std::string()); }

size_t FileSize(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
        return 0;
    }
    return static_cast<size_t>((static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow);
}

size_t CountSubstr(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t pos = text.find(part); pos != std::string::npos; pos = text.find(part, pos + part.size())) {
        ++count;
    }
    return count;
}

std::wstring ToLower(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return std::towlower(c); });
    return text;
}

// RegQueryValueExW, not RegGetValueW: the bytes as stored, a string's missing NUL not added.
RegValue RegRead(HKEY root, const std::wstring& key, const std::wstring& value) {
    RegValue result;
    HKEY hKey = nullptr;
    if (RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS) {
        return result;
    }
    DWORD cbData = 0;
    if (RegQueryValueExW(hKey, value.c_str(), nullptr, &result.dwType, nullptr, &cbData) == ERROR_SUCCESS) {
        result.data.resize(cbData);
        BYTE* buffer = result.data.empty() ? nullptr : reinterpret_cast<BYTE*>(result.data.data());
        result.found =
            RegQueryValueExW(hKey, value.c_str(), nullptr, &result.dwType, buffer, &cbData) == ERROR_SUCCESS;
        if (result.found) {
            result.data.resize(cbData);
        }
    }
    RegCloseKey(hKey);
    return result;
}

bool RegSetRaw(HKEY root, const std::wstring& key, const std::wstring& value, DWORD dwType, const void* data,
               DWORD cbData) {
    return RegSetKeyValueW(root, key.c_str(), value.c_str(), dwType, data, cbData) == ERROR_SUCCESS;
}

DWORD ProcessHandleCount() {
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return count;
}

SessionRecord SessionRecordFor(DWORD dwSessionId, DWORD dwExplorerPid) {
    SessionRecord rec = {};
    rec.dwSessionId = dwSessionId;
    rec.dwExplorerPid = dwExplorerPid;
    return rec;
}

DWORD AgentPidOf(CWatchDog* pWatchDog, DWORD dwSessionId) {
    SessionRecord rec = {};
    if (!pWatchDog->GetSessionSnapshot(dwSessionId, rec) || rec.hAgentProcess == nullptr) {
        return 0;
    }
    return GetProcessId(rec.hAgentProcess);
}

bool CloseAndWaitForMonitors(CWatchDog* pWatchDog, bool endAgents, DWORD timeoutMs) {
    pWatchDog->SetCloseEvent(true);
    if (endAgents) {
        MakeAllAgentsExit(0);
    }
    const std::vector<HANDLE> threads = g_vecMonitorThreads;
    bool bEnded = true;
    for (HANDLE hThread : threads) {
        bEnded = WaitForSingleObject(hThread, timeoutMs) == WAIT_OBJECT_0 && bEnded;
    }
    return bEnded;
}

}  // namespace qotest
