// QoWatchCtl.exe: the support engineers' tool beside the watchdog. "status" reads the machine as it
// is and changes nothing; a request sets the event a client component would set; "log" tells the
// watchdog's log as a timeline (ctl/LogTimeline).
#include <windows.h>

#include <tlhelp32.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "ctl/LogTimeline.h"
#include "foundation/AgentLocation.h"
#include "foundation/CRegKey.h"
#include "foundation/ScopedHandle.h"
#include "foundation/kernel_objects.h"
#include "watchdog/QoWatchDog.h"
#include "watchdog/WatchDog.h"

namespace {

// Exit codes of "status", for scripts.
enum StatusCode {
    STATUS_SERVING = 0,           // every session with a shell has its agent or is off by a graceful end
    STATUS_SESSIONS_MISSING = 1,  // serving, but some session with a shell has no agent
    STATUS_AT_GATE = 2,           // starting, or waiting at its start gate
    STATUS_FINAL_WAIT = 3,        // in its final wait, holding the mutex
    STATUS_STOPPED = 4,           // supervision stopped (a reload restarts it) or closing for an update
    STATUS_NONE = 5,              // no supervisor
    USAGE_ERROR = 9
};

std::string Utf8(const std::wstring& text) {
    std::string out(text.size() * 3 + 1, '\0');
    out.resize(
        static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()),
                                                &out[0], static_cast<int>(out.size()), nullptr, nullptr)));
    return out;
}

bool EventExists(const wchar_t* pszName) {
    return CKernelHandle(OpenEventW(SYNCHRONIZE, FALSE, pszName)).IsValid();
}

// Only for manual-reset events: a look at an auto-reset one would take its signal.
bool ManualEventIsSet(const wchar_t* pszName) {
    const CKernelHandle event(OpenEventW(SYNCHRONIZE, FALSE, pszName));
    return event.IsValid() && WaitForSingleObject(event.Get(), 0) == WAIT_OBJECT_0;
}

// The supervisor's phase, read from its named objects, and the exit code that tells it.
std::pair<int, std::string> Phase() {
    if (!BrevantUtility::OperationSystem::CMutex(QO_WATCH_DOG_NAMED_MUTEX).Exists()) {
        return {STATUS_NONE, "none: no supervisor holds " + Utf8(QO_WATCH_DOG_NAMED_MUTEX)};
    }
    if (EventExists(EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC)) {
        return {STATUS_FINAL_WAIT,
                "final wait: the host has ended or agents were closed; a successor starts Keld"};
    }
    if (EventExists(EVENT_ID_BREVANT_START_SERVICE) || !EventExists(EVENT_ID_BREVANT_WATCHDOG_RELOAD)) {
        return {STATUS_AT_GATE, "at its start gate (waits for SetStartEvent = 1)"};
    }
    if (ManualEventIsSet(EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD)) {
        return {STATUS_STOPPED, "closing for an update: agents kept until the close event is set"};
    }
    if (ManualEventIsSet(EVENT_ID_BREVANT_WATCHDOG_CLOSE)) {
        return {STATUS_STOPPED, "supervision stopped: the close event is set; a reload restarts it"};
    }
    return {STATUS_SERVING, "serving"};
}

std::wstring RegText(HKEY hRoot, const wchar_t* pszKey, const wchar_t* pszValue) {
    CRegKey key;
    std::wstring strText;
    if (key.Open(hRoot, pszKey, KEY_READ) == ERROR_SUCCESS) {
        key.QueryValue(pszValue, strText);
    }
    return strText;
}

// The value as stored: "1 (REG_DWORD)", "\"1\" (type 1)" or "not set".
std::wstring RegValue(const wchar_t* pszValue, DWORD& dwValue, bool& bDword) {
    CRegKey key;
    DWORD dwType = REG_NONE;
    const LONG lResult = key.Open(HKEY_LOCAL_MACHINE, REG_INSTALL_KEY, KEY_READ) == ERROR_SUCCESS
                             ? key.QueryDword(pszValue, dwValue, &dwType)
                             : ERROR_FILE_NOT_FOUND;
    bDword = lResult == ERROR_SUCCESS;
    if (bDword) {
        return std::to_wstring(dwValue) + L" (REG_DWORD)";
    }
    if (lResult != ERROR_DATATYPE_MISMATCH) {
        return L"not set";
    }
    std::wstring strText;
    key.QueryValue(pszValue, strText);
    return L"\"" + strText + L"\" (registry type " + std::to_wstring(dwType) + L", not a REG_DWORD)";
}

