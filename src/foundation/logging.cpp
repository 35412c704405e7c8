#include "foundation/logging.h"

#include <process.h>
#include <sddl.h>
#include <time.h>

#include <string>

#include "foundation/ScopedHandle.h"

namespace {

// Constructed in this order and destroyed in the reverse one: the lock goes before the logger.
logging<wchar_t> g_logger;
CSLock g_logLock;

// The file is UTF-8 without a byte-order mark, with CR LF line ends: every character of a line
// reaches the file, whatever the user's names and paths hold.
std::string ToFileText(const wchar_t* pszText) {
    const int nChars = static_cast<int>(wcslen(pszText));
    std::string strUtf8;
    if (nChars > 0) {
        const int nBytes = WideCharToMultiByte(CP_UTF8, 0, pszText, nChars, nullptr, 0, nullptr, nullptr);
        if (nBytes > 0) {
            strUtf8.resize(static_cast<size_t>(nBytes));
            WideCharToMultiByte(CP_UTF8, 0, pszText, nChars, &strUtf8[0], nBytes, nullptr, nullptr);
        }
    }
    std::string strText;
    strText.reserve(strUtf8.size() + 2);
    for (const char c : strUtf8) {
        if (c == '\n') {
            strText += '\r';
        }
        strText += c;
    }
    return strText;
}

// The supervisor and the run-key instances write the same log. Appends from several processes
// are not atomic everywhere (Wine loses and tears lines), so each line's whole turn - size check,
// cut and append - holds this mutex. It is open to every session's processes; without it (when it
// cannot be had) lines are still written, just without the guard.
const wchar_t LOG_WRITER_MUTEX[] = L"Global\\QO_WATCH_DOG_LOG_WRITER";
const wchar_t LOG_WRITER_SDDL[] = L"D:(A;;GA;;;WD)(A;;GA;;;SY)";

HANDLE CreateLogWriterMutex() {
    PSECURITY_DESCRIPTOR pDescriptor = nullptr;
    ConvertStringSecurityDescriptorToSecurityDescriptorW(LOG_WRITER_SDDL, SDDL_REVISION_1, &pDescriptor,
                                                         nullptr);
    SECURITY_ATTRIBUTES sa = {sizeof(SECURITY_ATTRIBUTES), pDescriptor, FALSE};
    HANDLE hMutex = CreateMutexW(&sa, FALSE, LOG_WRITER_MUTEX);
    if (hMutex == nullptr) {
        hMutex = OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, LOG_WRITER_MUTEX);
    }
    if (pDescriptor != nullptr) {
        LocalFree(pDescriptor);
    }
    return hMutex;
}

HANDLE LogWriterMutex() {
    static const CScopedHandle s_mutex(CreateLogWriterMutex());
    return s_mutex.Get();
}

// Holds the writers' mutex for one line; an owner that died mid-line leaves it abandoned, which
// still hands it over.
class CLogWriterTurn : private boost::noncopyable {
public:
    explicit CLogWriterTurn(HANDLE hMutex) : m_hMutex(nullptr) {
        if (hMutex != nullptr) {
            const DWORD dwWait = WaitForSingleObject(hMutex, INFINITE);
            if (dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED) {
                m_hMutex = hMutex;
            }
        }
    }
    ~CLogWriterTurn() {
        if (m_hMutex != nullptr) {
            ReleaseMutex(m_hMutex);
        }
    }

private:
    HANDLE m_hMutex;
};

// Opened for appending, sharing reading and writing: log viewers and the other watchdog processes
// may hold the file open meanwhile.
HANDLE OpenForAppend(const std::wstring& strPath) {
    return CreateFileW(strPath.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
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
    const CLogWriterTurn turn(LogWriterMutex());
    CScopedHandle file(OpenForAppend(pSettings->strFile));
    if (!file.IsValid()) {
        return;  // lost; the next line tries again
    }
    LARGE_INTEGER size = {};
    if (GetFileSizeEx(file.Get(), &size) && size.QuadPart > LOG_FILE_SIZE_LIMIT) {
        file.Close();
        if (!DeleteFileW(pSettings->strFile.c_str())) {
            // The file could not be deleted (another program holds it): move it aside.
            const std::wstring strAside = pSettings->strFile + std::to_wstring(_time64(nullptr));
            MoveFileW(pSettings->strFile.c_str(), strAside.c_str());
        }
        file.Reset(OpenForAppend(pSettings->strFile));
        if (!file.IsValid()) {
            return;
        }
    }
    const std::string strText = ToFileText(pszText);
    DWORD cbWritten = 0;
    WriteFile(file.Get(), strText.data(), static_cast<DWORD>(strText.size()), &cbWritten, nullptr);
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
