#include "foundation/logging.h"

#include <process.h>
#include <stdio.h>
#include <time.h>

#include <string>

namespace {

// Constructed in this order and destroyed in the reverse one: the lock goes before the logger.
logging<wchar_t> g_logger;
CSLock g_logLock;

// The file is UTF-8 without a byte-order mark: every character of a line reaches the file,
// whatever the user's names and paths hold.
std::string ToUtf8(const wchar_t* pszText) {
    const int nChars = static_cast<int>(wcslen(pszText));
    if (nChars == 0) {
        return std::string();
    }
    const int nBytes = WideCharToMultiByte(CP_UTF8, 0, pszText, nChars, nullptr, 0, nullptr, nullptr);
    if (nBytes <= 0) {
        return std::string();
    }
    std::string strUtf8(static_cast<size_t>(nBytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, pszText, nChars, &strUtf8[0], nBytes, nullptr, nullptr);
    return strUtf8;
}

FILE* OpenForAppend(const std::wstring& strPath) {
    FILE* pFile = nullptr;
    if (_wfopen_s(&pFile, strPath.c_str(), L"at") != 0) {
        return nullptr;
    }
    return pFile;
}

}  // namespace

logging<wchar_t>& GetLogger() { return g_logger; }

CSLock& GetLogLock() { return g_logLock; }

logging<wchar_t>::logging()
    : m_settings{20, std::wstring()},
      m_stream10(&m_settings),
      m_stream20(&m_settings),
      m_stream30(&m_settings),
      m_stream40(&m_settings),
      m_stream50(&m_settings) {
    set_level(20);
}

logging<wchar_t>::~logging() { m_settings.strFile.clear(); }

void logging<wchar_t>::set_level(INT32 nLevel) { m_settings.nThreshold = nLevel; }

void logging<wchar_t>::set_file(const wchar_t* pszPath) {
    if (pszPath == nullptr) {
        m_settings.strFile.clear();
    } else {
        m_settings.strFile = pszPath;
    }
}

void write_line(const log_settings* pSettings, INT32 nLevel, const wchar_t* pszText) {
    if (nLevel < pSettings->nThreshold) {
        return;
    }
    if (pSettings->strFile.empty()) {
        OutputDebugStringW(pszText);
        return;
    }

    // The file is opened and closed for every line, so nothing is held between lines and a
    // process killed right after a statement has lost nothing of it.
    FILE* pFile = OpenForAppend(pSettings->strFile);
    if (pFile == nullptr) {
        return;
    }
    fseek(pFile, 0, SEEK_END);
    const long nSize = ftell(pFile);
    if (nSize > LOG_FILE_SIZE_LIMIT) {
        fclose(pFile);
        if (_wremove(pSettings->strFile.c_str()) == -1) {
            // The file could not be deleted (another program holds it): move it aside.
            const std::wstring strAside = pSettings->strFile + std::to_wstring(_time64(nullptr));
            _wrename(pSettings->strFile.c_str(), strAside.c_str());
        }
        pFile = OpenForAppend(pSettings->strFile);
        if (pFile == nullptr) {
            return;
        }
    }
    fputs(ToUtf8(pszText).c_str(), pFile);
    fflush(pFile);
    fclose(pFile);
}

CLogStatement::CLogStatement(const char* pszSource, int nLine, bool bError) : m_guard(&GetLogLock()) {
    const __time64_t tNow = _time64(nullptr);
    char szTime[32] = {};
    std::string strTime;
    if (_ctime64_s(szTime, sizeof(szTime), &tNow) == 0) {
        strTime = szTime;
        if (!strTime.empty()) {
            strTime.erase(strTime.size() - 1);  // ctime ends its text with a newline
        }
    }

    std::wostream& os = GetLogger().stream20();
    os << L'[';
    for (const char c : strTime) {
        os << static_cast<wchar_t>(static_cast<unsigned char>(c));
    }
    os << L"][" << _getpid() << L"][Pellisk][.\\";
    // The source field is the file's name without its extension, as in [.\QoWatchDog].
    for (const char* p = pszSource; *p != '\0' && *p != '.'; ++p) {
        os << static_cast<wchar_t>(static_cast<unsigned char>(*p));
    }
    os << L"][" << nLine << L']' << (bError ? L"[ERROR]" : L"[INFO]");
}
