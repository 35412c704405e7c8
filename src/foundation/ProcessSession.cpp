#include "foundation/ProcessSession.h"

bool GetProcessSessionId(DWORD dwProcessId, DWORD& dwSessionId) {
    return ProcessIdToSessionId(dwProcessId, &dwSessionId) != FALSE;
}
