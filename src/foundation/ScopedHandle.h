#pragma once

#include <windows.h>

#include <boost/noncopyable.hpp>

// Sole owner of one handle of the kind TTraits describes (its type, its invalid values, how it is
// closed). Closing keeps the thread's last-error value, so a log statement written after a failed
// call still reports that call's code. The handle leaves only through Release, which the caller
// must take.
template <class TTraits>
class CScopedHandle : private boost::noncopyable {
public:
    typedef typename TTraits::Type Type;

    CScopedHandle() : m_h(nullptr) {}
    explicit CScopedHandle(Type h) : m_h(TTraits::IsValid(h) ? h : nullptr) {}
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

struct KernelHandleTraits {
    typedef HANDLE Type;
    // Creation calls report failure with null, file and snapshot calls with INVALID_HANDLE_VALUE.
    static bool IsValid(HANDLE h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(HANDLE h) { CloseHandle(h); }
};

struct RegKeyTraits {
    typedef HKEY Type;
    static bool IsValid(HKEY h) { return h != nullptr; }
    static void Close(HKEY h) { RegCloseKey(h); }
};

struct ServiceHandleTraits {
    typedef SC_HANDLE Type;
    static bool IsValid(SC_HANDLE h) { return h != nullptr; }
    static void Close(SC_HANDLE h) { CloseServiceHandle(h); }
};

struct WindowStationTraits {
    typedef HWINSTA Type;
    static bool IsValid(HWINSTA h) { return h != nullptr; }
    static void Close(HWINSTA h) { CloseWindowStation(h); }
};

struct DesktopTraits {
    typedef HDESK Type;
    static bool IsValid(HDESK h) { return h != nullptr; }
    static void Close(HDESK h) { CloseDesktop(h); }
};

struct LocalMemoryTraits {
    typedef HLOCAL Type;
    static bool IsValid(HLOCAL h) { return h != nullptr; }
    static void Close(HLOCAL h) { LocalFree(h); }
};

typedef CScopedHandle<KernelHandleTraits> CKernelHandle;
typedef CScopedHandle<RegKeyTraits> CRegKeyHandle;
typedef CScopedHandle<ServiceHandleTraits> CServiceHandle;
typedef CScopedHandle<WindowStationTraits> CWindowStationHandle;
typedef CScopedHandle<DesktopTraits> CDesktopHandle;
typedef CScopedHandle<LocalMemoryTraits> CLocalMemory;
