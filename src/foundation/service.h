#pragma once

#include <windows.h>

#include <string>

namespace BrevantUtility {
namespace Service {

// Holds a service control manager handle and a service handle; closes them in that order's
// reverse when destroyed.
class Base {
public:
    Base() : m_hSCManager(nullptr), m_hService(nullptr) {}
    virtual ~Base();

protected:
    SC_HANDLE m_hSCManager;
    SC_HANDLE m_hService;

private:
    Base(const Base&);
    Base& operator=(const Base&);
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
