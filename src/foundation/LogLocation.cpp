#include "foundation/LogLocation.h"

#include <windows.h>

#include <stdlib.h>

#include "foundation/Contract.h"
#include "foundation/ScopedHandle.h"

namespace {

const DWORD INSTALL_DIR_CHARS = 261;

// The value's text from the bytes the registry returned, up to the first NUL within them.
std::wstring TextOf(const wchar_t* pszBuffer, DWORD cbData) {
    const size_t nMax = cbData / sizeof(wchar_t);
    size_t n = 0;
    while (n < nMax && pszBuffer[n] != L'\0') {
        ++n;
    }
    return std::wstring(pszBuffer, n);
}

}  // namespace

bool ReadDebugLogDirectory(std::wstring& strDir, std::wstring& strMessage) {
    strMessage.clear();
    CRegKeyHandle key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, REG_KELD_KEY, 0, KEY_READ, key.Receive()) != ERROR_SUCCESS) {
        strMessage += L"RegOpenKeyExW failed. GetLastError=" + std::to_wstring(GetLastError());
        return false;
    }
    wchar_t szInstallDir[INSTALL_DIR_CHARS] = {};
    DWORD cbData = sizeof(szInstallDir);
    const LONG lQuery = RegQueryValueExW(key.Get(), REG_VALUE_INSTALL_DIR, nullptr, nullptr,
                                         reinterpret_cast<BYTE*>(szInstallDir), &cbData);
    const DWORD dwQueryErr = GetLastError();
    key.Close();
    if (lQuery != ERROR_SUCCESS || cbData == 0) {
        strMessage += L"RegQueryValueW failed. GetLastError=" + std::to_wstring(dwQueryErr);
        return false;
    }
    // The bytes returned bound the text, whether or not the value ends with a NUL.
    strDir = TextOf(szInstallDir, cbData);
    if (strDir.empty()) {
        strMessage += L"InstallDir is empty";
        return false;
    }
    if (strDir.back() != L'\\') {
        strDir += L'\\';
    }
    strDir += L"debug";
    return true;
}

// The log directory when the platform's debug directory cannot be had: TEMP, and when that is
// not set, whatever the system names as its temporary directory.
std::wstring FallbackLogDirectory() {
    const wchar_t* pszTemp = _wgetenv(L"TEMP");
    if (pszTemp != nullptr && *pszTemp != L'\0') {
        return pszTemp;
    }
    wchar_t szTemp[MAX_PATH + 1] = {};
    const DWORD n = GetTempPathW(MAX_PATH + 1, szTemp);
    return (n > 0 && n <= MAX_PATH) ? std::wstring(szTemp) : std::wstring();
}
