#pragma once

#include <string>

// Where the watchdog's log goes: InstallDir\debug of the platform (HKLM SOFTWARE\Corvane\Keld),
// else the fallback directory. Both the watchdog and QoWatchCtl follow these rules.

// InstallDir\debug as the registry names it, without looking at the disk. False, with strMessage
// saying why (the log's texts), when the key or the value cannot be read or the value is empty.
bool ReadDebugLogDirectory(std::wstring& strDir, std::wstring& strMessage);

// The log directory when the platform's debug directory cannot be had: TEMP, and when that is
// not set, whatever the system names as its temporary directory.
std::wstring FallbackLogDirectory();
