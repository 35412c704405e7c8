#include "Harness.h"

#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

namespace qt {
namespace {

Handle g_exitAll;  // holds the broadcast event set while agents must keep seeing it

// Milliseconds left until a GetTickCount64 deadline.
DWORD Left(ULONGLONG deadline) {
    return static_cast<DWORD>(std::max<LONGLONG>(0, deadline - GetTickCount64()));
}

void DeleteValue(const std::wstring& key, const std::wstring& value) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value.c_str());
}

// Stops Keld and waits for its process to end.
void StopKeld() {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE keld = OpenServiceW(manager, L"Keld", SERVICE_STOP | SERVICE_QUERY_STATUS);
    SERVICE_STATUS_PROCESS status = {};
    DWORD size = 0;
    QueryServiceStatusEx(keld, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                         &size);
    Handle process = Own(OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId));
    SERVICE_STATUS stopped = {};
    if (process && ControlService(keld, SERVICE_CONTROL_STOP, &stopped))
        WaitForSingleObject(process.get(), kWaitMs);
    CloseServiceHandle(keld);
    CloseServiceHandle(manager);
}

}  // namespace

std::string ReadBytes(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::wstring BuildPath(const char* variable) {
    const char* value = std::getenv(variable);
    const std::string unix = value != nullptr ? value : "";  // a build directory: ASCII
    std::wstring path = L"Z:" + std::wstring(unix.begin(), unix.end());
    std::replace(path.begin(), path.end(), L'/', L'\\');
    return path;
}

Handle Own(HANDLE h) { return Handle(h == INVALID_HANDLE_VALUE ? nullptr : h); }

std::wstring HelperExe() { return BuildPath("QO_HELPER_EXE"); }
// Where the client installs it: in the platform directory, beside Session_Agent.ini.
std::wstring WatchDogExe() {
    static const std::wstring s_exe = [] {
        const std::wstring exe = PlatformDir() + L"\\QoWatchDog.exe";
        CopyFileW(BuildPath("QO_WATCHDOG_EXE").c_str(), exe.c_str(), FALSE);
        return exe;
    }();
    return s_exe;
}
std::wstring PlatformDir() { return L"C:\\Program Files\\Corvane\\Brevant\\Platform"; }
std::wstring AgentDir() { return PlatformDir() + L"\\agent"; }
std::wstring KeldDir() { return L"C:\\Program Files\\Corvane\\Keld"; }
std::wstring LogPath() { return KeldDir() + L"\\debug\\QoWatchDog.log"; }

std::wstring Scratch(const std::wstring& name) {
    static int s_made = 0;
    wchar_t temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    const std::wstring dir = std::wstring(temp) + L"qotest-" + name + std::to_wstring(GetCurrentProcessId()) +
                             L"-" + std::to_wstring(++s_made);
    // Wine gives process ids out again: a folder left by an earlier test process of the same id is
    // emptied, so its files (a log above all) never mix with this run's.
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(dir), ignored);
    CreateDirectoryW(dir.c_str(), nullptr);
    return dir;
}

// The process of this command line in cwd (empty: ours), its output and errors to out when given.
Proc Spawn(std::wstring line, const std::wstring& cwd, HANDLE out = nullptr) {
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.dwFlags = out != nullptr ? STARTF_USESTDHANDLES : 0;
    si.hStdOutput = si.hStdError = out;
    PROCESS_INFORMATION pi = {};
    Proc p;
    if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, out != nullptr,
                       out != nullptr ? CREATE_NO_WINDOW : 0, nullptr, cwd.empty() ? nullptr : cwd.c_str(),
                       &si, &pi)) {
        CloseHandle(pi.hThread);
        p.h = Own(pi.hProcess);
        p.pid = pi.dwProcessId;
    }
    return p;
}

Proc Start(const std::wstring& exe, const std::wstring& args, const std::wstring& cwd) {
    return Spawn(L"\"" + exe + L"\"" + (args.empty() ? L"" : L" " + args), cwd);
}

Proc StartWatchDog(const std::wstring& args) { return Start(WatchDogExe(), args, PlatformDir()); }

std::optional<DWORD> ExitCode(const Proc& p, DWORD ms) {
    DWORD code = 0;
    const bool ended =
        p.h && WaitForSingleObject(p.h.get(), ms) == WAIT_OBJECT_0 && GetExitCodeProcess(p.h.get(), &code);
    return ended ? std::optional<DWORD>(code) : std::nullopt;
}

