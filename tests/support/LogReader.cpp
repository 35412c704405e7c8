#include "LogReader.h"

#include <algorithm>
#include <iterator>
#include <regex>

#include "WinTestEnv.h"

namespace qotest {

namespace {

// [<ctime text>][<pid>][Pellisk][.\<source>][<line>][INFO|ERROR]<message>; the ctime text is
// "Www Mmm dd hh:mm:ss yyyy", its day of the month padded with a blank or a zero.
const std::regex kLinePattern(
    R"(\[((?:Sun|Mon|Tue|Wed|Thu|Fri|Sat) (?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) )"
    R"([ 0-3]\d [0-2]\d:[0-5]\d:[0-6]\d \d{4})\]\[(\d{1,10})\]\[(Pellisk)\]\[(\.\\[^\]]+)\]\[(\d{1,10})\])"
    R"(\[(INFO|ERROR)\](.*))");

bool ParseLine(const std::string& line, LogRecord& record) {
    std::smatch match;
    if (!std::regex_match(line, match, kLinePattern)) {
        return false;
    }
    record.time = match[1];
    record.pid = static_cast<DWORD>(std::stoul(match[2]));
    record.tag = match[3];
    record.source = match[4];
    record.line = static_cast<unsigned>(std::stoul(match[5]));
    record.level = match[6];
    record.message = match[7];
    return true;
}

LogPredicate MessageContains(const std::string& text) {
    return [text](const LogRecord& record) { return record.MessageContains(text); };
}

// A change notification on the log's directory, or, while that directory is missing (the watchdog
// creates its debug directory itself), on its deepest existing parent, moving down as the levels
// below appear. Only one directory is watched at a time, never a subtree.
class DirectoryWatch {
public:
    explicit DirectoryWatch(const std::wstring& filePath) {
        const size_t slash = filePath.find_last_of(L"\\/");
        target_ = slash == std::wstring::npos ? std::wstring(L".") : filePath.substr(0, slash);
    }
    ~DirectoryWatch() { Close(); }
    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;

    // Makes sure the watch is on the deepest existing directory. Called before each read of the file,
    // so a change that comes after the read is never lost.
    bool Arm() {
        for (;;) {
            // Looked at after the watch is in place: a level made in between is found here.
            const std::wstring deepest = DeepestExisting();
            if (deepest.empty()) {
                Close();
                return false;
            }
            if (handle_ != INVALID_HANDLE_VALUE && deepest == watching_) {
                return true;
            }
            Close();
            handle_ =
                FindFirstChangeNotificationW(deepest.c_str(), FALSE,
                                             FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE |
                                                 FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME);
            if (handle_ == INVALID_HANDLE_VALUE) {
                return false;
            }
            watching_ = deepest;
        }
    }

    // Waits at most timeoutMs for a change, then asks for the next one (before the caller reads).
    void Wait(DWORD timeoutMs) {
        if (WaitForSingleObject(handle_, timeoutMs) == WAIT_OBJECT_0 &&
            !FindNextChangeNotification(handle_)) {
            Close();
        }
    }

private:
    // The target directory or its deepest existing parent; empty when not even the root exists.
    std::wstring DeepestExisting() const {
        std::wstring dir = target_;
        while (!DirectoryExists(dir)) {
            const size_t slash = dir.find_last_of(L"\\/");
            if (slash == std::wstring::npos || slash == 0) {
                return std::wstring();
            }
            dir.resize(slash);
            if (dir.size() == 2 && dir[1] == L':') {
                dir += L'\\';  // "C:" names the current directory of drive C; the root is "C:\"
            }
        }
        return dir;
    }

    void Close() {
        if (handle_ != INVALID_HANDLE_VALUE) {
            FindCloseChangeNotification(handle_);
            handle_ = INVALID_HANDLE_VALUE;
        }
        watching_.clear();
    }

