#include "foundation/TrimWorkingSet.h"

#include <windows.h>

#include "foundation/ScopedHandle.h"

void TrimWorkingSet() {
    const CKernelHandle process(
        OpenProcess(PROCESS_SET_QUOTA | PROCESS_QUERY_INFORMATION, FALSE, GetCurrentProcessId()));
    if (process.IsValid()) {
        SetProcessWorkingSetSize(process.Get(), static_cast<SIZE_T>(-1), static_cast<SIZE_T>(-1));
    }
}
