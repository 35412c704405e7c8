#include "WinTestEnv.h"

#include <tlhelp32.h>

#include <cwctype>
#include <utility>

namespace qotest {

namespace {

constexpr wchar_t kPlatformDir[] = L"C:\\Program Files\\Corvane\\Brevant\\Platform";
constexpr wchar_t kKeldInstallDir[] = L"C:\\Program Files\\Corvane\\Keld";

// The executables a test may leave behind; ResetTestState and TerminateTestProcesses end them.
constexpr const wchar_t* kTestProcessPatterns[] = {L"QoWatchDog.exe", L"QoSessionAgent*.exe",
                                                   L"test_agent*.exe", L"test_parent.exe"};

// Held while the broadcast exit event must stay set, so it outlives the agents that hold it too.
OwnedHandle g_exitAllEvent;

std::wstring PathFromEnv(const wchar_t* name) {
    return ToWindowsPath(GetEnv(name));
}

bool WildcardMatch(const wchar_t* pattern, const wchar_t* text) {
    while (*pattern != L'\0') {
        if (*pattern == L'*') {
            ++pattern;
            for (const wchar_t* rest = text;; ++rest) {
                if (WildcardMatch(pattern, rest)) {
                    return true;
                }
                if (*rest == L'\0') {
                    return false;
                }
            }
        }
        if (*text == L'\0' || towlower(*pattern) != towlower(*text)) {
            return false;
        }
        ++pattern;
        ++text;
    }
    return *text == L'\0';
}

struct ServiceHandle {
    SC_HANDLE handle = nullptr;
    ServiceHandle() = default;
    explicit ServiceHandle(SC_HANDLE h) : handle(h) {}
    ~ServiceHandle() {
        if (handle != nullptr) {
            CloseServiceHandle(handle);
        }
    }
    ServiceHandle(const ServiceHandle&) = delete;
    ServiceHandle& operator=(const ServiceHandle&) = delete;
};

struct RegKey {
    HKEY handle = nullptr;
    ~RegKey() {
        if (handle != nullptr) {
            RegCloseKey(handle);
        }
    }
};

bool SetRegValue(HKEY root, const std::wstring& key, const std::wstring& value, DWORD type, const void* data,
                 DWORD size) {
    RegKey opened;
    if (RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, &opened.handle, nullptr) !=
        ERROR_SUCCESS) {
        return false;
    }
    return RegSetValueExW(opened.handle, value.c_str(), 0, type, static_cast<const BYTE*>(data), size) ==
           ERROR_SUCCESS;
}

bool IsDotEntry(const wchar_t* name) {
    return wcscmp(name, L".") == 0 || wcscmp(name, L"..") == 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Text and paths

std::string ToUtf8(const std::wstring& text) {
    if (text.empty()) {
        return std::string();
    }
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                         nullptr, nullptr);
    std::string out(static_cast<size_t>(size > 0 ? size : 0), '\0');
    if (size > 0) {
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], size, nullptr,
                            nullptr);
    }
    return out;
}

std::wstring FromUtf8(const std::string& text) {
    if (text.empty()) {
        return std::wstring();
    }
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(size > 0 ? size : 0), L'\0');
    if (size > 0) {
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], size);
    }
    return out;
}

std::wstring ToWindowsPath(const std::wstring& path) {
    if (path.empty() || path[0] != L'/') {
        return path;
    }
    std::wstring out = L"Z:" + path;
    for (wchar_t& c : out) {
        if (c == L'/') {
            c = L'\\';
        }
    }
    return out;
}

std::wstring JoinPath(const std::wstring& a, const std::wstring& b) {
    if (a.empty()) {
        return b;
    }
    if (a.back() == L'\\' || a.back() == L'/') {
        return a + b;
    }
    return a + L"\\" + b;
}

std::wstring GetEnv(const wchar_t* name) {
    const DWORD size = GetEnvironmentVariableW(name, nullptr, 0);
    if (size == 0) {
        return std::wstring();
    }
    std::wstring value(size, L'\0');
    const DWORD length = GetEnvironmentVariableW(name, &value[0], size);
    value.resize(length < size ? length : 0);
    return value;
}

