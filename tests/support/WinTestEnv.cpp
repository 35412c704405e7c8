#include "WinTestEnv.h"

#include <tlhelp32.h>

#include <algorithm>
#include <cwctype>
#include <memory>
#include <sstream>
#include <type_traits>

namespace qotest {

namespace {

constexpr wchar_t kPlatformDir[] = L"C:\\Program Files\\Corvane\\Brevant\\Platform";
constexpr wchar_t kKeldInstallDir[] = L"C:\\Program Files\\Corvane\\Keld";
// Everything the tests themselves keep in the registry lives below this key.
constexpr wchar_t kTestRootKey[] = L"Software\\QoTest";

// The executables a test may leave behind; ResetTestState and TerminateTestProcesses end them.
constexpr const wchar_t* kTestProcessPatterns[] = {L"QoWatchDog.exe", L"QoSessionAgent*.exe",
                                                   L"test_agent*.exe", L"test_parent.exe"};

// Held while the broadcast exit event must stay set, so it outlives the agents that hold it too.
OwnedHandle g_exitAllEvent;

std::wstring PathFromEnv(const wchar_t* name) { return ToWindowsPath(GetEnv(name)); }

bool WildcardMatch(const wchar_t* pattern, const wchar_t* text) {
    if (*pattern == L'*') {
        return WildcardMatch(pattern + 1, text) || (*text != L'\0' && WildcardMatch(pattern, text + 1));
    }
    if (*pattern == L'\0') {
        return *text == L'\0';
    }
    return *text != L'\0' && towlower(*pattern) == towlower(*text) && WildcardMatch(pattern + 1, text + 1);
}

// Milliseconds left until a GetTickCount64 deadline, 0 once it has passed.
DWORD Remaining(ULONGLONG deadline) {
    const ULONGLONG now = GetTickCount64();
    return now < deadline ? static_cast<DWORD>(deadline - now) : 0;
}

struct ServiceCloser {
    void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceCloser>;

// The Keld service opened with `access`; the manager's handle is not needed after the open.
ServiceHandle OpenKeld(DWORD access) {
    ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    return ServiceHandle(manager ? OpenServiceW(manager.get(), kKeldServiceName, access) : nullptr);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Text and paths

std::wstring FromUtf8(const std::string& text) {
    if (text.empty()) {
        return std::wstring();
    }
    const int length = static_cast<int>(text.size());
    std::wstring out(MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, out.data(), static_cast<int>(out.size()));
    return out;
}

std::wstring ToWindowsPath(const std::wstring& path) {
    if (path.empty() || path[0] != L'/') {
        return path;
    }
    std::wstring out = L"Z:" + path;
    std::replace(out.begin(), out.end(), L'/', L'\\');
    return out;
}

std::wstring JoinPath(const std::wstring& a, const std::wstring& b) {
    return a.empty() || a.back() == L'\\' || a.back() == L'/' ? a + b : a + L"\\" + b;
}

std::wstring GetEnv(const wchar_t* name) {
    // 32767 characters is the most a variable can hold; a missing one gives 0.
    std::wstring value(32767, L'\0');
    value.resize(GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
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
            if (wcscmp(entry.cFileName, L".") == 0 || wcscmp(entry.cFileName, L"..") == 0) {
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

std::vector<std::wstring> ListFiles(const std::wstring& directory, const std::wstring& pattern) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW data = {};
    HANDLE hFind = FindFirstFileW(JoinPath(directory, pattern).c_str(), &data);
    if (hFind == INVALID_HANDLE_VALUE) {
        return names;
    }
    do {
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            names.push_back(data.cFileName);
        }
    } while (FindNextFileW(hFind, &data));
    FindClose(hFind);
    return names;
}

bool CopyFileTo(const std::wstring& from, const std::wstring& to) {
    return CopyFileW(from.c_str(), to.c_str(), FALSE) != FALSE;
}

std::optional<std::string> ReadWholeFile(const std::wstring& path) {
    OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        return std::nullopt;
    }
    std::string content;
    char buffer[64 * 1024];
    DWORD read = 0;
    while (ReadFile(file.get(), buffer, sizeof(buffer), &read, nullptr) && read > 0) {
        content.append(buffer, read);
    }
    return content;
}

// ---------------------------------------------------------------------------------------------
// Paths

std::wstring WatchDogExe() { return PathFromEnv(L"QO_WATCHDOG_EXE"); }
std::wstring TestAgentExe() { return PathFromEnv(L"QO_TEST_AGENT_EXE"); }
std::wstring TestParentExe() { return PathFromEnv(L"QO_TEST_PARENT_EXE"); }

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
// Named objects

bool EventExists(const std::wstring& name) {
    return OwnedHandle(OpenEventW(SYNCHRONIZE, FALSE, name.c_str())).valid();
}

bool MutexExists(const std::wstring& name) {
    return OwnedHandle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())).valid();
}

bool SetNamedEvent(const std::wstring& name) {
    OwnedHandle event(OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str()));
    return event.valid() && SetEvent(event.get()) != FALSE;
}

// ---------------------------------------------------------------------------------------------
// Registry

// RegSetKeyValueW creates the key when it is missing.
bool SetRegDword(const std::wstring& key, const std::wstring& value, DWORD data, HKEY root) {
    return RegSetKeyValueW(root, key.c_str(), value.c_str(), REG_DWORD, &data, sizeof(data)) == ERROR_SUCCESS;
}

bool SetRegString(const std::wstring& key, const std::wstring& value, const std::wstring& data, HKEY root) {
    const DWORD size = static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t));
    return RegSetKeyValueW(root, key.c_str(), value.c_str(), REG_SZ, data.c_str(), size) == ERROR_SUCCESS;
}

