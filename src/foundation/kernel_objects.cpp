#include "foundation/kernel_objects.h"

#include <sddl.h>

#include "foundation/logging.h"

namespace {

void FreeDescriptor(void* pDescriptor) {
    if (pDescriptor != nullptr) {
        LocalFree(pDescriptor);
    }
}

}  // namespace

DefSecAttr::DefSecAttr(const wchar_t* pszSddl) : SECURITY_ATTRIBUTES() {
    nLength = sizeof(SECURITY_ATTRIBUTES);
    bInheritHandle = TRUE;
    lpSecurityDescriptor = nullptr;
    PSECURITY_DESCRIPTOR pDescriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(pszSddl, SDDL_REVISION_1, &pDescriptor,
                                                              nullptr)) {
        QO_LOG_LAST_ERROR(QoMsg::SDDL_FAILED);
        return;
    }
    m_shpDescriptor.reset(pDescriptor, FreeDescriptor);
    lpSecurityDescriptor = pDescriptor;
}

DefSecAttr::~DefSecAttr() {}

CEvent::CEvent(const std::wstring& strName, bool bManualReset, LPSECURITY_ATTRIBUTES pAttributes)
    : m_hEvent(CreateEventW(pAttributes, bManualReset ? TRUE : FALSE, FALSE, strName.c_str())) {}

bool CEvent::Set() { return m_hEvent.IsValid() && SetEvent(m_hEvent.Get()) != FALSE; }

bool CEvent::Exists(const std::wstring& strName, DWORD* pdwError) {
    const CKernelHandle event(OpenEventW(EVENT_ALL_ACCESS, FALSE, strName.c_str()));
    if (!event.IsValid() && pdwError != nullptr) {
        *pdwError = GetLastError();
    }
    return event.IsValid();
}

namespace BrevantUtility {
namespace OperationSystem {

CMutex::CMutex(const std::wstring& strName) : m_strName(strName) {}

bool CMutex::Exists() const {
    return CKernelHandle(OpenMutexW(SYNCHRONIZE, FALSE, m_strName.c_str())).IsValid();
}

bool CMutex::Create() {
    if (!Exists()) {
        // No descriptor: the creator's default security, with an inheritable handle.
        SECURITY_ATTRIBUTES sa = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        m_hMutex.Reset(CreateMutexW(&sa, FALSE, m_strName.c_str()));
    } else {
        m_hMutex.Reset(OpenMutexW(SYNCHRONIZE, FALSE, m_strName.c_str()));
    }
    return m_hMutex.IsValid();
}

void CMutex::Close() { m_hMutex.Close(); }

}  // namespace OperationSystem
}  // namespace BrevantUtility
