#pragma once

#include <windows.h>

#include <string>

#include <boost/noncopyable.hpp>

#include "foundation/ScopedHandle.h"

// Owner of at most one open registry key. Results are Win32 status codes.
class CRegKey : private boost::noncopyable {
public:
    CRegKey() {}
    virtual ~CRegKey() {}

    // Asks for the 64-bit view first and, failing that, for the key as the access alone gives it.
    // On failure the key held so far stays held.
    LONG Open(HKEY hParent, const wchar_t* pszSubKey, REGSAM samDesired);
    LONG Close();
    // The value's text up to its first NUL, as stored (REG_EXPAND_SZ references unexpanded).
    // The output is changed only on success.
    LONG QueryValue(const wchar_t* pszName, std::wstring& strOut);
    // A REG_DWORD value; ERROR_DATATYPE_MISMATCH for a value of another type or size, whose type then
    // goes to *pdwType when given. The output is changed only on success.
    LONG QueryDword(const wchar_t* pszName, DWORD& dwOut, DWORD* pdwType = nullptr);
    // Stores the text as REG_EXPAND_SZ, whatever the value's type was before.
    LONG SetValue(const wchar_t* pszName, const wchar_t* pszText);

    HKEY GetHandle() const { return m_hKey.Get(); }

private:
    CRegKeyHandle m_hKey;
};
