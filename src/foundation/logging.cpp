#include "foundation/logging.h"

#include <process.h>
#include <sddl.h>
#include <time.h>

#include <sstream>
#include <string>

#include "foundation/Contract.h"
#include "foundation/NeverDestroyed.h"
#include "foundation/ScopedHandle.h"

CNeverDestroyedLock g_logLock;

namespace {

CNeverDestroyed<logging<wchar_t>> g_logger;

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
// cut and append - holds this mutex. It is open to every session's processes, so any of them can
// hold it for good: a turn waits for it at most LOG_WRITER_WAIT_MS, and after one such wait the
// writer no longer waits until it has the mutex again. Without it lines are still written, just
// without the guard.
const wchar_t LOG_WRITER_MUTEX[] = QO_WATCH_DOG_LOG_WRITER_MUTEX;
const wchar_t LOG_WRITER_SDDL[] = L"D:(A;;GA;;;WD)(A;;GA;;;SY)";
const DWORD LOG_WRITER_WAIT_MS = 2000;

HANDLE CreateLogWriterMutex() {
    CLocalMemory descriptor;
    ConvertStringSecurityDescriptorToSecurityDescriptorW(LOG_WRITER_SDDL, SDDL_REVISION_1,
                                                         descriptor.Receive(), nullptr);
    SECURITY_ATTRIBUTES sa = {sizeof(SECURITY_ATTRIBUTES), descriptor.Get(), FALSE};
    HANDLE hMutex = CreateMutexW(&sa, FALSE, LOG_WRITER_MUTEX);
    return hMutex != nullptr ? hMutex : OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, LOG_WRITER_MUTEX);
}

// Kept open for the life of the process, whose end closes it: threads may log until then.
HANDLE LogWriterMutex() {
    static const HANDLE s_hMutex = CreateLogWriterMutex();
    return s_hMutex;
}

// Set while another process keeps the mutex past the bounded wait; read and written under the log
// lock only.
bool g_bWriterMutexStuck = false;

// Holds the writers' mutex for one line; an owner that died mid-line leaves it abandoned, which
// still hands it over. Past the bounded wait the line goes out without it.
class CLogWriterTurn : private boost::noncopyable {
public:
    explicit CLogWriterTurn(HANDLE hMutex) : m_hMutex(nullptr) {
        if (hMutex == nullptr) {
            return;
        }
        const DWORD dwWait = WaitForSingleObject(hMutex, g_bWriterMutexStuck ? 0 : LOG_WRITER_WAIT_MS);
        if (dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED) {
            m_hMutex = hMutex;
            g_bWriterMutexStuck = false;
        } else if (!g_bWriterMutexStuck) {
            g_bWriterMutexStuck = true;
            m_bJustStuck = true;
        }
    }
    virtual ~CLogWriterTurn() {
        if (m_hMutex != nullptr) {
            ReleaseMutex(m_hMutex);
        }
    }
    // True for the one turn that found the mutex held past the wait.
    bool JustStuck() const { return m_bJustStuck; }

private:
    HANDLE m_hMutex;
    bool m_bJustStuck = false;
};

