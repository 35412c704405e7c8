#include "foundation/TrimWorkingSet.h"

#include <windows.h>

void TrimWorkingSet() {
    HANDLE hProcess =
        OpenProcess(PROCESS_SET_QUOTA | PROCESS_QUERY_INFORMATION, FALSE, GetCurrentProcessId());
    if (hProcess == nullptr) {
        return;
    }
    SetProcessWorkingSetSize(hProcess, static_cast<SIZE_T>(-1), static_cast<SIZE_T>(-1));
    CloseHandle(hProcess);
}
