#include "foundation/CRegKey.h"

#include <new>

#include <boost/shared_ptr.hpp>

LONG CRegKey::Open(HKEY hParent, const wchar_t* pszSubKey, REGSAM samDesired) {
    CRegKeyHandle key;
    LONG lResult = RegOpenKeyExW(hParent, pszSubKey, 0, samDesired | KEY_WOW64_64KEY, key.Receive());
    if (lResult != ERROR_SUCCESS) {
        lResult = RegOpenKeyExW(hParent, pszSubKey, 0, samDesired, key.Receive());
    }
    if (lResult != ERROR_SUCCESS) {
        return lResult;
    }
    m_hKey.Reset(key.Release());
    return ERROR_SUCCESS;
}

LONG CRegKey::Close() {
    // The close's own status is the result, so the key leaves its owner to be closed here.
    return m_hKey.IsValid() ? RegCloseKey(m_hKey.Release()) : ERROR_SUCCESS;
}

LONG CRegKey::QueryValue(const wchar_t* pszName, std::wstring& strOut) {
    DWORD cbData = 0;
    LONG lResult = RegQueryValueExW(m_hKey.Get(), pszName, nullptr, nullptr, nullptr, &cbData);
    if (lResult != ERROR_SUCCESS) {
        return lResult;
    }
    // One spare byte so that an empty value still gets a buffer of its own.
    boost::shared_ptr<BYTE[]> shpData(new (std::nothrow) BYTE[cbData + 1]);
    if (!shpData) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    lResult = RegQueryValueExW(m_hKey.Get(), pszName, nullptr, nullptr, shpData.get(), &cbData);
    if (lResult != ERROR_SUCCESS) {
        return lResult;
    }
    // The data need not end with a NUL: take the returned bytes only, up to the first NUL.
    const wchar_t* pszText = reinterpret_cast<const wchar_t*>(shpData.get());
    const size_t nMaxChars = cbData / sizeof(wchar_t);
    size_t nChars = 0;
    while (nChars < nMaxChars && pszText[nChars] != L'\0') {
        ++nChars;
    }
    strOut.assign(pszText, nChars);
    return ERROR_SUCCESS;
}

LONG CRegKey::QueryDword(const wchar_t* pszName, DWORD& dwOut, DWORD* pdwType) {
    DWORD dwType = REG_NONE;
    DWORD dwValue = 0;
    DWORD cbData = sizeof(dwValue);
    const LONG lResult =
        RegQueryValueExW(m_hKey.Get(), pszName, nullptr, &dwType, reinterpret_cast<BYTE*>(&dwValue), &cbData);
    if (pdwType != nullptr) {
        *pdwType = dwType;
    }
    if (lResult != ERROR_SUCCESS && lResult != ERROR_MORE_DATA) {
        return lResult;
    }
    if (lResult == ERROR_MORE_DATA || dwType != REG_DWORD || cbData != sizeof(dwValue)) {
        return ERROR_DATATYPE_MISMATCH;
    }
    dwOut = dwValue;
    return ERROR_SUCCESS;
}

LONG CRegKey::SetValue(const wchar_t* pszName, const wchar_t* pszText) {
    if (pszText == nullptr || !m_hKey.IsValid()) {
        return ERROR_INVALID_DATA;
    }
    const DWORD cbData = static_cast<DWORD>((wcslen(pszText) + 1) * sizeof(wchar_t));
    return RegSetValueExW(m_hKey.Get(), pszName, 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(pszText),
                          cbData);
}