// Runs a command line in a directory (ending in a backslash), and ends it if it runs past ms: its exit
// code (0xDEAD when it did not start or end) and what it wrote.
std::pair<DWORD, std::string> Run(const std::wstring& line, const std::wstring& dir, DWORD ms = kWaitMs) {
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    const Handle out = Own(CreateFileW((dir + L"out.txt").c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                       CREATE_ALWAYS, 0, nullptr));
    const Proc p = Spawn(line, dir, out.get());
    const std::optional<DWORD> code = ExitCode(p, ms);
    if (p.h && !code) {
        TerminateProcess(p.h.get(), 0xDEAD);  // what it wrote so far is still read
        ExitCode(p);
    }
    return {code.value_or(0xDEAD), ReadBytes(dir + L"out.txt")};
}

std::vector<DWORD> ThreadsOf(DWORD pid) {
    std::vector<DWORD> tids;
    Handle snapshot = Own(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Thread32First(snapshot.get(), &entry); more;
         more = Thread32Next(snapshot.get(), &entry)) {
        if (entry.th32OwnerProcessID == pid)
            tids.push_back(entry.th32ThreadID);
    }
    return tids;
}

void Stacks(DWORD pid) {
    // One thread at a time: "bt all" would walk every process of the prefix.
    const std::wstring dir = Scratch(L"stacks") + L"\\";
    std::ofstream commands(std::filesystem::path(dir + L"commands.txt"));
    commands << std::hex << "attach 0x" << pid << "\n";
    for (const DWORD tid : ThreadsOf(pid))
        commands << "bt 0x" << tid << "\n";
    commands << "detach\nquit\n";
    commands.close();
    std::printf("every thread's stack of process %lu:\n%s\n", pid,
                Run(L"winedbg.exe --file \"" + dir + L"commands.txt\"", dir, 60000).second.c_str());
}

Deadline::Deadline(const std::string& what, DWORD ms)
    : m_what(what), m_ms(ms), m_done(Own(CreateEventW(nullptr, TRUE, FALSE, nullptr))) {
    m_thread = CreateThread(
        nullptr, 0,
        [](LPVOID self) -> DWORD {
            const Deadline& d = *static_cast<const Deadline*>(self);
            if (WaitForSingleObject(d.m_done.get(), d.m_ms) == WAIT_OBJECT_0)
                return 0;
            std::printf("%s: not done after %lu ms\n", d.m_what.c_str(), d.m_ms);
            Stacks();
            Reset();
            TerminateProcess(GetCurrentProcess(), 1);
            return 1;
        },
        this, 0, nullptr);
}

Deadline::~Deadline() {
    SetEvent(m_done.get());
    WaitForSingleObject(m_thread, INFINITE);
    CloseHandle(m_thread);
}

std::vector<DWORD> Find(const std::wstring& exeName) {
    std::vector<DWORD> pids;
    Handle snapshot = Own(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more;
         more = Process32NextW(snapshot.get(), &entry)) {
        if ((exeName == L"*" || _wcsicmp(entry.szExeFile, exeName.c_str()) == 0) &&
            entry.th32ProcessID != GetCurrentProcessId()) {
            pids.push_back(entry.th32ProcessID);
        }
    }
    return pids;
}

Proc StartHelper(const std::wstring& name, const std::wstring& mode) {
    static std::map<std::wstring, std::wstring> s_copies;
    std::wstring& exe = s_copies[name];
    if (exe.empty()) {
        exe = Scratch(L"bin") + L"\\" + name;
        CopyFileW(HelperExe().c_str(), exe.c_str(), FALSE);
    }
    return Start(exe, mode);
}

std::pair<DWORD, std::string> Ctl(const std::wstring& args) {
    return Run(L"\"" + BuildPath("QO_WATCHCTL_EXE") + L"\" " + args, Scratch(L"ctl") + L"\\");
}

Proc Hold(const wchar_t* mutex) {
    const Handle held = Own(CreateEventW(nullptr, TRUE, FALSE, kHeld));
    Proc holder = StartHelper(L"holder.exe", L"hold " + std::wstring(mutex));
    WaitForSingleObject(held.get(), kWaitMs);
    return holder;
}

