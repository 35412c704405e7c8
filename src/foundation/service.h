#pragma once

#include <windows.h>

#include <string>

#include <boost/noncopyable.hpp>

#include "foundation/ScopedHandle.h"

namespace BrevantUtility {
namespace Service {

// Holds a service control manager handle and a service handle; the service's is closed first.
class Base : private boost::noncopyable {
public:
    Base() {}
    virtual ~Base() {}

protected:
    CServiceHandle m_hSCManager;
    CServiceHandle m_hService;
};

class Control : public Base {
public:
    Control() {}

    // Asks the service control manager to start the service unless it is running or starting,
    // and returns at once without waiting for it. Always true: the outcome shows only in the
    // service's state, and a failure's code is left as the thread's last-error value.
    bool Start(const std::wstring& strServiceName);
};

}  // namespace Service
}  // namespace BrevantUtility
