#pragma once

#include <windows.h>

#include <boost/noncopyable.hpp>

#include "foundation/NeverDestroyed.h"
#include "foundation/ThreadAnnotations.h"

// A mutual-exclusion lock over one critical section. Like any critical section it may be taken
// again by the thread that already holds it.
class QO_CAPABILITY("lock") CSLock : private boost::noncopyable {
public:
    CSLock();
    virtual ~CSLock();

    INT32 Lock() QO_ACQUIRE();
    INT32 Unlock() QO_RELEASE();

private:
    CRITICAL_SECTION m_cs;
};

// Holds a lock for the life of a scope. Release() gives it up early; the destructor releases it
// only if that has not happened yet, so no path can leave the lock taken or leave it twice.
template <class TLock>
class QO_SCOPED_CAPABILITY Guard : private boost::noncopyable {
public:
    explicit Guard(TLock* pLock) QO_ACQUIRE(pLock) : m_pLock(pLock), m_nState(pLock->Lock()) {}
    virtual ~Guard() QO_RELEASE() { Release(); }

    INT32 Release() QO_RELEASE() {
        if (m_nState == -1) {
            return -1;
        }
        m_pLock->Unlock();
        m_nState = -1;
        return 0;
    }

private:
    TLock* m_pLock;
    INT32 m_nState;
};

// A process-wide lock that is never destroyed (see CNeverDestroyed). Get() gives the lock; to the
// thread-safety analysis it is this object, so members and the lock order can name it.
class QO_CAPABILITY("lock") CNeverDestroyedLock : private boost::noncopyable {
public:
    CSLock& Get() QO_RETURN_CAPABILITY(this) { return m_lock.Get(); }

private:
    CNeverDestroyed<CSLock> m_lock;
};
