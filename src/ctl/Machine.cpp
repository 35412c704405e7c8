#include <windows.h>
#include <tlhelp32.h>
#include <winternl.h>
#include <shellapi.h>

#include <string>
#include <vector>

#include "ctl/LogReader.h"
#include "ctl/Status.h"
#include "foundation/Contract.h"
#include "foundation/LogLocation.h"
#include "foundation/ProcessImage.h"
#include "foundation/ScopedHandle.h"

// What status reads of the machine: its processes, and where the watchdog's log is.
namespace QoWatchCtl {
namespace {

long long LocalSeconds(const FILETIME& utc) {
    FILETIME local = {};
    SYSTEMTIME t = {};
    if (!FileTimeToLocalFileTime(&utc, &local) || !FileTimeToSystemTime(&local, &t)) {
        return -1;
    }
    return CivilSeconds(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond);
}

}  // namespace

DWORD HostOf(DWORD dwPid) {
    const CKernelHandle process(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, dwPid));
    PROCESS_BASIC_INFORMATION info = {};
    PEB peb = {};
    RTL_USER_PROCESS_PARAMETERS params = {};
    if (!process.IsValid() ||
        NtQueryInformationProcess(process.Get(), ProcessBasicInformation, &info, sizeof(info), nullptr) !=
            0 ||
        !ReadProcessMemory(process.Get(), info.PebBaseAddress, &peb, sizeof(peb), nullptr) ||
        !ReadProcessMemory(process.Get(), peb.ProcessParameters, &params, sizeof(params), nullptr)) {
        return 0;
    }
    std::wstring strLine(params.CommandLine.Length / sizeof(wchar_t), L'\0');
    if (strLine.empty() || !ReadProcessMemory(process.Get(), params.CommandLine.Buffer, &strLine[0],
                                              params.CommandLine.Length, nullptr)) {
        return 0;
    }
    int nArgs = 0;
    LPWSTR* ppArgs = CommandLineToArgvW(strLine.c_str(), &nArgs);
    const CLocalMemory args(ppArgs);
    return ppArgs != nullptr && nArgs > 1 ? static_cast<DWORD>(_wtoi(ppArgs[1])) : 0;
}

std::string Utf8(const std::wstring& text) {
    std::string out(text.size() * 3 + 1, '\0');
    out.resize(
        static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()),
                                                &out[0], static_cast<int>(out.size()), nullptr, nullptr)));
    return out;
}

std::vector<Process> Processes() {
    std::vector<Process> vec;
    const CKernelHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL bMore = Process32FirstW(snapshot.Get(), &entry); bMore;
         bMore = Process32NextW(snapshot.Get(), &entry)) {
        Process p;
        p.dwPid = entry.th32ProcessID;
        p.strName = entry.szExeFile;
        p.dwParent = entry.th32ParentProcessID;
        ProcessIdToSessionId(p.dwPid, &p.dwSession);
        const CKernelHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, p.dwPid));
        if (process.IsValid()) {
            GetProcessImagePath(process.Get(), p.strImage);
        }
        FILETIME created = {}, exited = {}, kernel = {}, user = {};
        if (process.IsValid() && GetProcessTimes(process.Get(), &created, &exited, &kernel, &user)) {
            p.started = LocalSeconds(created);
        }
        vec.push_back(p);
    }
    return vec;
}

std::wstring LogPath(std::string& fallbackWhy) {
    std::wstring strDir, strMessage;
    fallbackWhy.clear();
    if (ReadDebugLogDirectory(strDir, strMessage)) {
        // The watchdog makes the debug folder when it is missing; that fails when its parent is
        // missing, or when a file has the folder's name.
        const DWORD dwDebug = GetFileAttributesW(strDir.c_str());
        const DWORD dwParent = GetFileAttributesW(strDir.substr(0, strDir.find_last_of(L'\\')).c_str());
        if (dwDebug != INVALID_FILE_ATTRIBUTES
                ? (dwDebug & FILE_ATTRIBUTE_DIRECTORY) != 0
                : dwParent != INVALID_FILE_ATTRIBUTES && (dwParent & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            return strDir + L"\\" + LOG_FILE_NAME;
        }
        strMessage = strDir + L" cannot be made";
    }
    fallbackWhy = Utf8(strMessage);
    std::wstring strFallback = FallbackLogDirectory();
    if (!strFallback.empty() && strFallback.back() != L'\\') {
        strFallback += L'\\';
    }
    return strFallback + LOG_FILE_NAME;
}

}  // namespace QoWatchCtl
