#pragma once

#include <windows.h>

#include <boost/noncopyable.hpp>

// Sole owner of one handle of the kind TTraits describes (its type, its invalid values, how it is
// closed). Closing keeps the thread's last-error value, so a log statement written after a failed
// call still reports that call's code. Ownership moves to another owner, or leaves only through
// Release, which the caller must take.
template <class TTraits>
class CScopedHandle : private boost::noncopyable {
public:
    typedef typename TTraits::Type Type;

    CScopedHandle() : m_h(nullptr) {}
    explicit CScopedHandle(Type h) : m_h(TTraits::IsValid(h) ? h : nullptr) {}
    CScopedHandle(CScopedHandle&& other) noexcept : m_h(other.Release()) {}
    CScopedHandle& operator=(CScopedHandle&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    virtual ~CScopedHandle() { Close(); }

    Type Get() const { return m_h; }
    bool IsValid() const { return TTraits::IsValid(m_h); }

    void Reset(Type h) {
        Close();
        m_h = TTraits::IsValid(h) ? h : nullptr;
    }

    // For an out-parameter of a call that opens the handle: what was held is closed first.
    Type* Receive() {
        Close();
        return &m_h;
    }

    // Gives the handle up to the caller, who then owns it.
    [[nodiscard]] Type Release() {
        const Type h = m_h;
        m_h = nullptr;
        return h;
    }

    void Close() {
        if (m_h != nullptr) {
            const DWORD dwLastError = GetLastError();
            if (TTraits::IsValid(m_h)) {
                TTraits::Close(m_h);
            }
            m_h = nullptr;
            SetLastError(dwLastError);
        }
    }

private:
    Type m_h;
};

// A handle kind whose only invalid value is null, closed by pfnClose.
template <class T, class TResult, TResult(WINAPI* pfnClose)(T)>
struct HandleTraits {
    typedef T Type;
    static bool IsValid(T h) { return h != nullptr; }
    static void Close(T h) { pfnClose(h); }
};

// Creation calls report failure with null, file and snapshot calls with INVALID_HANDLE_VALUE.
struct KernelHandleTraits : HandleTraits<HANDLE, BOOL, CloseHandle> {
    static bool IsValid(HANDLE h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
};

typedef CScopedHandle<KernelHandleTraits> CKernelHandle;
typedef CScopedHandle<HandleTraits<HKEY, LONG, RegCloseKey>> CRegKeyHandle;
typedef CScopedHandle<HandleTraits<SC_HANDLE, BOOL, CloseServiceHandle>> CServiceHandle;
typedef CScopedHandle<HandleTraits<HWINSTA, BOOL, CloseWindowStation>> CWindowStationHandle;
typedef CScopedHandle<HandleTraits<HDESK, BOOL, CloseDesktop>> CDesktopHandle;
typedef CScopedHandle<HandleTraits<HLOCAL, HLOCAL, LocalFree>> CLocalMemory;