void Reset() {
    StopKeld();
    // The watchdogs, the agents and every helper copy; the desktop keeper and Wine's explorer stay.
    for (const DWORD pid : Find(L"*")) {
        Handle p =
            Own(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
        wchar_t image[MAX_PATH] = {};
        DWORD size = MAX_PATH;
        QueryFullProcessImageNameW(p.get(), 0, image, &size);
        const std::wstring path(image);
        const std::wstring name = path.substr(path.find_last_of(L'\\') + 1);
        if (_wcsicmp(name.c_str(), L"QoWatchDog.exe") == 0 ||
            _wcsicmp(name.c_str(), L"QoSessionAgent.exe") == 0 ||
            path.find(L"\\qotest-") != std::wstring::npos) {
            TerminateProcess(p.get(), 1);
            WaitForSingleObject(p.get(), 5000);
        }
    }
    ResetAllAgents();
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"Software\\QoTest");
    SetDword(kInstallKey, L"SetStartEvent", 0);  // writes the key again if a test has uninstalled it
    DeleteValue(kInstallKey, L"SetStartEvent");
    DeleteValue(kInstallKey, L"SeAgntMaxNum");
    SetString(kKeldKey, L"InstallDir", KeldDir());
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(KeldDir() + L"\\debug"), ignored);
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::path(AgentDir()), ignored)) {
        entry.path().filename().wstring().rfind(L"agent-", 0) == 0 && std::filesystem::remove(entry, ignored);
    }
}

bool SetDword(const std::wstring& key, const std::wstring& value, DWORD data) {
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value.c_str(), REG_DWORD, &data, sizeof(data)) ==
           ERROR_SUCCESS;
}

bool SetString(const std::wstring& key, const std::wstring& value, const std::wstring& data, DWORD type) {
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value.c_str(), type, data.c_str(),
                           static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

std::wstring ReadString(const std::wstring& key, const std::wstring& value) {
    wchar_t data[4096] = {};
    DWORD size = sizeof(data) - sizeof(wchar_t);
    RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value.c_str(), RRF_RT_ANY | RRF_NOEXPAND, nullptr, data,
                 &size);
    return data;
}

bool Signal(const wchar_t* event) {
    Handle h = Own(OpenEventW(EVENT_MODIFY_STATE, FALSE, event));
    return h && SetEvent(h.get());
}

bool Exists(const wchar_t* event) { return Own(OpenEventW(SYNCHRONIZE, FALSE, event)) != nullptr; }

Agents::Agents(const wchar_t* semaphore)
    : m_semaphore(Own(CreateSemaphoreW(nullptr, 0, 1 << 30, semaphore))) {}

bool Agents::Wait(int count, DWORD ms) {
    const ULONGLONG deadline = GetTickCount64() + ms;
    int taken = 0;
    while (taken < count && WaitForSingleObject(m_semaphore.get(), Left(deadline)) == WAIT_OBJECT_0)
        ++taken;
    if (taken < count)
        std::printf("waited %lu ms for %d agent start(s), saw %d\n", ms, count, taken);
    return taken == count;
}

bool EndAgent(DWORD pid, DWORD code) {
    return SetDword(kAgentKey, std::to_wstring(pid), code) &&
           Signal((kAgentExitPrefix + std::to_wstring(pid)).c_str());
}

void EndAllAgents(DWORD code) {
    SetDword(kAgentKey, kAll, code);
    g_exitAll = Own(CreateEventW(nullptr, TRUE, TRUE, kAgentExitAll));
    SetEvent(g_exitAll.get());
}

void ResetAllAgents() {
    ResetEvent(g_exitAll.get());
    g_exitAll.reset();
}

std::string Report(DWORD pid) {
    return "\r\n" + ReadBytes(AgentDir() + L"\\agent-" + std::to_wstring(pid) + L".txt");
}

DWORD OnlyAgent() {
    const std::vector<DWORD> agents = Find(L"QoSessionAgent.exe");
    return agents.size() == 1 ? agents[0] : 0;
}

size_t Log::Count(const std::string& text) const {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const Line& l) {
        return l.message.find(text) != std::string::npos;
    }));
}

size_t Log::Errors() const {
    return static_cast<size_t>(
        std::count_if(lines.begin(), lines.end(), [](const Line& l) { return l.error; }));
}

Log ParseLog(const std::string& bytes) {
    static const std::regex form(
        R"(\[(Mon|Tue|Wed|Thu|Fri|Sat|Sun) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123]\d )"
        R"([012]\d:[0-5]\d:[0-5]\d \d{4}\]\[(\d+)\]\[Pellisk\]\[(\.\\[A-Za-z_]\w*)\]\[\d+\]\[(INFO|ERROR)\](.*))");
    Log log;
    size_t at = 0;
    for (size_t end; (end = bytes.find("\r\n", at)) != std::string::npos; at = end + 2) {
        const std::string text = bytes.substr(at, end - at);
        std::smatch m;
        if (std::regex_match(text, m, form) && m[6].str().find('\r') == std::string::npos) {
            log.lines.push_back({static_cast<DWORD>(std::stoul(m[3])), m[4], m[5] == "ERROR", m[6]});
        } else {
            log.malformed.push_back(text);
        }
    }
    if (at < bytes.size())
        log.malformed.push_back(bytes.substr(at) + " (no line end)");
    return log;
}

