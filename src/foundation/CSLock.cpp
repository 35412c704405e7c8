#include "foundation/CSLock.h"

CSLock::CSLock() { InitializeCriticalSection(&m_cs); }

CSLock::~CSLock() { DeleteCriticalSection(&m_cs); }

INT32 CSLock::Lock() {
    EnterCriticalSection(&m_cs);
    return 0;
}

INT32 CSLock::Unlock() {
    LeaveCriticalSection(&m_cs);
    return 0;
}