// Opened for appending, sharing reading and writing: log viewers and the other watchdog processes
// may hold the file open meanwhile.
HANDLE OpenForAppend(const std::wstring& strPath) {
    return CreateFileW(strPath.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}

// A debug folder that has gone since start-up is created again, as at start-up, before the line.
HANDLE OpenLog(const std::wstring& strPath) {
    HANDLE hFile = OpenForAppend(strPath);
    if (hFile == INVALID_HANDLE_VALUE && GetLastError() == ERROR_PATH_NOT_FOUND &&
        CreateDirectoryW(strPath.substr(0, strPath.find_last_of(L'\\')).c_str(), nullptr)) {
        hFile = OpenForAppend(strPath);
    }
    return hFile;
}

// A line that was not written whole is cut off again, so the next line starts at a line start.
void CutBack(const std::wstring& strPath, const LARGE_INTEGER& size) {
    const CKernelHandle file(CreateFileW(strPath.c_str(), FILE_WRITE_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.IsValid() && SetFilePointerEx(file.Get(), size, nullptr, FILE_BEGIN)) {
        SetEndOfFile(file.Get());
    }
}

// What this process could not write, under the log lock: the lines lost since its last written
// line and the last error met, the lines written so far, and a writers'-mutex notice not yet told.
unsigned long long g_nLostLines = 0;
DWORD g_dwLostError = 0;
unsigned long long g_nWrittenLines = 0;
bool g_bStuckNoticePending = false;

// A line of the log's own, as a log statement of this file writes it.
template <QoLog::EMsg E, class... Fields>
std::wstring OwnLine(QoLog::Msg<E> message, const Fields&... fields) {
    std::wostringstream line;
    line << CLogStatement::Head(LogSourceName(__FILE__), __LINE__, QoLog::Message(E).bError);
    QoLog::WriteMessage(line, message, fields...);
    line << L"\n";
    return line.str();
}

}  // namespace

logging<wchar_t>& GetLogger() { return g_logger.Get(); }

logging<wchar_t>::logging()
    : m_settings{20, std::wstring()},
      m_stream10(&m_settings),
      m_stream20(&m_settings),
      m_stream30(&m_settings),
      m_stream40(&m_settings),
      m_stream50(&m_settings) {}

logging<wchar_t>::~logging() { m_settings.strFile.clear(); }

void logging<wchar_t>::set_level(INT32 nLevel) { m_settings.nThreshold = nLevel; }

std::wostream& logging<wchar_t>::begin_line20() {
    m_stream20.discard();
    return m_stream20;
}

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
    // process killed right after a statement has lost nothing of it. A line that cannot be written
    // is counted, and the next line that can be is preceded by the count.
    const CLogWriterTurn turn(LogWriterMutex());
    g_bStuckNoticePending = g_bStuckNoticePending || turn.JustStuck();
    CKernelHandle file(OpenLog(pSettings->strFile));
    LARGE_INTEGER size = {};  // the length before the line: where a line not written whole is cut
    bool bSized = file.IsValid() && GetFileSizeEx(file.Get(), &size);
    if (bSized && size.QuadPart > LOG_FILE_SIZE_LIMIT) {
        file.Close();
        if (!DeleteFileW(pSettings->strFile.c_str())) {
            // The file could not be deleted (another program holds it): move it aside.
            const std::wstring strAside = pSettings->strFile + std::to_wstring(_time64(nullptr));
            MoveFileW(pSettings->strFile.c_str(), strAside.c_str());
        }
        file.Reset(OpenLog(pSettings->strFile));
        bSized = file.IsValid() && GetFileSizeEx(file.Get(), &size);
    }
    if (!bSized) {
        ++g_nLostLines;
        g_dwLostError = GetLastError();
        return;
    }
    std::wstring strLines;
    if (g_nLostLines > 0) {
        strLines = OwnLine(QoMsg::LINES_LOST, g_nLostLines, g_dwLostError);
    }
    strLines += pszText;
    // The notice follows the line that waited, but never comes before a process's second line,
    // which tells why the log is where it is.
    const bool bNotice = g_bStuckNoticePending && g_nWrittenLines > 0;
    if (bNotice) {
        strLines += OwnLine(QoMsg::WRITER_MUTEX_HELD, LOG_WRITER_MUTEX, LOG_WRITER_WAIT_MS);
    }
    const std::string strText = ToFileText(strLines.c_str());
    DWORD cbWritten = 0;
    const BOOL bWritten =
        WriteFile(file.Get(), strText.data(), static_cast<DWORD>(strText.size()), &cbWritten, nullptr);
    if (!bWritten || cbWritten != strText.size()) {
        // A full disk writes part of it, or nothing. Written without the writers' mutex, the cut
        // may take a line another process appended meanwhile.
        g_dwLostError = bWritten ? static_cast<DWORD>(ERROR_DISK_FULL) : GetLastError();
        file.Close();
        CutBack(pSettings->strFile, size);
        ++g_nLostLines;
        return;
    }
    g_nLostLines = 0;
    ++g_nWrittenLines;
    g_bStuckNoticePending = g_bStuckNoticePending && !bNotice;
}

std::wstring CLogStatement::Head(const char* pszSource, int nLine, bool bError) {
    const __time64_t tNow = _time64(nullptr);
    char szTime[32] = {};
    std::string strTime;
    if (_ctime64_s(szTime, sizeof(szTime), &tNow) == 0) {
        strTime = szTime;
        if (!strTime.empty()) {
            strTime.erase(strTime.size() - 1);  // ctime ends its text with a newline
        }
    }
    std::wstring strHead = L"[" + std::wstring(strTime.begin(), strTime.end()) + L"][" +
                           std::to_wstring(_getpid()) + L"][Pellisk][.\\";
    // The source field is the file's name without its extension, as in [.\QoWatchDog].
    for (const char* p = pszSource; *p != '\0' && *p != '.'; ++p) {
        strHead += static_cast<wchar_t>(static_cast<unsigned char>(*p));
    }
    return strHead + L"][" + std::to_wstring(nLine) + L"]" + (bError ? L"[ERROR]" : L"[INFO]");
}

CLogStatement::CLogStatement(const char* pszSource, int nLine, bool bError) : m_guard(&g_logLock.Get()) {
    GetLogger().begin_line20() << Head(pszSource, nLine, bError);
}