Log ReadLog(const std::wstring& path) { return ParseLog(ReadBytes(path)); }

bool WaitLog(const std::string& text, size_t count, const std::wstring& path, DWORD ms) {
    LogTail tail(path);
    if (tail.Wait(text, count, ms))
        return true;
    std::printf("waited %lu ms for %zu line(s) holding \"%s\" in %s; its last lines:%s\n", ms, count,
                text.c_str(), ToUtf8(path).c_str(), tail.Seen().c_str());
    return false;
}

void LogTail::Mark() {
    Count("");
    m_mark = m_lines.size();
}

size_t LogTail::Count(const std::string& text) {
    const Handle file =
        Own(CreateFileW(m_path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                        nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER at = {}, size = {};
    at.QuadPart = static_cast<LONGLONG>(m_offset);
    std::string bytes;
    if (file && GetFileSizeEx(file.get(), &size) && size.QuadPart > at.QuadPart &&
        SetFilePointerEx(file.get(), at, nullptr, FILE_BEGIN)) {
        bytes.resize(static_cast<size_t>(size.QuadPart - at.QuadPart));
        DWORD read = 0;
        ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
        bytes.resize(read);
        const size_t end = bytes.rfind("\r\n");  // a line still being written waits for the next read
        bytes.resize(end == std::string::npos ? 0 : end + 2);
    }
    m_offset += bytes.size();
    const Log more = ParseLog(bytes);
    m_lines.insert(m_lines.end(), more.lines.begin(), more.lines.end());
    return static_cast<size_t>(
        std::count_if(m_lines.begin() + static_cast<std::ptrdiff_t>(m_mark), m_lines.end(),
                      [&](const Line& l) { return l.message.find(text) != std::string::npos; }));
}

// Sleeps on changes in the log's directory, or in its parent until the directory is made. The watch
// is set before each look, so no change between the look and the wait is missed.
bool LogTail::Wait(const std::string& text, size_t count, DWORD ms) {
    const std::wstring dir = m_path.substr(0, m_path.find_last_of(L'\\'));
    const ULONGLONG deadline = GetTickCount64() + ms;
    for (;;) {
        const bool made = GetFileAttributesW(dir.c_str()) != INVALID_FILE_ATTRIBUTES;
        HANDLE change = FindFirstChangeNotificationW(
            made ? dir.c_str() : dir.substr(0, dir.find_last_of(L'\\')).c_str(), FALSE,
            FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_SIZE |
                FILE_NOTIFY_CHANGE_LAST_WRITE);
        const bool found = Count(text) >= count;
        const bool changed = !found && change != INVALID_HANDLE_VALUE &&
                             WaitForSingleObject(change, Left(deadline)) == WAIT_OBJECT_0;
        if (change != INVALID_HANDLE_VALUE)
            FindCloseChangeNotification(change);
        if (!changed)
            return found;
    }
}

// The lines from the first, one a row, for a failure's message.
std::string Shown(const std::vector<Line>& lines, size_t first) {
    std::string shown;
    for (size_t i = first; i < lines.size(); ++i)
        shown += "\n  [" + std::to_string(lines[i].pid) + "] " + lines[i].message;
    return shown;
}

std::string LogTail::Seen() {
    Count("");
    return Shown(m_lines, std::max(m_mark, m_lines.size() - std::min<size_t>(m_lines.size(), 40)));
}

std::vector<Line> LogTail::Since() {
    Count("");
    return std::vector<Line>(m_lines.begin() + static_cast<std::ptrdiff_t>(m_mark), m_lines.end());
}

std::pair<DWORD, DWORD> HandlesAndThreads() {
    DWORD handles = 0, flags = 0;
    // Wine's GetProcessHandleCount says 0: count the handle values the process accepts instead.
    for (ULONG_PTR value = 4; value < 0x40000; value += 4)
        handles += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) ? 1 : 0;
    return {handles, static_cast<DWORD>(ThreadsOf(GetCurrentProcessId()).size())};
}

std::string InOrder(const Log& log, const std::vector<std::string>& texts) {
    size_t next = 0;
    for (const std::string& text : texts) {
        while (next < log.lines.size() && log.lines[next].message.find(text) == std::string::npos)
            ++next;
        if (next == log.lines.size())
            return "missing in order: \"" + text + "\"; the log:" + Shown(log.lines, 0);
        ++next;
    }
    return "";
}

}  // namespace qt
