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
        const DWORD dwErr = GetLastError();
        LOG_ERROR(L"ConvertStringSecurityDescriptorToSecurityDescriptorW Err=" << dwErr);
        return;
    }
    m_shpDescriptor.reset(pDescriptor, FreeDescriptor);
    lpSecurityDescriptor = pDescriptor;
}

DefSecAttr::~DefSecAttr() {}

CEvent::CEvent(const std::wstring& strName, bool bManualReset, LPSECURITY_ATTRIBUTES pAttributes)
    : m_hEvent(CreateEventW(pAttributes, bManualReset ? TRUE : FALSE, FALSE, strName.c_str())) {}

CEvent::~CEvent() {
    HANDLE hEvent = m_hEvent;
    m_hEvent = nullptr;
    if (hEvent != nullptr) {
        CloseHandle(hEvent);
    }
}

bool CEvent::Set() { return m_hEvent != nullptr && SetEvent(m_hEvent) != FALSE; }

bool CEvent::Exists(const std::wstring& strName, DWORD* pdwError) {
    HANDLE hEvent = OpenEventW(EVENT_ALL_ACCESS, FALSE, strName.c_str());
    if (hEvent == nullptr) {
        if (pdwError != nullptr) {
            *pdwError = GetLastError();
        }
        return false;
    }
    CloseHandle(hEvent);
    return true;
}

namespace BrevantUtility {
namespace OperationSystem {

CMutex::CMutex(const std::wstring& strName) : m_hMutex(nullptr), m_strName(strName) {}

CMutex::~CMutex() { Close(); }

bool CMutex::Exists() const {
    HANDLE hMutex = OpenMutexW(SYNCHRONIZE, FALSE, m_strName.c_str());
    if (hMutex == nullptr) {
        return false;
    }
    CloseHandle(hMutex);
    return true;
}

bool CMutex::Create() {
    Close();  // a second Create must not leak the handle held so far
    if (!Exists()) {
        // No descriptor: the creator's default security, with an inheritable handle.
        SECURITY_ATTRIBUTES sa = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        m_hMutex = CreateMutexW(&sa, FALSE, m_strName.c_str());
    } else {
        m_hMutex = OpenMutexW(SYNCHRONIZE, FALSE, m_strName.c_str());
    }
    return m_hMutex != nullptr;
}

void CMutex::Close() {
    if (m_hMutex != nullptr) {
        CloseHandle(m_hMutex);
        m_hMutex = nullptr;
    }
}

}  // namespace OperationSystem
}  // namespace BrevantUtility
