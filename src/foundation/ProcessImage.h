#pragma once

#include <windows.h>

#include <string>

// The full path of a process's image, whatever its length (the buffer grows until it fits). False
// when the process cannot be queried; strPath is then left as it was.
bool GetProcessImagePath(HANDLE hProcess, std::wstring& strPath);
