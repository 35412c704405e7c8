#include "foundation/service.h"

namespace BrevantUtility {
namespace Service {

bool Control::Start(const std::wstring& strServiceName) {
    m_hSCManager.Reset(OpenSCManagerW(nullptr, nullptr, GENERIC_READ));
    if (!m_hSCManager.IsValid()) {
        return true;
    }
    m_hService.Reset(OpenServiceW(m_hSCManager.Get(), strServiceName.c_str(), SERVICE_ALL_ACCESS));
    if (!m_hService.IsValid()) {
        return true;
    }
    SERVICE_STATUS status = {};
    if (QueryServiceStatus(m_hService.Get(), &status) && status.dwCurrentState != SERVICE_RUNNING &&
        status.dwCurrentState != SERVICE_START_PENDING) {
        StartServiceW(m_hService.Get(), 0, nullptr);
    }
    return true;
}

}  // namespace Service
}  // namespace BrevantUtility
