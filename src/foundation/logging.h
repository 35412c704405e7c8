#pragma once

#include <windows.h>

#include <ostream>
#include <sstream>
#include <string>

#include <boost/noncopyable.hpp>

#include "foundation/CSLock.h"
#include "foundation/LogMessages.h"

// The process-wide log. A statement builds one line in a wide string stream; the end of the line
// flushes the stream, and its buffer hands the finished line to write_line, which appends it to
// the log file (or, while no file is set, passes it to the debugger).

// The settings every stream buffer refers to; owned by the logger.
struct log_settings {
    INT32 nThreshold;
    std::wstring strFile;
};

// Writes one finished line at the given level: to the log file, cutting the file back when it
// has grown past its size limit, or to the debugger output while no file is set.
void write_line(const log_settings* pSettings, INT32 nLevel, const wchar_t* pszText);

// A file that has grown past this many bytes is replaced before the next line is written.
const long LOG_FILE_SIZE_LIMIT = 10000000;

template <INT32 L>
class log_stringbuf : public std::wstringbuf {
public:
    explicit log_stringbuf(const log_settings* pSettings)
        : std::wstringbuf(std::ios_base::in | std::ios_base::out), m_pSettings(pSettings) {}
    ~log_stringbuf() override { WritePending(); }

protected:
    int sync() override {
        WritePending();
        return 0;
    }

private:
    // What the stream holds goes out as one line; not virtual, so the destructor writes it too.
    void WritePending() {
        const std::wstring strText = str();
        if (!strText.empty()) {
            write_line(m_pSettings, L, strText.c_str());
        }
        str(std::wstring());
    }

private:
    const log_settings* m_pSettings;
};

template <INT32 L>
class log_stream : public std::wostream {
public:
    explicit log_stream(const log_settings* pSettings) : std::wostream(nullptr), m_buf(pSettings) {
        rdbuf(&m_buf);
    }
    ~log_stream() override { rdbuf(nullptr); }

    // Drops any text not yet written and clears the stream's error state.
    void discard() {
        m_buf.str(std::wstring());
        clear();
    }

private:
    log_stringbuf<L> m_buf;
};

template <class CharT>
class logging;

template <>
class logging<wchar_t> : private boost::noncopyable {
public:
    logging();
    // Forgets the file first, so text still pending in a stream goes to the debugger output.
    virtual ~logging();

    virtual void set_level(INT32 nLevel);
    // Copies the path; a null pointer empties it, and lines go to the debugger output again.
    virtual void set_file(const wchar_t* pszPath);

    std::wostream& stream20() { return m_stream20; }
    // The level-20 stream emptied and in a good state: a statement that failed half-way (a failed
    // allocation, say) leaves neither an error state nor half a line for the next one.
    std::wostream& begin_line20();
    const std::wstring& file() const { return m_settings.strFile; }

private:
    log_settings m_settings;
    log_stream<10> m_stream10;
    log_stream<20> m_stream20;
    log_stream<30> m_stream30;
    log_stream<40> m_stream40;
    log_stream<50> m_stream50;
};

logging<wchar_t>& GetLogger();
// The log's lock, held by every log statement: the innermost lock, taken after any other.
extern CNeverDestroyedLock g_logLock;

// The log's source field: the bare file name of a source path, without directories.
constexpr const char* LogSourceName(const char* pszPath) {
    const char* pszName = pszPath;
    for (const char* p = pszPath; *p != '\0'; ++p) {
        if (*p == '/' || *p == '\\') {
            pszName = p + 1;
        }
    }
    return pszName;
}

// One log statement: holds the log lock from before the time stamp until its line is written,
// so lines of different threads never mix.
class CLogStatement : private boost::noncopyable {
public:
    CLogStatement(const char* pszSource, int nLine, bool bError);
    virtual ~CLogStatement() {}

    std::wostream& Stream() { return GetLogger().stream20(); }

    // The line's head, as the statement's first text: [time][pid][Pellisk][.\source][line][LEVEL].
    static std::wstring Head(const char* pszSource, int nLine, bool bError);

private:
    Guard<CSLock> m_guard;
};

// Writes one message of the catalogue with its fields; a statement never fails its caller: what it
// cannot write (no memory for the text) is lost. The fields are evaluated before the log lock is taken.
template <QoLog::EMsg E, class... Fields>
void LogMessage(const char* pszSource, int nLine, QoLog::Msg<E> message, const Fields&... fields) {
    try {
        CLogStatement statement(pszSource, nLine, QoLog::Message(E).bError);
        QoLog::WriteMessage(statement.Stream(), message, fields...);
        statement.Stream() << std::endl;
    } catch (...) {
    }
}

// QO_LOG(QoMsg::AGENT_CREATED, dwPid): the message at its own level, its fields in order.
#define QO_LOG(...) LogMessage(LogSourceName(__FILE__), __LINE__, __VA_ARGS__)

// A failed Win32 call, right after it: the thread's last error is read before anything else can
// change it and written as the message's last field.
#define QO_LOG_LAST_ERROR(...)                    \
    do {                                          \
        const DWORD qoLastError = GetLastError(); \
        QO_LOG(__VA_ARGS__, qoLastError);         \
    } while (false)
