#include "session/utilInteractiveProcess.h"

#include <direct.h>
#include <stdlib.h>
#include <userenv.h>

#include <algorithm>
#include <new>

#include "foundation/CSLock.h"
#include "foundation/logging.h"

const wchar_t* const g_pszCopiedVariables[4] = {L"CommonProgramFiles(x86)", L"CommonProgramW6432",
                                                L"ProgramFiles(x86)", L"ProgramW6432"};

namespace {

// The process's window station is process-wide state: launches on several monitor threads take
// turns switching it, so none of them saves another's temporary station as its own.
CSLock g_windowStationLock;

const ACCESS_MASK WINSTA_ACCESS = READ_CONTROL | WRITE_DAC;
const ACCESS_MASK DESKTOP_ACCESS = READ_CONTROL | WRITE_DAC | DESKTOP_WRITEOBJECTS | DESKTOP_READOBJECTS;
const DWORD LAUNCH_FLAGS = CREATE_NEW_CONSOLE | NORMAL_PRIORITY_CLASS | CREATE_UNICODE_ENVIRONMENT;
const DWORD COPY_BUFFER_CHARS = 1024;

bool StartsWithNoCase(const std::wstring& strEntry, const std::wstring& strKey) {
    return strEntry.size() >= strKey.size() &&
           _wcsnicmp(strEntry.c_str(), strKey.c_str(), strKey.size()) == 0;
}

INT32 ByteSize(size_t nChars) { return static_cast<INT32>(nChars * sizeof(wchar_t)); }

// What one launch holds, released in this order on every path: the primary token, the window
// station switched back, the interactive station and desktop, the environment.
struct CLaunchResources : private boost::noncopyable {
    HWINSTA hSavedStation = nullptr;  // the process's own station; never closed
    HWINSTA hStation = nullptr;
    HDESK hDesktop = nullptr;
    HANDLE hPrimaryToken = nullptr;
    boost::shared_ptr<CEnvBlock> shpEnv;

    ~CLaunchResources() {
        if (hPrimaryToken != nullptr) {
            CloseHandle(hPrimaryToken);
        }
        if (hSavedStation != nullptr) {
            Guard<CSLock> guard(&g_windowStationLock);
            SetProcessWindowStation(hSavedStation);
        }
        if (hStation != nullptr) {
            CloseWindowStation(hStation);
        }
        if (hDesktop != nullptr) {
            CloseDesktop(hDesktop);
        }
        shpEnv.reset();
    }
};

// Opens winsta0 and its default desktop with the rights the launch needs, switching the process
// to winsta0 only for the desktop's open.
bool OpenInteractiveDesktop(CLaunchResources& res) {
    Guard<CSLock> guard(&g_windowStationLock);
    res.hSavedStation = GetProcessWindowStation();
    if (res.hSavedStation == nullptr) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"GetProcessWindowStation GetLastError=" << dwErr);
        return false;
    }
    res.hStation = OpenWindowStationW(L"winsta0", FALSE, WINSTA_ACCESS);
    if (res.hStation == nullptr) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"OpenWindowStationW GetLastError=" << dwErr);
        return false;
    }
    if (!SetProcessWindowStation(res.hStation)) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"SetProcessWindowStation GetLastError=" << dwErr);
        return false;
    }
    res.hDesktop = OpenDesktopW(L"default", 0, FALSE, DESKTOP_ACCESS);
    const DWORD dwDesktopErr = GetLastError();
    if (!SetProcessWindowStation(res.hSavedStation)) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"SetProcessWindowStation GetLastError=" << dwErr);
        return false;
    }
    if (res.hDesktop == nullptr) {
        LOG_ERROR(L"OpenDesktopW GetLastError=" << dwDesktopErr);
        return false;
    }
    return true;
}

void EndImpersonation() {
    if (!RevertToSelf()) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"RevertToSelf GetLastError=" << dwErr);
    }
}

// The user's environment, with the watchdog's directory in front of the search path and the
// watchdog's program-files variables. Null when it cannot be allocated: the process then
// inherits the watchdog's environment.
boost::shared_ptr<CEnvBlock> BuildEnvironment(HANDLE hPrimaryToken) {
    boost::shared_ptr<CEnvBlock> shpEnv(new (std::nothrow) CEnvBlock(hPrimaryToken, FALSE));
    if (!shpEnv) {
        return shpEnv;
    }
    wchar_t* pszCwd = _wgetcwd(nullptr, 0);
    if (pszCwd != nullptr) {
        shpEnv->PrependValue(L"Path", pszCwd);
        free(pszCwd);
    }
    boost::shared_ptr<wchar_t[]> shpValue(new (std::nothrow) wchar_t[COPY_BUFFER_CHARS + 1]);
    if (shpValue) {
        for (const wchar_t* pszName : g_pszCopiedVariables) {
            std::fill(shpValue.get(), shpValue.get() + COPY_BUFFER_CHARS + 1, L'\0');
            const DWORD n = GetEnvironmentVariableW(pszName, shpValue.get(), COPY_BUFFER_CHARS);
            if (n > 0 && n < COPY_BUFFER_CHARS) {
                shpEnv->SetVariable(pszName, shpValue.get());
            }
        }
    }
    return shpEnv;
}

}  // namespace

