#include "foundation/service.h"

namespace BrevantUtility {
namespace Service {

Base::~Base() {
    if (m_hSCManager != nullptr) {
        if (m_hService != nullptr && CloseServiceHandle(m_hService)) {
            m_hService = nullptr;
        }
        if (CloseServiceHandle(m_hSCManager)) {
            m_hSCManager = nullptr;
        }
    }
}

bool Control::Start(const std::wstring& strServiceName) {
    SC_HANDLE hManager = OpenSCManagerW(nullptr, nullptr, GENERIC_READ);
    if (hManager == nullptr) {
        return true;
    }
    SC_HANDLE hService = OpenServiceW(hManager, strServiceName.c_str(), SERVICE_ALL_ACCESS);
    if (hService == nullptr) {
        const DWORD dwErr = GetLastError();
        CloseServiceHandle(hManager);
        SetLastError(dwErr);
        return true;
    }

    DWORD dwFailure = ERROR_SUCCESS;
    SERVICE_STATUS status = {};
    if (!QueryServiceStatus(hService, &status)) {
        dwFailure = GetLastError();
    } else if (status.dwCurrentState != SERVICE_RUNNING && status.dwCurrentState != SERVICE_START_PENDING) {
        if (!StartServiceW(hService, 0, nullptr)) {
            dwFailure = GetLastError();
        }
    }

    CloseServiceHandle(hService);
    CloseServiceHandle(hManager);
    if (dwFailure != ERROR_SUCCESS) {
        SetLastError(dwFailure);
    }
    return true;
}

}  // namespace Service
}  // namespace BrevantUtility
