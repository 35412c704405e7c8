#pragma once

#include <windows.h>

#include <string>

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include "foundation/Contract.h"
#include "foundation/ScopedHandle.h"

// Full access for Everyone and LocalSystem, inherited by child objects: objects created with it
// can be opened and set from every user session.
#define DEF_SEC_ATTR_SDDL L"D:(A;OICI;GA;;;WD)(A;OICI;GA;;;SY)"

// Security attributes built from a descriptor string. Copies share the converted descriptor,
// which is freed with the last of them; objects created with it keep their own copy.
struct DefSecAttr : public SECURITY_ATTRIBUTES {
    explicit DefSecAttr(const wchar_t* pszSddl);
    virtual ~DefSecAttr();

    // False when the string could not be converted: the attributes then carry no descriptor,
    // so an object created with them gets the creator's default security.
    bool HasDescriptor() const { return lpSecurityDescriptor != nullptr; }

private:
    boost::shared_ptr<void> m_shpDescriptor;
};

// Owner of one event handle, created or, when the name exists, opened.
class CEvent : private boost::noncopyable {
public:
    // An existing event keeps its reset mode, state and security: bManualReset and pAttributes
    // then have no effect. The handle is null when the event can be neither created nor opened.
    CEvent(const std::wstring& strName, bool bManualReset, LPSECURITY_ATTRIBUTES pAttributes = nullptr);
    virtual ~CEvent() {}

    bool IsValid() const { return m_hEvent.IsValid(); }
    bool Set();
    HANDLE GetHandle() const { return m_hEvent.Get(); }

    // True when the event can be opened with full access; an event that exists but denies that
    // access counts as absent. The open's error code goes to *pdwError when given.
    static bool Exists(const std::wstring& strName, DWORD* pdwError = nullptr);

private:
    CKernelHandle m_hEvent;
};

namespace BrevantUtility {
namespace OperationSystem {

// A named mutex whose existence alone is the signal: it is never waited on or released.
class CMutex : private boost::noncopyable {
public:
    explicit CMutex(const std::wstring& strName);
    virtual ~CMutex() {}

    bool Exists() const;
    bool Create();
    void Close();

private:
    CKernelHandle m_hMutex;
    std::wstring m_strName;
};

}  // namespace OperationSystem
}  // namespace BrevantUtility