std::string KeldState() {
    const CServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const CServiceHandle service(OpenServiceW(manager.Get(), KELD_SERVICE_NAME, SERVICE_QUERY_STATUS));
    SERVICE_STATUS status = {};
    if (!service.IsValid() || !QueryServiceStatus(service.Get(), &status)) {
        const DWORD dwErr = GetLastError();
        return "cannot be queried (error " + std::to_string(dwErr) + ": " + QoWatchCtl::Win32Meaning(dwErr) +
               ")";
    }
    static const char* const s_states[] = {"?",       "stopped",          "start pending", "stop pending",
                                           "running", "continue pending", "pause pending", "paused"};
    return status.dwCurrentState < 8 ? s_states[status.dwCurrentState] : "?";
}

struct Process {
    DWORD dwPid;
    DWORD dwSession;
    std::wstring strName;   // the executable's file name
    std::wstring strImage;  // its full path; empty when the process cannot be queried
};

std::vector<Process> Processes() {
    std::vector<Process> vec;
    const CKernelHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL bMore = Process32FirstW(snapshot.Get(), &entry); bMore;
         bMore = Process32NextW(snapshot.Get(), &entry)) {
        Process p = {entry.th32ProcessID, 0, entry.szExeFile, L""};
        ProcessIdToSessionId(p.dwPid, &p.dwSession);
        const CKernelHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, p.dwPid));
        wchar_t szImage[MAX_PATH] = {};
        DWORD nChars = MAX_PATH;
        if (process.IsValid() && QueryFullProcessImageNameW(process.Get(), 0, szImage, &nChars)) {
            p.strImage = szImage;
        }
        vec.push_back(p);
    }
    return vec;
}

bool SameFile(const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) == 0; }

// The last log line that names each session ("session (N)" or "session ID = N"), read in one pass.
std::map<DWORD, std::string> LastLogLines(const std::wstring& strLog) {
    std::map<DWORD, std::string> mapLast;
    std::ifstream log(std::filesystem::path(strLog), std::ios::binary);
    std::string strLine;
    while (std::getline(log, strLine)) {
        if (!strLine.empty() && strLine.back() == '\r') {
            strLine.pop_back();
        }
        for (const char* pszKey : {"session (", "session ID = "}) {
            const size_t at = strLine.find(pszKey);
            if (at != std::string::npos &&
                std::isdigit(static_cast<unsigned char>(strLine[at + strlen(pszKey)]))) {
                mapLast[std::stoul(strLine.substr(at + strlen(pszKey)))] = strLine;
            }
        }
    }
    return mapLast;
}

std::wstring LogPath() {
    std::wstring strDir = RegText(HKEY_LOCAL_MACHINE, REG_KELD_KEY, REG_VALUE_INSTALL_DIR);
    if (!strDir.empty() && strDir.back() != L'\\') {
        strDir += L'\\';
    }
    return strDir + L"debug\\" + LOG_FILE_NAME;
}