bool CreateRegKey(const std::wstring& key, HKEY root) {
    HKEY created = nullptr;
    if (RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_READ, nullptr, &created, nullptr) !=
        ERROR_SUCCESS) {
        return false;
    }
    RegCloseKey(created);
    return true;
}

bool DeleteRegValue(const std::wstring& key, const std::wstring& value, HKEY root) {
    // ERROR_FILE_NOT_FOUND: the key or the value is missing.
    const LONG result = RegDeleteKeyValueW(root, key.c_str(), value.c_str());
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

std::wstring ParentExitEventName(DWORD pid) { return kParentExitEventPrefix + std::to_wstring(pid); }

// Starts "<exe>" <arguments> suspended; with parentEvent, creates its test_parent exit event before
// it runs.
ChildProcess Launch(const std::wstring& exe, const std::wstring& arguments,
                    const std::wstring& currentDirectory, bool parentEvent) {
    std::wstring commandLine = L"\"" + exe + L"\"" + (arguments.empty() ? L"" : L" " + arguments);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info = {};
    ChildProcess child;
    if (!CreateProcessW(exe.c_str(), commandLine.data(), nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr,
                        currentDirectory.empty() ? nullptr : currentDirectory.c_str(), &startup, &info)) {
        child.error = GetLastError();
        return child;
    }
    child.handle.reset(info.hProcess);
    child.pid = info.dwProcessId;
    if (parentEvent) {
        child.exitEvent.reset(CreateEventW(nullptr, TRUE, FALSE, ParentExitEventName(child.pid).c_str()));
    }
    ResumeThread(info.hThread);
    CloseHandle(info.hThread);
    return child;
}

}  // namespace

ChildProcess StartProcess(const std::wstring& exe, const std::wstring& arguments,
                          const std::wstring& currentDirectory) {
    return Launch(exe, arguments, currentDirectory, false);
}

ChildProcess StartWatchDog(DWORD parentPid, const std::wstring& exe, const std::wstring& currentDirectory) {
    return StartProcess(exe, std::to_wstring(parentPid), currentDirectory);
}

ChildProcess StartTestParent() { return Launch(TestParentExe(), std::wstring(), std::wstring(), true); }

bool MakeTestParentExit(DWORD pid) { return SetNamedEvent(ParentExitEventName(pid)); }

std::optional<DWORD> WaitForExitCode(HANDLE process, DWORD timeoutMs) {
    DWORD code = 0;
    if (WaitForSingleObject(process, timeoutMs) != WAIT_OBJECT_0 || !GetExitCodeProcess(process, &code)) {
        return std::nullopt;
    }
    return code;
}

bool IsRunning(HANDLE process) { return WaitForSingleObject(process, 0) == WAIT_TIMEOUT; }

