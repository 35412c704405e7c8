// Sessions for processes: Wine runs every process in session 1, so the component tests and the
// benchmark link SessionTable.cpp as the watchdog's lookup of a process's session and give chosen
// processes (stand-in shells) the sessions a terminal server would. Any other process id gets the
// system's answer.
#pragma once

#include <windows.h>

namespace qt {

void SetSession(DWORD pid, DWORD session);
void ForgetSession(DWORD pid);  // back to the system's answer

}  // namespace qt