int Status(const std::wstring& strPlatform) {
    auto [nCode, strPhase] = Phase();
    std::string strPids;
    const std::vector<Process> vecProcesses = Processes();
    for (const Process& p : vecProcesses) {
        if (_wcsicmp(p.strName.c_str(), L"QoWatchDog.exe") == 0) {
            strPids += " " + std::to_string(p.dwPid);
        }
    }
    std::cout << "Supervisor: " << strPhase
              << "\nWatchdog processes:" << (strPids.empty() ? " none" : strPids) << "\n";

    DWORD dwValue = 0;
    bool bDword = false;
    const std::wstring strGate = RegValue(REG_VALUE_SET_START_EVENT, dwValue, bDword);
    std::cout << "SetStartEvent: " << Utf8(strGate)
              << (bDword && dwValue == 1 ? ": the start gate opens" : ": the start gate stays shut") << "\n";
    std::cout << "SeAgntMaxNum: " << Utf8(RegValue(REG_VALUE_SE_AGNT_MAX_NUM, dwValue, bDword))
              << (bDword ? "" : ", so the default 2147483647") << "\n";
    const std::wstring strLog = LogPath();
    std::cout << "InstallDir: " << Utf8(RegText(HKEY_LOCAL_MACHINE, REG_KELD_KEY, REG_VALUE_INSTALL_DIR))
              << "\nLog: " << Utf8(strLog) << "\nKeld service: " << KeldState() << "\n";

    std::wstring strAgentDir, strAgent;
    const bool bAgent = ReadAgentLocation(strPlatform, strAgentDir, strAgent);
    std::cout << "Agent: "
              << (bAgent ? Utf8(strAgent)
                         : "unknown: no Path or Name in " + Utf8(strPlatform + L"\\" + SESSION_AGENT_INI))
              << "\n";

    std::map<DWORD, std::pair<std::string, std::string>> mapSessions;  // shells, agents
    for (const Process& p : vecProcesses) {
        if (_wcsicmp(p.strName.c_str(), L"explorer.exe") == 0) {
            mapSessions[p.dwSession].first += " " + std::to_string(p.dwPid);
        } else if (bAgent && SameFile(p.strImage, strAgent)) {
            mapSessions[p.dwSession].second += " " + std::to_string(p.dwPid);
        }
    }
    std::cout << "Sessions:" << (mapSessions.empty() ? " none with a shell" : "") << "\n";
    bool bMissing = false;
    std::map<DWORD, std::string> mapLast = LastLogLines(strLog);
    for (const auto& entry : mapSessions) {
        std::cout << "  session " << entry.first << ": shell"
                  << (entry.second.first.empty() ? " none" : entry.second.first);
        if (!entry.second.second.empty()) {
            std::cout << "; agent" << entry.second.second << "\n";
            continue;
        }
        const std::string& strLast = mapLast[entry.first];
        const bool bOff = strLast.find(") is off.") != std::string::npos;
        bMissing = bMissing || (!bOff && !entry.second.first.empty());
        std::cout << "; NO AGENT" << (bOff ? " (off after its agent's end)" : "")
                  << "; last in the log: " << (strLast.empty() ? "nothing" : strLast) << "\n";
    }
    if (nCode == STATUS_SERVING && bMissing) {
        nCode = STATUS_SESSIONS_MISSING;
    }
    std::cout << "Exit code " << nCode << "\n";
    return nCode;
}

struct Request {
    const char* pszCommand;
    const wchar_t* pszEvent;
    const char* pszWhat;
};

const Request REQUESTS[] = {
    {"reload", EVENT_ID_BREVANT_WATCHDOG_RELOAD, "the supervisor registers the sessions again"},
    {"stop", EVENT_ID_BREVANT_STOP_SERVICE,
     "the supervisor stops supervising the agents and goes on running"},
    {"terminate", EVENT_ID_BREVANT_TERMINATE_WATCHDOG, "the supervisor ends after its agents have ended"},
    {"update", EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK, "the supervisor closes without stopping Keld"},
    {"close-and-wait", EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING,
     "the supervisor stops supervising and waits for a start or terminate request"},
    {"start-keld", EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC,
     "a supervisor in its final wait starts Keld and ends"},
};

int Send(const Request& request) {
    const CKernelHandle event(OpenEventW(EVENT_MODIFY_STATE, FALSE, request.pszEvent));
    if (!event.IsValid() || !SetEvent(event.Get())) {
        const DWORD dwErr = GetLastError();
        std::cout << request.pszCommand << ": nobody listens: " << Utf8(request.pszEvent)
                  << " could not be set (error " << dwErr << ": " << QoWatchCtl::Win32Meaning(dwErr)
                  << "); no supervisor runs, or none is in the phase that listens to it\n";
        return 1;
    }
    std::cout << request.pszCommand << ": set " << Utf8(request.pszEvent) << ": " << request.pszWhat << "\n";
    return 0;
}

int Usage() {
    std::cout << "usage: QoWatchCtl status [--platform DIR]\n"
                 "       QoWatchCtl reload | stop | terminate | update | close-and-wait | start-keld\n"
                 "       QoWatchCtl log [FILE...] [--session N] [--since \"YYYY-MM-DD HH:MM:SS\"]\n";
    return USAGE_ERROR;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::vector<std::string> vecArgs;
    for (int i = 1; i < argc; ++i) {
        vecArgs.push_back(Utf8(argv[i]));
    }
    if (vecArgs.empty()) {
        return Usage();
    }
    if (vecArgs[0] == "log") {
        return QoWatchCtl::RunLog(std::vector<std::string>(vecArgs.begin() + 1, vecArgs.end()),
                                  Utf8(LogPath()), std::cout, std::cout);
    }
    if (vecArgs[0] == "status") {
        wchar_t szCwd[MAX_PATH] = {};
        GetCurrentDirectoryW(MAX_PATH, szCwd);
        if (argc == 4 && vecArgs[1] == "--platform") {
            return Status(argv[3]);
        }
        return argc == 2 ? Status(szCwd) : Usage();
    }
    for (const Request& request : REQUESTS) {
        if (argc == 2 && vecArgs[0] == request.pszCommand) {
            return Send(request);
        }
    }
    return Usage();
}