CEnvBlock::CEnvBlock(HANDLE hToken, BOOL bInherit) : m_cbSize(0) {
    void* pEnvironment = nullptr;
    if (!CreateEnvironmentBlock(&pEnvironment, hToken, bInherit)) {
        return;
    }
    const wchar_t* pBlock = static_cast<const wchar_t*>(pEnvironment);
    size_t i = 0;
    while (pBlock[i] != L'\0' || pBlock[i + 1] != L'\0') {
        ++i;
    }
    m_cbSize = ByteSize(i + 2);

    const wchar_t* pEntry = pBlock;
    while (*pEntry != L'\0') {
        const std::wstring strEntry(pEntry);
        m_vecEntries.push_back(strEntry);
        pEntry += strEntry.size() + 1;
    }
    DestroyEnvironmentBlock(pEnvironment);
}

bool CEnvBlock::PrependValue(const wchar_t* name, const wchar_t* value) {
    if (name == nullptr || value == nullptr) {
        return false;
    }
    const std::wstring strKey = std::wstring(name) + L"=";
    for (std::wstring& strEntry : m_vecEntries) {
        if (StartsWithNoCase(strEntry, strKey)) {
            const std::wstring strValue(value);
            strEntry = strEntry.substr(0, strKey.size()) + strValue + L";" + strEntry.substr(strKey.size());
            m_cbSize += ByteSize(strValue.size() + 1);
            return true;
        }
    }
    return false;
}

void CEnvBlock::SetVariable(const wchar_t* name, const wchar_t* value) {
    if (name == nullptr || value == nullptr) {
        return;
    }
    const std::wstring strKey = std::wstring(name) + L"=";
    const std::wstring strNewEntry = strKey + value;
    bool bReplaced = false;
    for (std::wstring& strEntry : m_vecEntries) {
        if (StartsWithNoCase(strEntry, strKey)) {
            strEntry = strNewEntry;
            m_cbSize += ByteSize(strNewEntry.size());
            bReplaced = true;
        }
    }
    if (!bReplaced) {
        m_vecEntries.push_back(strNewEntry);
        m_cbSize += ByteSize(strNewEntry.size() + 1);
    }
}

void* CEnvBlock::GetBlock() {
    // Every entry with its NUL, plus the final NUL; the running size is kept generously, and the
    // layout never trusts it below what the entries need.
    size_t nChars = 1;
    for (const std::wstring& strEntry : m_vecEntries) {
        nChars += strEntry.size() + 1;
    }
    const size_t cbNeeded = nChars * sizeof(wchar_t);
    const size_t cbBlock =
        (m_cbSize > 0 && static_cast<size_t>(m_cbSize) > cbNeeded) ? static_cast<size_t>(m_cbSize) : cbNeeded;
    boost::shared_ptr<BYTE[]> shpBlock(new (std::nothrow) BYTE[cbBlock]());
    m_block = shpBlock;
    if (!shpBlock) {
        return nullptr;
    }
    wchar_t* pOut = reinterpret_cast<wchar_t*>(shpBlock.get());
    for (const std::wstring& strEntry : m_vecEntries) {
        pOut = std::copy(strEntry.begin(), strEntry.end(), pOut);
        *pOut++ = L'\0';
    }
    *pOut = L'\0';
    return shpBlock.get();
}

BOOL LaunchInteractiveProcess(HANDLE hToken, HANDLE* phProcess, LPWSTR lpApplicationName,
                              LPCWSTR lpCurrentDirectory) {
    CLaunchResources res;
    if (!OpenInteractiveDesktop(res)) {
        return FALSE;
    }
    if (!ImpersonateLoggedOnUser(hToken)) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"ImpersonateLoggedOnUser GetLastError=" << dwErr);
        return FALSE;
    }
    if (!DuplicateTokenEx(hToken, MAXIMUM_ALLOWED, nullptr, SecurityIdentification, TokenPrimary,
                          &res.hPrimaryToken)) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"DuplicateTokenEx Err=" << dwErr);
        res.hPrimaryToken = nullptr;
        EndImpersonation();
        return FALSE;
    }

    res.shpEnv = BuildEnvironment(res.hPrimaryToken);
    void* pEnvironment = res.shpEnv ? res.shpEnv->GetBlock() : nullptr;

    wchar_t szDesktop[] = L"winsta0\\default";
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.lpDesktop = szDesktop;
    PROCESS_INFORMATION pi = {};
    const BOOL bCreated =
        CreateProcessAsUserW(res.hPrimaryToken, lpApplicationName, nullptr, nullptr, nullptr, FALSE,
                             LAUNCH_FLAGS, pEnvironment, lpCurrentDirectory, &si, &pi);
    if (!bCreated) {
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"CreateProcessAsUser GetLastError=" << dwErr);
    } else {
        LOG_INFO(L"Newly created process id=" << pi.dwProcessId);
    }
    EndImpersonation();

    *phProcess = bCreated ? pi.hProcess : nullptr;
    if (bCreated) {
        CloseHandle(pi.hThread);
    }
    return bCreated;
}
