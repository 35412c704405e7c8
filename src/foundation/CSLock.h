#pragma once

#include <windows.h>

#include <boost/noncopyable.hpp>

// A mutual-exclusion lock over one critical section. Like any critical section it may be taken
// again by the thread that already holds it.
class CSLock : private boost::noncopyable {
public:
    CSLock();
    virtual ~CSLock();

    INT32 Lock();
    INT32 Unlock();

private:
    CRITICAL_SECTION m_cs;
};

// Holds a lock for the life of a scope. Release() gives it up early; the destructor releases it
// only if that has not happened yet, so no path can leave the lock taken or leave it twice.
template <class TLock>
class Guard : private boost::noncopyable {
public:
    explicit Guard(TLock* pLock) : m_pLock(pLock), m_nState(pLock->Lock()) {}
    virtual ~Guard() { Release(); }

    INT32 Release() {
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
