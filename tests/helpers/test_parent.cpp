// test_parent.exe: stands in for the host process that starts the watchdog. It only lives: it waits on
// its own exit event (kParentExitEventPrefix + its pid) and ends with 0 when a test sets it. A test
// may as well terminate it.
#include <windows.h>

#include <string>

#include "test_agent_protocol.h"

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
    const std::wstring name = qotest::kParentExitEventPrefix + std::to_wstring(GetCurrentProcessId());
    HANDLE exitEvent = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    if (exitEvent == nullptr) {
        return 2;
    }
    const DWORD waited = WaitForSingleObject(exitEvent, INFINITE);
    CloseHandle(exitEvent);
    return waited == WAIT_OBJECT_0 ? 0 : 3;
}