bool FileExists(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool DirectoryExists(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool RemoveDirectoryTree(const std::wstring& path) {
    if (!DirectoryExists(path)) {
        return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES;
    }
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW(JoinPath(path, L"*").c_str(), &entry);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            if (IsDotEntry(entry.cFileName)) {
                continue;
            }
            const std::wstring child = JoinPath(path, entry.cFileName);
            if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
                RemoveDirectoryTree(child);
            } else {
                SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
                DeleteFileW(child.c_str());
            }
        } while (FindNextFileW(find, &entry));
        FindClose(find);
    }
    return RemoveDirectoryW(path.c_str()) != FALSE || !DirectoryExists(path);
}

std::wstring MakeScratchDirectory(const std::wstring& name) {
    wchar_t temp[MAX_PATH + 1] = {};
    const DWORD length = GetTempPathW(MAX_PATH + 1, temp);
    if (length == 0 || length > MAX_PATH) {
        return std::wstring();
    }
    const std::wstring root = JoinPath(temp, L"qotest");
    const std::wstring dir = JoinPath(root, name);
    CreateDirectoryW(root.c_str(), nullptr);
    if (!RemoveDirectoryTree(dir) || !CreateDirectoryW(dir.c_str(), nullptr)) {
        return std::wstring();
    }
    return dir;
}

bool CopyFileTo(const std::wstring& from, const std::wstring& to) {
    return CopyFileW(from.c_str(), to.c_str(), FALSE) != FALSE;
}

// ---------------------------------------------------------------------------------------------
// Paths

std::wstring WatchDogExe() { return PathFromEnv(L"QO_WATCHDOG_EXE"); }
std::wstring TestAgentExe() { return PathFromEnv(L"QO_TEST_AGENT_EXE"); }
std::wstring TestParentExe() { return PathFromEnv(L"QO_TEST_PARENT_EXE"); }
std::wstring KeldServiceExe() { return PathFromEnv(L"QO_KELD_SERVICE_EXE"); }
std::wstring HelperDir() { return PathFromEnv(L"QO_HELPER_DIR"); }

std::wstring PlatformDir() { return kPlatformDir; }
std::wstring AgentDir() { return JoinPath(kPlatformDir, L"agent"); }
std::wstring InstalledAgentExe() { return JoinPath(AgentDir(), L"QoSessionAgent.exe"); }
std::wstring KeldInstallDir() { return kKeldInstallDir; }
std::wstring WatchDogLogDir() { return JoinPath(kKeldInstallDir, L"debug"); }
std::wstring WatchDogLogPath() { return JoinPath(WatchDogLogDir(), L"QoWatchDog.log"); }

// ---------------------------------------------------------------------------------------------
// Handles

void OwnedHandle::reset(HANDLE handle) {
    if (handle_ != nullptr) {
        const DWORD lastError = GetLastError();
        CloseHandle(handle_);
        SetLastError(lastError);
    }
    handle_ = handle == INVALID_HANDLE_VALUE ? nullptr : handle;
}

// ---------------------------------------------------------------------------------------------
// Registry

bool SetRegDword(const std::wstring& key, const std::wstring& value, DWORD data, HKEY root) {
    return SetRegValue(root, key, value, REG_DWORD, &data, sizeof(data));
}

bool SetRegQword(const std::wstring& key, const std::wstring& value, ULONGLONG data, HKEY root) {
    return SetRegValue(root, key, value, REG_QWORD, &data, sizeof(data));
}

bool SetRegString(const std::wstring& key, const std::wstring& value, const std::wstring& data, HKEY root) {
    return SetRegValue(root, key, value, REG_SZ, data.c_str(),
                       static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t)));
}

