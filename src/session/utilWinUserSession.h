#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "foundation/Contract.h"
#include "foundation/ScopedHandle.h"
#include "foundation/SessionRecord.h"

// Appends one record for every process named explorer.exe (any letter case), with its session
// id and process id. True when the process list could be walked, even when it held none; on
// failure the list is left as it was.
bool EnumUserSession(std::vector<SessionRecord>& sessions);

// Starts agentPath in session dwSessionId as the user of its explorer.exe dwExplorerPid, with
// workingPath as its current directory. On success the new process handle goes to agent, which owns
// it; on failure agent is left as it was.
bool StartSessionAgent(const std::wstring& agentPath, const std::wstring& workingPath, DWORD dwSessionId,
                       DWORD dwExplorerPid, CKernelHandle& agent);
// The same, the handle handed to the record, whose owner must close it.
bool CreateSessionAgent(const std::wstring& agentPath, const std::wstring& workingPath,
                        SessionRecord& record);

// Read and write the system Path, as stored (unexpanded); both need administrative rights.
bool GetSystemEnvPath(std::wstring& strPath);
bool SetSystemEnvPath(const std::wstring& strPath);
