#pragma once

#include <windows.h>

#include <boost/noncopyable.hpp>

// Sole owner of one kernel handle. Closing keeps the thread's last-error value, so a log
// statement written after a failed call still reports that call's code.
class CScopedHandle : private boost::noncopyable {
public:
    CScopedHandle() : m_h(nullptr) {}
    explicit CScopedHandle(HANDLE h) : m_h(h == INVALID_HANDLE_VALUE ? nullptr : h) {}
    virtual ~CScopedHandle() { Close(); }

    HANDLE Get() const { return m_h; }
    bool IsValid() const { return m_h != nullptr; }

    void Reset(HANDLE h) {
        Close();
        m_h = (h == INVALID_HANDLE_VALUE) ? nullptr : h;
    }

    // Gives the handle up to the caller, who then owns it.
    HANDLE Detach() {
        HANDLE h = m_h;
        m_h = nullptr;
        return h;
    }

    void Close() {
        if (m_h != nullptr) {
            const DWORD dwLastError = GetLastError();
            CloseHandle(m_h);
            m_h = nullptr;
            SetLastError(dwLastError);
        }
    }

private:
    HANDLE m_h;
};
