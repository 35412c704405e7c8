// Reads the watchdog's log into records, and waits for lines to appear in it.
//
// A log line has exactly this form (UTF-8, CR LF line ends, no byte-order mark):
//   [Mon Nov 16 20:00:32 2026][2140][Pellisk][.\utilWinUserSession][100][ERROR]CreateToolhelp32Snapshot Err=5
//   [<ctime text, 24 chars>][<pid>][Pellisk][.\<source>][<line>][INFO|ERROR]<message>
// The message is the rest of the line and may hold anything, ']' included. A line of any other form
// is kept as malformed, so a test can assert there is none.
#pragma once

#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qotest {

struct LogRecord {
    std::string time;     // the 24 characters of ctime text, e.g. "Mon Nov 16 20:00:32 2026"
    DWORD pid = 0;        // the writing process
    std::string tag;      // "Pellisk"
    std::string source;   // e.g. ".\utilWinUserSession"
    unsigned line = 0;    // the source line
    std::string level;    // "INFO" or "ERROR"
    std::string message;  // everything after the level, UTF-8
    size_t fileLine = 0;  // 1-based number of the line in the file

    bool IsError() const { return level == "ERROR"; }
    bool MessageStartsWith(const std::string& prefix) const {
        return message.compare(0, prefix.size(), prefix) == 0;
    }
    bool MessageContains(const std::string& text) const { return message.find(text) != std::string::npos; }
};

struct MalformedLine {
    size_t fileLine = 0;  // 1-based
    std::string text;     // the line without its line end
    std::string reason;   // what is wrong with it
};

using LogPredicate = std::function<bool(const LogRecord&)>;
LogPredicate MessageStartsWith(const std::string& prefix);

// A log file read at one moment.
class LogFile {
public:
    static constexpr size_t npos = static_cast<size_t>(-1);

    // Parses the whole content of a log file.
    static LogFile Parse(const std::string& content);
    // Reads and parses the file; a missing file gives an empty log with exists() false.
    static LogFile Read(const std::wstring& path);

    bool exists() const { return exists_; }
    const std::vector<LogRecord>& records() const { return records_; }
    const std::vector<MalformedLine>& malformed() const { return malformed_; }
    // Text after the last line end: a line still being written. Not parsed.
    const std::string& unfinishedTail() const { return tail_; }

    std::vector<LogRecord> Where(const LogPredicate& predicate) const;
    std::vector<LogRecord> Containing(const std::string& text) const;
    size_t Count(const LogPredicate& predicate) const;
    size_t CountPrefix(const std::string& messagePrefix) const;
    size_t CountContaining(const std::string& text) const;

    // Index in records() of the first match at or after `from`; npos when there is none.
    size_t IndexOf(const LogPredicate& predicate, size_t from = 0) const;
    size_t IndexOfPrefix(const std::string& messagePrefix, size_t from = 0) const;
    // The first match, or nullptr.
    const LogRecord* First(const LogPredicate& predicate) const;
    const LogRecord* FirstWithPrefix(const std::string& messagePrefix) const;

    // True when records with these message prefixes appear in this order, each after the previous.
    bool InOrder(const std::vector<std::string>& messagePrefixes) const;

    // The malformed lines, one a line with its number and reason; empty when there are none.
    std::string DescribeMalformed() const;

private:
    bool exists_ = false;
    std::string tail_;
    std::vector<LogRecord> records_;
    std::vector<MalformedLine> malformed_;
};

// Blocks until `condition` holds for the log at `path` or timeoutMs has passed; returns the log as
// read when the condition held, nothing on timeout. The file and its directory may not exist yet.
// It sleeps on a change notification of the log's directory (or, while that is missing, of its
// nearest existing parent) and reads the file again after each change.
std::optional<LogFile> WaitForLog(const std::wstring& path,
                                  const std::function<bool(const LogFile&)>& condition, DWORD timeoutMs);

// Blocks until the log holds a record matching `predicate` (the first such record is returned) or
// timeoutMs has passed (nothing returned).
std::optional<LogRecord> WaitForLogLine(const std::wstring& path, const LogPredicate& predicate,
                                        DWORD timeoutMs);

// Blocks until at least `count` records match; false on timeout.
bool WaitForLogCount(const std::wstring& path, const LogPredicate& predicate, size_t count, DWORD timeoutMs);

}  // namespace qotest