std::vector<DWORD> FindProcesses(const std::wstring& pattern) {
    std::vector<DWORD> pids;
    OwnedHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot) {
        return pids;
    }
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    const DWORD self = GetCurrentProcessId();
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more;
         more = Process32NextW(snapshot.get(), &entry)) {
        if (entry.th32ProcessID != self && WildcardMatch(pattern.c_str(), entry.szExeFile)) {
            pids.push_back(entry.th32ProcessID);
        }
    }
    return pids;
}

DWORD WineExplorerPid() {
    const std::vector<DWORD> pids = FindProcesses(L"explorer.exe");
    return pids.empty() ? 0 : pids.front();
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
        WaitForSingleObject(process.get(), Remaining(deadline));
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

int AgentStartCounter::Take(int count, DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    int taken = 0;
    while (taken < count && WaitForSingleObject(semaphore_.get(), Remaining(deadline)) == WAIT_OBJECT_0) {
        ++taken;
    }
    return taken;
}

bool AgentStartCounter::NoStartWithin(DWORD timeoutMs) {
    return WaitForSingleObject(semaphore_.get(), timeoutMs) == WAIT_TIMEOUT;
}

std::wstring AgentReport::Get(const char* key) const {
    const auto found = values.find(key);
    return found == values.end() ? std::wstring() : found->second;
}

AgentReport ReadAgentReport(DWORD pid, const std::wstring& directory) {
    AgentReport report;
    const std::optional<std::string> content =
        ReadWholeFile(JoinPath(directory, kAgentReportPrefix + std::to_wstring(pid) + kAgentReportSuffix));
    report.found = content.has_value();
    std::istringstream lines(content.value_or(std::string()));
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        const size_t separator = line.find('=');
        if (separator != std::string::npos) {
            report.values[line.substr(0, separator)] = FromUtf8(line.substr(separator + 1));
        }
    }
    return report;
}

void RemoveAgentReports(const std::wstring& directory) {
    for (const std::wstring& name :
         ListFiles(directory, std::wstring(kAgentReportPrefix) + L"*" + kAgentReportSuffix)) {
        DeleteFileW(JoinPath(directory, name).c_str());
    }
}

bool SetAgentExitCode(DWORD pid, DWORD exitCode) {
    return SetRegDword(kAgentExitKey, std::to_wstring(pid), exitCode);
}

bool MakeAgentExit(DWORD pid, DWORD exitCode) {
    return SetAgentExitCode(pid, exitCode) && SetNamedEvent(kAgentExitEventPrefix + std::to_wstring(pid));
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
    const ServiceHandle service = OpenKeld(SERVICE_QUERY_STATUS);
    SERVICE_STATUS status = {};
    return service && QueryServiceStatus(service.get(), &status) ? status.dwCurrentState : 0;
}

bool StartKeldService(DWORD timeoutMs) {
    OwnedHandle running(CreateEventW(nullptr, TRUE, FALSE, kKeldRunningEvent));
    if (!running) {
        return false;
    }
    ResetEvent(running.get());
    const ServiceHandle service = OpenKeld(SERVICE_START | SERVICE_QUERY_STATUS);
    if (!service) {
        return false;
    }
    if (!StartServiceW(service.get(), 0, nullptr)) {
        return GetLastError() == ERROR_SERVICE_ALREADY_RUNNING;
    }
    return WaitForSingleObject(running.get(), timeoutMs) == WAIT_OBJECT_0;
}

bool StopKeldService(DWORD timeoutMs) {
    const ServiceHandle service = OpenKeld(SERVICE_STOP | SERVICE_QUERY_STATUS);
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    if (!service || !QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                          reinterpret_cast<BYTE*>(&status), sizeof(status), &needed)) {
        return false;
    }
    if (status.dwCurrentState == SERVICE_STOPPED) {
        return true;
    }
    // The stop is complete when the service's process has ended: wait on the process, not the status.
    OwnedHandle process(OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId));
    SERVICE_STATUS stopStatus = {};
    if (!ControlService(service.get(), SERVICE_CONTROL_STOP, &stopStatus) &&
        GetLastError() != ERROR_SERVICE_NOT_ACTIVE) {
        return false;
    }
    if (process && WaitForSingleObject(process.get(), timeoutMs) != WAIT_OBJECT_0) {
        return false;
    }
    return KeldServiceState() == SERVICE_STOPPED;
}

}  // namespace qotest
