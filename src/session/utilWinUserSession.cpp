#include "session/utilWinUserSession.h"

#include <tlhelp32.h>

#include <new>

#include <boost/shared_ptr.hpp>

#include "foundation/CRegKey.h"
#include "foundation/ScopedHandle.h"
#include "foundation/ProcessImage.h"
#include "foundation/ProcessSession.h"
#include "foundation/logging.h"
#include "session/utilInteractiveProcess.h"

bool EnumUserSession(std::vector<SessionRecord>& sessions) {
    const CKernelHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::SNAPSHOT_FAILED);
        return false;
    }
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    if (!Process32FirstW(snapshot.Get(), &entry)) {
        QO_LOG_LAST_ERROR(QoMsg::SNAPSHOT_FAILED);
        return false;
    }
    do {
        if (_wcsicmp(entry.szExeFile, SHELL_IMAGE_NAME) == 0) {
            DWORD dwSessionId = 0;
            // A shell that has exited meanwhile, or cannot be queried, is simply not listed.
            if (GetProcessSessionId(entry.th32ProcessID, dwSessionId)) {
                SessionRecord record = {};
                record.dwSessionId = dwSessionId;
                record.dwExplorerPid = entry.th32ProcessID;
                sessions.push_back(record);
            }
        }
    } while (Process32NextW(snapshot.Get(), &entry));
    return true;
}

namespace {

// A record keeps its shell's process id until its agent is started again, perhaps much later: by
// then the id may name another user's process or a service. The token is taken only while the id
// still names explorer.exe in the record's session.
bool IsSessionShell(HANDLE hProcess, DWORD dwSessionId, DWORD dwExplorerPid) {
    std::wstring strName = L"an unknown program";
    std::wstring strImage;
    if (GetProcessImagePath(hProcess, strImage)) {
        strName = strImage.substr(strImage.find_last_of(L'\\') + 1);
    }
    DWORD dwNowIn = 0;
    const bool bSession = GetProcessSessionId(dwExplorerPid, dwNowIn);
    if (_wcsicmp(strName.c_str(), SHELL_IMAGE_NAME) == 0 && bSession && dwNowIn == dwSessionId) {
        return true;
    }
    QO_LOG(QoMsg::SHELL_CHANGED, dwExplorerPid, dwSessionId, strName, dwNowIn);
    return false;
}

}  // namespace

bool CreateSessionAgent(const std::wstring& agentPath, const std::wstring& workingPath,
                        SessionRecord& record) {
    CKernelHandle agent;
    if (!StartSessionAgent(agentPath, workingPath, record.dwSessionId, record.dwExplorerPid, agent)) {
        return false;
    }
    record.hAgentProcess = agent.Release();
    return true;
}

bool StartSessionAgent(const std::wstring& agentPath, const std::wstring& workingPath, DWORD dwSessionId,
                       DWORD dwExplorerPid, CKernelHandle& agent) {
    const CKernelHandle explorer(OpenProcess(MAXIMUM_ALLOWED, TRUE, dwExplorerPid));
    if (!explorer.IsValid()) {
        QO_LOG_LAST_ERROR(QoMsg::SHELL_OPEN_FAILED);
        return false;
    }
    if (!IsSessionShell(explorer.Get(), dwSessionId, dwExplorerPid)) {
        return false;
    }
    CKernelHandle token;
    if (!OpenProcessToken(explorer.Get(), TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY,
                          token.Receive())) {
        QO_LOG_LAST_ERROR(QoMsg::SHELL_TOKEN_FAILED);
        return false;
    }

    // The launch wants a writable copy of the path.
    const size_t nChars = agentPath.size() + 1;
    boost::shared_ptr<wchar_t[]> shpPath;
    if (nChars <= static_cast<size_t>(-1) / sizeof(wchar_t)) {
        shpPath.reset(new (std::nothrow) wchar_t[nChars]());
    }
    if (!shpPath) {
        QO_LOG(QoMsg::OUT_OF_MEMORY);
        return false;
    }
    agentPath.copy(shpPath.get(), agentPath.size());

    CKernelHandle launched;
    const BOOL bLaunched =
        LaunchInteractiveProcess(token.Get(), launched.Receive(), shpPath.get(), workingPath.c_str());
    if (bLaunched) {
        agent = std::move(launched);
        QO_LOG(QoMsg::AGENT_STARTED, dwSessionId);
    } else {
        QO_LOG(QoMsg::AGENT_START_FAILED, dwSessionId);
    }
    QO_LOG(QoMsg::EXPLORER_PID, dwExplorerPid);
    return bLaunched != FALSE;
}

bool GetSystemEnvPath(std::wstring& strPath) {
    CRegKey key;
    LONG lResult = key.Open(HKEY_LOCAL_MACHINE, REG_SYSTEM_ENV, KEY_ALL_ACCESS);
    if (lResult != ERROR_SUCCESS) {
        QO_LOG(QoMsg::ENV_KEY_OPEN_FAILED, lResult);
        return false;
    }
    lResult = key.QueryValue(ENVIRONMENT_PATH, strPath);
    if (lResult != ERROR_SUCCESS) {
        QO_LOG(QoMsg::PATH_QUERY_FAILED, lResult);
        return false;
    }
    return true;
}

bool SetSystemEnvPath(const std::wstring& strPath) {
    CRegKey key;
    LONG lResult = key.Open(HKEY_LOCAL_MACHINE, REG_SYSTEM_ENV, KEY_ALL_ACCESS);
    if (lResult != ERROR_SUCCESS) {
        QO_LOG(QoMsg::ENV_KEY_OPEN_FAILED, lResult);
        return false;
    }
    lResult = key.SetValue(ENVIRONMENT_PATH, strPath.c_str());
    if (lResult != ERROR_SUCCESS) {
        QO_LOG(QoMsg::PATH_SET_FAILED, lResult);
        return false;
    }
    return true;
}