    std::wstring target_;
    std::wstring watching_;
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

}  // namespace

LogPredicate MessageStartsWith(const std::string& prefix) {
    return [prefix](const LogRecord& record) { return record.MessageStartsWith(prefix); };
}

LogFile LogFile::Parse(const std::string& content) {
    LogFile log;
    log.exists_ = true;
    const bool byteOrderMark = content.compare(0, 3, "\xEF\xBB\xBF") == 0;

    size_t start = 0;
    size_t number = 0;
    for (;;) {
        const size_t end = content.find('\n', start);
        if (end == std::string::npos) {
            log.tail_ = content.substr(start);
            break;
        }
        ++number;
        std::string line = content.substr(start, end - start);
        start = end + 1;
        if (line.empty() || line.back() != '\r') {
            log.malformed_.push_back({number, line, "line end is not CR LF"});
            continue;
        }
        line.pop_back();
        LogRecord record;
        if (number == 1 && byteOrderMark) {
            log.malformed_.push_back({number, line, "begins with a byte-order mark"});
        } else if (ParseLine(line, record)) {
            record.fileLine = number;
            log.records_.push_back(std::move(record));
        } else {
            log.malformed_.push_back(
                {number, line, "not [time][pid][Pellisk][.\\source][line][INFO|ERROR]message"});
        }
    }
    return log;
}

LogFile LogFile::Read(const std::wstring& path) {
    // The watchdog opens the file for each line it appends; a read that meets it there is tried
    // again, a few times, once the line is written.
    std::optional<std::string> content = ReadWholeFile(path);
    for (int attempt = 1; !content && GetLastError() == ERROR_SHARING_VIOLATION && attempt < 50; ++attempt) {
        Sleep(10);
        content = ReadWholeFile(path);
    }
    if (content) {
        return Parse(*content);
    }
    LogFile log;
    const DWORD error = GetLastError();
    log.exists_ = error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
    return log;
}

std::vector<LogRecord> LogFile::Where(const LogPredicate& predicate) const {
    std::vector<LogRecord> found;
    std::copy_if(records_.begin(), records_.end(), std::back_inserter(found), predicate);
    return found;
}

std::vector<LogRecord> LogFile::Containing(const std::string& text) const {
    return Where(MessageContains(text));
}

size_t LogFile::Count(const LogPredicate& predicate) const {
    return static_cast<size_t>(std::count_if(records_.begin(), records_.end(), predicate));
}

size_t LogFile::CountPrefix(const std::string& messagePrefix) const {
    return Count(MessageStartsWith(messagePrefix));
}

size_t LogFile::CountContaining(const std::string& text) const { return Count(MessageContains(text)); }

size_t LogFile::IndexOf(const LogPredicate& predicate, size_t from) const {
    if (from >= records_.size()) {
        return npos;
    }
    const auto found =
        std::find_if(records_.begin() + static_cast<std::ptrdiff_t>(from), records_.end(), predicate);
    return found == records_.end() ? npos : static_cast<size_t>(found - records_.begin());
}

size_t LogFile::IndexOfPrefix(const std::string& messagePrefix, size_t from) const {
    return IndexOf(MessageStartsWith(messagePrefix), from);
}

const LogRecord* LogFile::First(const LogPredicate& predicate) const {
    const size_t index = IndexOf(predicate);
    return index == npos ? nullptr : &records_[index];
}

const LogRecord* LogFile::FirstWithPrefix(const std::string& messagePrefix) const {
    return First(MessageStartsWith(messagePrefix));
}

bool LogFile::InOrder(const std::vector<std::string>& messagePrefixes) const {
    size_t from = 0;
    for (const std::string& prefix : messagePrefixes) {
        const size_t index = IndexOfPrefix(prefix, from);
        if (index == npos) {
            return false;
        }
        from = index + 1;
    }
    return true;
}

std::string LogFile::DescribeMalformed() const {
    std::string text;
    for (const MalformedLine& line : malformed_) {
        text += "line " + std::to_string(line.fileLine) + " (" + line.reason + "): " + line.text + "\n";
    }
    return text;
}

std::optional<LogFile> WaitForLog(const std::wstring& path,
                                  const std::function<bool(const LogFile&)>& condition, DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    DirectoryWatch watch(path);
    for (;;) {
        const bool armed = watch.Arm();
        LogFile log = LogFile::Read(path);
        if (condition(log)) {
            return log;
        }
        const ULONGLONG now = GetTickCount64();
        if (now >= deadline) {
            return std::nullopt;
        }
        const DWORD remaining = static_cast<DWORD>(deadline - now);
        if (armed) {
            watch.Wait(remaining);
        } else {
            // Nothing on the way to the file can be watched (not even the drive's root): read again
            // after a short pause. Not seen under Wine, where the notification works.
            Sleep(remaining < 50 ? remaining : 50);
        }
    }
}

std::optional<LogRecord> WaitForLogLine(const std::wstring& path, const LogPredicate& predicate,
                                        DWORD timeoutMs) {
    std::optional<LogRecord> match;
    WaitForLog(
        path,
        [&](const LogFile& log) {
            const LogRecord* record = log.First(predicate);
            if (record != nullptr) {
                match = *record;
            }
            return record != nullptr;
        },
        timeoutMs);
    return match;
}

bool WaitForLogCount(const std::wstring& path, const LogPredicate& predicate, size_t count, DWORD timeoutMs) {
    return WaitForLog(
               path, [&](const LogFile& log) { return log.Count(predicate) >= count; }, timeoutMs)
        .has_value();
}

}  // namespace qotest
