#pragma once

#include <windows.h>

// The session a process runs in. The program links ProcessSession.cpp (ProcessIdToSessionId);
// the component tests link a version of their own that gives chosen processes chosen sessions, the
// one thing a single-session test machine cannot vary. On failure the last error is the lookup's.
bool GetProcessSessionId(DWORD dwProcessId, DWORD& dwSessionId);