std::optional<DWORD> GetRegDword(const std::wstring& key, const std::wstring& value, HKEY root) {
    DWORD data = 0;
    DWORD size = sizeof(data);
    if (RegGetValueW(root, key.c_str(), value.c_str(), RRF_RT_REG_DWORD, nullptr, &data, &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    return data;
}

std::optional<ULONGLONG> GetRegQword(const std::wstring& key, const std::wstring& value, HKEY root) {
    ULONGLONG data = 0;
    DWORD size = sizeof(data);
    if (RegGetValueW(root, key.c_str(), value.c_str(), RRF_RT_REG_QWORD, nullptr, &data, &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    return data;
}

std::optional<std::wstring> GetRegString(const std::wstring& key, const std::wstring& value, HKEY root) {
    DWORD size = 0;
    if (RegGetValueW(root, key.c_str(), value.c_str(), RRF_RT_REG_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::wstring data(size / sizeof(wchar_t) + 1, L'\0');
    size = static_cast<DWORD>(data.size() * sizeof(wchar_t));
    if (RegGetValueW(root, key.c_str(), value.c_str(), RRF_RT_REG_SZ, nullptr, &data[0], &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    data.resize(wcslen(data.c_str()));
    return data;
}

bool RegKeyExists(const std::wstring& key, HKEY root) {
    RegKey opened;
    return RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &opened.handle) == ERROR_SUCCESS;
}

bool CreateRegKey(const std::wstring& key, HKEY root) {
    RegKey opened;
    return RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_READ, nullptr, &opened.handle, nullptr) ==
           ERROR_SUCCESS;
}

bool DeleteRegValue(const std::wstring& key, const std::wstring& value, HKEY root) {
    RegKey opened;
    const LONG open = RegOpenKeyExW(root, key.c_str(), 0, KEY_SET_VALUE, &opened.handle);
    if (open == ERROR_FILE_NOT_FOUND) {
        return true;
    }
    if (open != ERROR_SUCCESS) {
        return false;
    }
    const LONG result = RegDeleteValueW(opened.handle, value.c_str());
    return result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND;
}

bool DeleteRegKeyTree(const std::wstring& key, HKEY root) {
    // Given a subkey name, RegDeleteTreeW removes the key itself with everything below it.
    const LONG result = RegDeleteTreeW(root, key.c_str());
    return result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND;
}

// ---------------------------------------------------------------------------------------------
// Processes

namespace {

// Starts a process suspended, lets `prepare` act on its pid, then lets it run. An empty exe leaves
// the program to the command line's first token.
template <class Prepare>
ChildProcess Launch(const std::wstring& exe, std::wstring commandLine, const std::wstring& currentDirectory,
                    Prepare prepare) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info = {};
    ChildProcess child;
    if (!CreateProcessW(exe.empty() ? nullptr : exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE,
                        CREATE_SUSPENDED, nullptr, currentDirectory.empty() ? nullptr : currentDirectory.c_str(),
                        &startup, &info)) {
        child.error = GetLastError();
        return child;
    }
    child.handle.reset(info.hProcess);
    child.pid = info.dwProcessId;
    prepare(child);
    ResumeThread(info.hThread);
    CloseHandle(info.hThread);
    return child;
}

std::wstring ParentExitEventName(DWORD pid) {
    return kParentExitEventPrefix + std::to_wstring(pid);
}

std::wstring QuotedCommandLine(const std::wstring& exe, const std::wstring& arguments) {
    std::wstring commandLine = L"\"" + exe + L"\"";
    if (!arguments.empty()) {
        commandLine += L" " + arguments;
    }
    return commandLine;
}

}  // namespace

ChildProcess StartProcess(const std::wstring& exe, const std::wstring& arguments,
                          const std::wstring& currentDirectory) {
    return Launch(exe, QuotedCommandLine(exe, arguments), currentDirectory, [](ChildProcess&) {});
}

ChildProcess StartCommandLine(const std::wstring& commandLine, const std::wstring& currentDirectory) {
    return Launch(std::wstring(), commandLine, currentDirectory, [](ChildProcess&) {});
}

ChildProcess StartWatchDog(DWORD parentPid, const std::wstring& exe, const std::wstring& currentDirectory) {
    return StartProcess(exe, std::to_wstring(parentPid), currentDirectory);
}

ChildProcess StartTestParent() {
    const std::wstring exe = TestParentExe();
    return Launch(exe, QuotedCommandLine(exe, std::wstring()), std::wstring(), [](ChildProcess& child) {
        child.exitEvent.reset(CreateEventW(nullptr, TRUE, FALSE, ParentExitEventName(child.pid).c_str()));
    });
}

bool MakeTestParentExit(DWORD pid) {
    OwnedHandle event(OpenEventW(EVENT_MODIFY_STATE, FALSE, ParentExitEventName(pid).c_str()));
    return event.valid() && SetEvent(event.get()) != FALSE;
}

std::optional<DWORD> WaitForExitCode(HANDLE process, DWORD timeoutMs) {
    if (WaitForSingleObject(process, timeoutMs) != WAIT_OBJECT_0) {
        return std::nullopt;
    }
    DWORD code = 0;
    if (!GetExitCodeProcess(process, &code)) {
        return std::nullopt;
    }
    return code;
}

bool IsRunning(HANDLE process) {
    return WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
}

std::vector<DWORD> FindProcesses(const std::wstring& pattern) {
    std::vector<DWORD> pids;
    OwnedHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot) {
        return pids;
    }
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    const DWORD self = GetCurrentProcessId();
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more; more = Process32NextW(snapshot.get(), &entry)) {
        if (entry.th32ProcessID != self && WildcardMatch(pattern.c_str(), entry.szExeFile)) {
            pids.push_back(entry.th32ProcessID);
        }
    }
    return pids;
}

size_t TerminateTestProcesses(DWORD timeoutMs) {
    std::vector<OwnedHandle> ended;
    for (const wchar_t* pattern : kTestProcessPatterns) {
        for (DWORD pid : FindProcesses(pattern)) {
            OwnedHandle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid));
            if (process && TerminateProcess(process.get(), 1)) {
                ended.push_back(std::move(process));
            }
        }
    }
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (const OwnedHandle& process : ended) {
        const ULONGLONG now = GetTickCount64();
        WaitForSingleObject(process.get(), now < deadline ? static_cast<DWORD>(deadline - now) : 0);
    }
    return ended.size();
}

void ResetTestState() {
    TerminateTestProcesses();
    StopKeldService();
    ResetAllAgentsExit();
    DeleteRegKeyTree(kTestRootKey);
    CreateRegKey(kBrevantInstallKey);
    DeleteRegValue(kBrevantInstallKey, kSetStartEventValue);
    SetRegString(kKeldKey, kKeldInstallDirValue, kKeldInstallDir);
    CreateDirectoryW(kKeldInstallDir, nullptr);
    RemoveDirectoryTree(WatchDogLogDir());
    RemoveAgentReports();
}

// ---------------------------------------------------------------------------------------------
// The agent stand-in

AgentStartCounter::AgentStartCounter()
    : semaphore_(CreateSemaphoreW(nullptr, 0, 0x7FFFFFFF, kAgentStartedSemaphore)) {
    // A semaphore left by an earlier holder may still count starts: begin from zero.
    while (semaphore_ && WaitForSingleObject(semaphore_.get(), 0) == WAIT_OBJECT_0) {
    }
}

bool AgentStartCounter::WaitForStarts(int count, DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (int taken = 0; taken < count; ++taken) {
        const ULONGLONG now = GetTickCount64();
        const DWORD remaining = now < deadline ? static_cast<DWORD>(deadline - now) : 0;
        if (WaitForSingleObject(semaphore_.get(), remaining) != WAIT_OBJECT_0) {
            return false;
        }
    }
    return true;
}

bool AgentStartCounter::NoStartWithin(DWORD timeoutMs) {
    return WaitForSingleObject(semaphore_.get(), timeoutMs) == WAIT_TIMEOUT;
}

std::wstring AgentReport::Get(const char* key) const {
    const auto found = values.find(key);
    return found == values.end() ? std::wstring() : found->second;
}

std::optional<std::wstring> AgentReport::Env(const std::wstring& name) const {
    for (const std::wstring& entry : environment) {
        // Names such as "=C:" begin with '='; the separator is the first '=' after the name's start.
        const size_t separator = entry.find(L'=', 1);
        if (separator == std::wstring::npos) {
            continue;
        }
        if (separator == name.size() && _wcsnicmp(entry.c_str(), name.c_str(), name.size()) == 0) {
            return entry.substr(separator + 1);
        }
    }
    return std::nullopt;
}

std::wstring AgentReportPath(DWORD pid, const std::wstring& directory) {
    return JoinPath(directory, kAgentReportPrefix + std::to_wstring(pid) + kAgentReportSuffix);
}

AgentReport ReadAgentReport(DWORD pid, const std::wstring& directory) {
    AgentReport report;
    OwnedHandle file(CreateFileW(AgentReportPath(pid, directory).c_str(), GENERIC_READ,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        return report;
    }
    std::string content;
    char buffer[4096];
    DWORD read = 0;
    while (ReadFile(file.get(), buffer, sizeof(buffer), &read, nullptr) && read > 0) {
        content.append(buffer, read);
    }
    report.found = true;

    size_t start = 0;
    while (start < content.size()) {
        size_t end = content.find('\n', start);
        if (end == std::string::npos) {
            end = content.size();
        }
        std::string line = content.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        start = end + 1;
        const size_t separator = line.find('=');
        if (separator == std::string::npos) {
            continue;
        }
        const std::string key = line.substr(0, separator);
        std::wstring value = FromUtf8(line.substr(separator + 1));
        if (key == kReportEnv) {
            report.environment.push_back(std::move(value));
        } else {
            report.values[key] = std::move(value);
        }
    }
    return report;
}

void RemoveAgentReports(const std::wstring& directory) {
    WIN32_FIND_DATAW entry;
    const std::wstring pattern = JoinPath(directory, std::wstring(kAgentReportPrefix) + L"*" + kAgentReportSuffix);
    HANDLE find = FindFirstFileW(pattern.c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        DeleteFileW(JoinPath(directory, entry.cFileName).c_str());
    } while (FindNextFileW(find, &entry));
    FindClose(find);
}

bool SetAgentExitCode(DWORD pid, DWORD exitCode) {
    return SetRegDword(kAgentExitKey, std::to_wstring(pid), exitCode);
}

bool MakeAgentExit(DWORD pid, DWORD exitCode) {
    if (!SetAgentExitCode(pid, exitCode)) {
        return false;
    }
    OwnedHandle event(OpenEventW(EVENT_MODIFY_STATE, FALSE, (kAgentExitEventPrefix + std::to_wstring(pid)).c_str()));
    return event.valid() && SetEvent(event.get()) != FALSE;
}

bool MakeAllAgentsExit(DWORD exitCode) {
    if (!SetRegDword(kAgentExitKey, kAgentExitAllValue, exitCode)) {
        return false;
    }
    if (!g_exitAllEvent) {
        g_exitAllEvent.reset(CreateEventW(nullptr, TRUE, FALSE, kAgentExitAllEvent));
    }
    return g_exitAllEvent.valid() && SetEvent(g_exitAllEvent.get()) != FALSE;
}

void ResetAllAgentsExit() {
    OwnedHandle event(OpenEventW(EVENT_MODIFY_STATE, FALSE, kAgentExitAllEvent));
    if (event) {
        ResetEvent(event.get());
    }
    g_exitAllEvent.reset();
}

// ---------------------------------------------------------------------------------------------
// The Keld service

DWORD KeldServiceState() {
    ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (manager.handle == nullptr) {
        return 0;
    }
    ServiceHandle service(OpenServiceW(manager.handle, kKeldServiceName, SERVICE_QUERY_STATUS));
    SERVICE_STATUS status = {};
    if (service.handle == nullptr || !QueryServiceStatus(service.handle, &status)) {
        return 0;
    }
    return status.dwCurrentState;
}

bool StartKeldService(DWORD timeoutMs) {
    OwnedHandle running(CreateEventW(nullptr, TRUE, FALSE, kKeldRunningEvent));
    if (!running) {
        return false;
    }
    ResetEvent(running.get());
    ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (manager.handle == nullptr) {
        return false;
    }
    ServiceHandle service(OpenServiceW(manager.handle, kKeldServiceName, SERVICE_START | SERVICE_QUERY_STATUS));
    if (service.handle == nullptr) {
        return false;
    }
    if (!StartServiceW(service.handle, 0, nullptr)) {
        return GetLastError() == ERROR_SERVICE_ALREADY_RUNNING;
    }
    return WaitForSingleObject(running.get(), timeoutMs) == WAIT_OBJECT_0;
}

bool StopKeldService(DWORD timeoutMs) {
    ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (manager.handle == nullptr) {
        return false;
    }
    ServiceHandle service(OpenServiceW(manager.handle, kKeldServiceName, SERVICE_STOP | SERVICE_QUERY_STATUS));
    if (service.handle == nullptr) {
        return false;
    }
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    if (!QueryServiceStatusEx(service.handle, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                              sizeof(status), &needed)) {
        return false;
    }
    if (status.dwCurrentState == SERVICE_STOPPED) {
        return true;
    }
    // The stop is complete when the service's process has ended: wait on the process, not the status.
    OwnedHandle process(OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId));
    SERVICE_STATUS stopStatus = {};
    if (!ControlService(service.handle, SERVICE_CONTROL_STOP, &stopStatus) &&
        GetLastError() != ERROR_SERVICE_NOT_ACTIVE) {
        return false;
    }
    if (process && WaitForSingleObject(process.get(), timeoutMs) != WAIT_OBJECT_0) {
        return false;
    }
    return KeldServiceState() == SERVICE_STOPPED;
}

}  // namespace qotest
