#pragma once

#include <windows.h>

#include <string>

#include "foundation/Contract.h"

// How long a run-key instance waits for the shell of its session.
const DWORD EXPLORER_READY_TIMEOUT_MS = 300000;

// The platform's debug directory, InstallDir\debug, created when missing. On failure strDir is
// empty and strMessage says why; it never logs (it runs before the log file is set).
bool GetKeldDebugLogPath(std::wstring& strDir, std::wstring& strMessage);

// Run-key mode: waits until an explorer.exe runs in this process's session, then asks the
// supervisor to reload its sessions.
bool waitExplorerProcessReady(DWORD dwTimeoutMs);
bool SetWatchDogReloadEvent();

// Starts the Keld service unless it runs already or cannot be opened with full access.
void StartKeldService();
bool IsServiceRunning(const std::wstring& strServiceName);
// 0 when the service can be opened with the rights given, otherwise the failing step's code.
DWORD CheckServiceAccess(const std::wstring& strServiceName, DWORD dwAccess);

// Waits for every monitor thread ever started, then closes their handles.
void WaitForAllMonitorThreads();

// The whole program: lpCmdLine is the command line without the program's name.
int WatchDogMain(const wchar_t* lpCmdLine);
