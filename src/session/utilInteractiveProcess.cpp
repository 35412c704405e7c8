#include "session/utilInteractiveProcess.h"

#include <direct.h>
#include <stdlib.h>
#include <userenv.h>

#include <algorithm>
#include <new>

#include "foundation/CSLock.h"
#include "foundation/NeverDestroyed.h"
#include "foundation/ScopedHandle.h"
#include "foundation/logging.h"

const wchar_t* const g_pszCopiedVariables[4] = {L"CommonProgramFiles(x86)", L"CommonProgramW6432",
                                                L"ProgramFiles(x86)", L"ProgramW6432"};

namespace {

// The process's window station is process-wide state: launches on several monitor threads take
// turns switching it, so none of them saves another's temporary station as its own.
CNeverDestroyedLock g_windowStationLock QO_ACQUIRED_BEFORE(g_logLock);

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
    boost::shared_ptr<CEnvBlock> shpEnv;
    CDesktopHandle hDesktop;
    CWindowStationHandle hStation;
    CKernelHandle hPrimaryToken;
    HWINSTA hSavedStation = nullptr;  // the process's own station; never closed

    virtual ~CLaunchResources() {
        hPrimaryToken.Close();
        if (hSavedStation != nullptr) {
            Guard<CSLock> guard(&g_windowStationLock.Get());
            SetProcessWindowStation(hSavedStation);
        }
    }
};

// The calling thread impersonates the user from Begin until End or the end of the scope, on every
// path, an exception's included.
class CImpersonation : private boost::noncopyable {
public:
    CImpersonation() : m_bActive(false) {}
    virtual ~CImpersonation() { End(); }

    bool Begin(HANDLE hToken) { return m_bActive = ImpersonateLoggedOnUser(hToken) != FALSE; }
    void End() {
        if (m_bActive && !RevertToSelf()) {
            QO_LOG_LAST_ERROR(QoMsg::REVERT_FAILED);
        }
        m_bActive = false;
    }

private:
    bool m_bActive;
};

// Opens winsta0 and its default desktop with the rights the launch needs, switching the process
// to winsta0 only for the desktop's open.
bool OpenInteractiveDesktop(CLaunchResources& res) {
    Guard<CSLock> guard(&g_windowStationLock.Get());
    res.hSavedStation = GetProcessWindowStation();
    if (res.hSavedStation == nullptr) {
        QO_LOG_LAST_ERROR(QoMsg::GET_WINSTA_FAILED);
        return false;
    }
    res.hStation.Reset(OpenWindowStationW(L"winsta0", FALSE, WINSTA_ACCESS));
    if (!res.hStation.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::OPEN_WINSTA_FAILED);
        return false;
    }
    if (!SetProcessWindowStation(res.hStation.Get())) {
        QO_LOG_LAST_ERROR(QoMsg::SET_WINSTA_FAILED);
        return false;
    }
    res.hDesktop.Reset(OpenDesktopW(L"default", 0, FALSE, DESKTOP_ACCESS));
    const DWORD dwDesktopErr = GetLastError();
    if (!SetProcessWindowStation(res.hSavedStation)) {
        QO_LOG_LAST_ERROR(QoMsg::SET_WINSTA_FAILED);
        return false;
    }
    if (!res.hDesktop.IsValid()) {
        QO_LOG(QoMsg::OPEN_DESKTOP_FAILED, dwDesktopErr);
        return false;
    }
    return true;
}

// The user's environment, with the watchdog's directory in front of the search path and the
// watchdog's program-files variables. Null when it cannot be allocated: the process then
// inherits the watchdog's environment.
boost::shared_ptr<CEnvBlock> BuildEnvironment(HANDLE hPrimaryToken) {
    boost::shared_ptr<CEnvBlock> shpEnv(new (std::nothrow) CEnvBlock(hPrimaryToken, FALSE));
    if (!shpEnv) {
        return shpEnv;
    }
    const boost::shared_ptr<wchar_t> shpCwd(_wgetcwd(nullptr, 0), free);
    if (shpCwd) {
        shpEnv->PrependValue(L"Path", shpCwd.get());
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
    // Released on every path, a failed copy's included: the object keeps only its copies.
    const boost::shared_ptr<void> shpEnvironment(pEnvironment, DestroyEnvironmentBlock);
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
}

bool CEnvBlock::PrependValue(const wchar_t* name, const wchar_t* value) {
    if (name == nullptr || value == nullptr) {
        return false;
    }
    const std::wstring strKey = std::wstring(name) + L"=";
    for (std::wstring& strEntry : m_vecEntries) {
        if (StartsWithNoCase(strEntry, strKey)) {
            const std::wstring strValue(value);
            strEntry.insert(strKey.size(), strValue + L";");
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
    if (m_vecEntries.empty()) {
        nChars = 2;  // a block without entries is still ended by two NULs
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

namespace {

BOOL Launch(HANDLE hToken, HANDLE* phProcess, LPWSTR lpApplicationName, LPCWSTR lpCurrentDirectory) {
    CLaunchResources res;
    if (!OpenInteractiveDesktop(res)) {
        return FALSE;
    }
    CImpersonation impersonation;
    if (!impersonation.Begin(hToken)) {
        QO_LOG_LAST_ERROR(QoMsg::IMPERSONATE_FAILED);
        return FALSE;
    }
    // Lines are written only once the thread is itself again: as the user, the log file could be
    // out of reach.
    if (!DuplicateTokenEx(hToken, MAXIMUM_ALLOWED, nullptr, SecurityIdentification, TokenPrimary,
                          res.hPrimaryToken.Receive())) {
        const DWORD dwErr = GetLastError();
        impersonation.End();
        QO_LOG(QoMsg::DUPLICATE_TOKEN_FAILED, dwErr);
        return FALSE;
    }

    res.shpEnv = BuildEnvironment(res.hPrimaryToken.Get());
    void* pEnvironment = res.shpEnv ? res.shpEnv->GetBlock() : nullptr;

    wchar_t szDesktop[] = L"winsta0\\default";
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.lpDesktop = szDesktop;
    PROCESS_INFORMATION pi = {};
    const BOOL bCreated =
        CreateProcessAsUserW(res.hPrimaryToken.Get(), lpApplicationName, nullptr, nullptr, nullptr, FALSE,
                             LAUNCH_FLAGS, pEnvironment, lpCurrentDirectory, &si, &pi);
    const DWORD dwCreateErr = GetLastError();
    impersonation.End();
    if (!bCreated) {
        QO_LOG(QoMsg::CREATE_PROCESS_FAILED, dwCreateErr);
        *phProcess = nullptr;
        return FALSE;
    }
    QO_LOG(QoMsg::AGENT_CREATED, pi.dwProcessId);
    const CKernelHandle thread(pi.hThread);
    *phProcess = pi.hProcess;
    return TRUE;
}

}  // namespace

BOOL LaunchInteractiveProcess(HANDLE hToken, HANDLE* phProcess, LPWSTR lpApplicationName,
                              LPCWSTR lpCurrentDirectory) {
    try {
        return Launch(hToken, phProcess, lpApplicationName, lpCurrentDirectory);
    } catch (...) {
        // Building the environment ran out of memory: the launch's owners have already reverted
        // the impersonation and closed what it had opened.
        QO_LOG(QoMsg::LAUNCH_NO_MEMORY);
        return FALSE;
    }
}
