#include "foundation/AgentLocation.h"

#include <windows.h>

#include "foundation/Contract.h"

namespace {

// Each key's text is read into a buffer of this many characters.
const DWORD INI_TEXT_CHARS = 260;

}  // namespace

bool ReadAgentLocation(const std::wstring& strPlatformDir, std::wstring& strAgentDir,
                       std::wstring& strAgentPath) {
    std::wstring strIni = strPlatformDir;
    if (strIni.empty() || strIni.back() != L'\\') {
        strIni += L'\\';
    }
    strIni += SESSION_AGENT_INI;
    wchar_t szPath[INI_TEXT_CHARS] = {};
    wchar_t szName[INI_TEXT_CHARS] = {};
    GetPrivateProfileStringW(SESSION_AGENT_SECTION, SESSION_AGENT_KEY_PATH, L"", szPath, INI_TEXT_CHARS,
                             strIni.c_str());
    GetPrivateProfileStringW(SESSION_AGENT_SECTION, SESSION_AGENT_KEY_NAME, L"", szName, INI_TEXT_CHARS,
                             strIni.c_str());
    if (szPath[0] == L'\0' || szName[0] == L'\0') {
        return false;
    }
    strAgentDir = strPlatformDir + L"\\" + szPath;
    strAgentPath = strAgentDir + L"\\" + szName;
    return true;
}
