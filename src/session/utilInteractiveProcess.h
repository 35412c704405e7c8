#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

// The watchdog's own variables that every launched process gets, replacing the user's.
extern const wchar_t* const g_pszCopiedVariables[4];

// A user's environment as editable NAME=VALUE entries, laid out on demand as one Unicode block.
class CEnvBlock : private boost::noncopyable {
public:
    // Builds the environment of the user whom hToken represents; stays empty when the system
    // cannot build it.
    CEnvBlock(HANDLE hToken, BOOL bInherit);
    virtual ~CEnvBlock() {}

    // Puts value in front of the list-valued variable name (found in any letter case, keeping the
    // entry's own spelling of the name). False when the variable is not there: nothing is added.
    bool PrependValue(const wchar_t* name, const wchar_t* value);
    // Replaces every entry of the variable, or appends one when there is none.
    void SetVariable(const wchar_t* name, const wchar_t* value);
    // The entries laid out as a block ending in two NULs; valid until the next call or the end of
    // the object. Null when the buffer cannot be allocated.
    void* GetBlock();

    const std::vector<std::wstring>& GetEntries() const { return m_vecEntries; }
    INT32 GetSize() const { return m_cbSize; }

private:
    INT32 m_cbSize;
    std::vector<std::wstring> m_vecEntries;
    boost::shared_ptr<BYTE[]> m_block;
};

// Starts lpApplicationName as the user of hToken on winsta0\default, with the user's environment
// (the watchdog's directory in front of its Path, the program-files variables copied), in
// lpCurrentDirectory. On success the caller owns *phProcess. hToken must allow duplication,
// impersonation and query; it is neither closed nor kept.
BOOL LaunchInteractiveProcess(HANDLE hToken, HANDLE* phProcess, LPWSTR lpApplicationName,
                              LPCWSTR lpCurrentDirectory);
