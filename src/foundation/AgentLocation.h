#pragma once

#include <string>

// Where the session agent lives, as Session_Agent.ini in the platform directory strPlatformDir says:
// its directory <platform>\<Path> and its file <platform>\<Path>\<Name>. False, with the outputs
// unchanged, when the file lacks either key or leaves it empty.
bool ReadAgentLocation(const std::wstring& strPlatformDir, std::wstring& strAgentDir,
                       std::wstring& strAgentPath);
