#pragma once

#include <windows.h>

#include <string>

// What a session agent monitor needs of the watchdog that hosts it.
class IMonitorHost {
public:
    // The manual-reset event on which every monitor ends once its agents have ended.
    virtual HANDLE GetCloseEvent() const = 0;
    // The agent's full path and the directory it runs in.
    virtual const std::wstring& GetAgentPath() const = 0;
    virtual const std::wstring& GetWorkingPath() const = 0;
    // The most agents one monitor starts and watches.
    virtual DWORD GetAgentLimit() = 0;
    // A monitor holds its host from its construction until its thread has ended.
    virtual void MonitorCreated() = 0;
    // The monitor of this index has ended: the host removes it, which normally destroys it, and
    // gives up the monitor's hold.
    virtual void MonitorEnded(DWORD dwIndex) = 0;

protected:
    virtual ~IMonitorHost() {}
};
