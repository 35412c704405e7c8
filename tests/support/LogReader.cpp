#include "LogReader.h"

#include <regex>

namespace qotest {

namespace {

// [<ctime text>][<pid>][Pellisk][.\<source>][<line>][INFO|ERROR]<message>; the ctime text is
// "Www Mmm dd hh:mm:ss yyyy", its day of the month padded with a blank or a zero.
const std::regex kLinePattern(
    R"(\[((?:Sun|Mon|Tue|Wed|Thu|Fri|Sat) (?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) )"
    R"([ 0-3]\d [0-2]\d:[0-5]\d:[0-6]\d \d{4})\]\[(\d{1,10})\]\[(Pellisk)\]\[(\.\\[^\]]+)\]\[(\d{1,10})\])"
    R"(\[(INFO|ERROR)\](.*))");

bool ParseLine(const std::string& line, LogRecord& record, std::string* reason) {
    std::smatch match;
    if (!std::regex_match(line, match, kLinePattern)) {
        if (reason != nullptr) {
            *reason = "not [time][pid][Pellisk][.\\source][line][INFO|ERROR]message";
        }
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

    // Makes sure the next change signals the handle. Called before each read of the file, so a
    // change that comes after the read is never lost.
    bool Arm() {
        for (;;) {
            if (handle_ != INVALID_HANDLE_VALUE && signalled_) {
                signalled_ = false;
                if (!FindNextChangeNotification(handle_)) {
                    Close();
                }
            }
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
            handle_ = FindFirstChangeNotificationW(deepest.c_str(), FALSE,
                                                   FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE |
                                                       FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME);
            if (handle_ == INVALID_HANDLE_VALUE) {
                return false;
            }
            watching_ = deepest;
        }
    }

    // True when a change came within timeoutMs.
    bool Wait(DWORD timeoutMs) {
        if (WaitForSingleObject(handle_, timeoutMs) != WAIT_OBJECT_0) {
            return false;
        }
        signalled_ = true;
        return true;
    }

private:
    static bool IsDirectory(const std::wstring& path) {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    }

    // The target directory or its deepest existing parent; empty when not even the root exists.
    std::wstring DeepestExisting() const {
        std::wstring dir = target_;
        while (!IsDirectory(dir)) {
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
        signalled_ = false;
    }

    std::wstring target_;
    std::wstring watching_;
    HANDLE handle_ = INVALID_HANDLE_VALUE;
    bool signalled_ = false;
};

}  // namespace

LogPredicate MessageStartsWith(const std::string& prefix) {
    return [prefix](const LogRecord& record) { return record.MessageStartsWith(prefix); };
}

LogPredicate MessageContains(const std::string& text) {
    return [text](const LogRecord& record) { return record.MessageContains(text); };
}

LogFile LogFile::Parse(const std::string& content) {
    LogFile log;
    log.exists_ = true;
    log.content_ = content;
    log.hasBom_ = content.compare(0, 3, "\xEF\xBB\xBF") == 0;

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
        std::string reason;
        if (number == 1 && log.hasBom_) {
            log.malformed_.push_back({number, line, "begins with a byte-order mark"});
            continue;
        }
        LogRecord record;
        if (ParseLine(line, record, &reason)) {
            record.fileLine = number;
            log.records_.push_back(std::move(record));
        } else {
            log.malformed_.push_back({number, line, reason});
        }
    }
    return log;
}

LogFile LogFile::Read(const std::wstring& path) {
    // The watchdog opens the file for each line it appends; a read that meets it there is tried
    // again, a few times, once the line is written.
    HANDLE file = INVALID_HANDLE_VALUE;
    for (int attempt = 0; attempt < 50; ++attempt) {
        file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file != INVALID_HANDLE_VALUE || GetLastError() != ERROR_SHARING_VIOLATION) {
            break;
        }
        Sleep(10);
    }
    if (file == INVALID_HANDLE_VALUE) {
        LogFile log;
        const DWORD error = GetLastError();
        log.exists_ = error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
        log.readError_ = log.exists_ ? error : ERROR_SUCCESS;
        return log;
    }
    std::string content;
    char buffer[64 * 1024];
    DWORD read = 0;
    while (ReadFile(file, buffer, sizeof(buffer), &read, nullptr) && read > 0) {
        content.append(buffer, read);
    }
    CloseHandle(file);
    return Parse(content);
}

std::vector<LogRecord> LogFile::Where(const LogPredicate& predicate) const {
    std::vector<LogRecord> found;
    for (const LogRecord& record : records_) {
        if (predicate(record)) {
            found.push_back(record);
        }
    }
    return found;
}

std::vector<LogRecord> LogFile::Containing(const std::string& text) const {
    return Where(MessageContains(text));
}

size_t LogFile::Count(const LogPredicate& predicate) const {
    size_t count = 0;
    for (const LogRecord& record : records_) {
        count += predicate(record) ? 1 : 0;
    }
    return count;
}

size_t LogFile::CountPrefix(const std::string& messagePrefix) const {
    return Count(MessageStartsWith(messagePrefix));
}

size_t LogFile::CountContaining(const std::string& text) const {
    return Count(MessageContains(text));
}

size_t LogFile::IndexOf(const LogPredicate& predicate, size_t from) const {
    for (size_t i = from; i < records_.size(); ++i) {
        if (predicate(records_[i])) {
            return i;
        }
    }
    return npos;
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

std::optional<LogFile> WaitForLog(const std::wstring& path, const std::function<bool(const LogFile&)>& condition,
                                  DWORD timeoutMs) {
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
        if (!armed) {
            // No directory on the way to the file can be watched (not even the drive's root): read
            // again after a short pause. Not seen under Wine, where the notification works.
            Sleep(remaining < 50 ? remaining : 50);
            continue;
        }
        watch.Wait(remaining);
    }
}

std::optional<LogRecord> WaitForLogLine(const std::wstring& path, const LogPredicate& predicate, DWORD timeoutMs) {
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
    return WaitForLog(path, [&](const LogFile& log) { return log.Count(predicate) >= count; }, timeoutMs)
        .has_value();
}

}  // namespace qotest
