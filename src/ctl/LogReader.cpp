#include "ctl/LogReader.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace QoWatchCtl {
namespace {

const char* const MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

int MonthOf(const std::string& name) {
    for (int i = 0; i < 12; ++i) {
        if (name == MONTHS[i]) {
            return i + 1;
        }
    }
    return 0;
}

bool IsLeap(long long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

bool ValidCivil(long long y, long long mon, long long d, long long h, long long min, long long s) {
    static const int s_days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return y >= 1970 && y <= 9999 && mon >= 1 && mon <= 12 && d >= 1 &&
           d <= s_days[mon - 1] + (mon == 2 && IsLeap(y) ? 1 : 0) && h >= 0 && h < 24 && min >= 0 &&
           min < 60 && s >= 0 && s < 60;
}

// The civil date and time of CivilSeconds' count.
std::tm Civil(long long seconds) {
    long long days = seconds / 86400, rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long doe = days - era * 146097;
    const long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const long long mp = (5 * doy + 2) / 153;
    std::tm tm = {};
    tm.tm_mday = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    tm.tm_mon = static_cast<int>(mp < 10 ? mp + 2 : mp - 10);
    tm.tm_year = static_cast<int>(yoe + era * 400 + (tm.tm_mon <= 1 ? 1 : 0) - 1900);
    tm.tm_hour = static_cast<int>(rest / 3600);
    tm.tm_min = static_cast<int>(rest / 60 % 60);
    tm.tm_sec = static_cast<int>(rest % 60);
    return tm;
}

long long SecondsOf(const std::tm& tm) {
    return CivilSeconds(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

// The broken-down local or UTC time of t, in the caller's buffer.
bool Broken(std::time_t t, bool bLocal, std::tm& tm) {
#ifdef _WIN32
    return (bLocal ? localtime_s(&tm, &t) : gmtime_s(&tm, &t)) == 0;
#else
    return (bLocal ? localtime_r(&t, &tm) : gmtime_r(&t, &tm)) != nullptr;
#endif
}

// The offset from UTC, in seconds, that this machine's zone has at a local time.
long long LocalOffset(long long localSeconds) {
    std::tm tm = Civil(localSeconds);
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    std::tm utc = {};
    return t != static_cast<std::time_t>(-1) && Broken(t, false, utc) ? localSeconds - SecondsOf(utc) : 0;
}

void AppendUtf8(std::string& out, unsigned long c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

std::string FromUtf16Le(const std::string& bytes) {
    std::string out;
    for (size_t i = 2; i + 1 < bytes.size(); i += 2) {
        unsigned long c = static_cast<unsigned char>(bytes[i]) | static_cast<unsigned char>(bytes[i + 1])
                                                                     << 8;
        if (c >= 0xD800 && c < 0xDC00 && i + 3 < bytes.size()) {
            const unsigned long low =
                static_cast<unsigned char>(bytes[i + 2]) | static_cast<unsigned char>(bytes[i + 3]) << 8;
            if (low >= 0xDC00 && low < 0xE000) {
                c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                i += 2;
            }
        }
        AppendUtf8(out, c);
    }
    return out;
}

// Moves the whole lines at the front of text, without their line ends, to lines; what follows the
// last line end stays in text.
void SplitLines(std::string& text, std::vector<std::string>& lines) {
    size_t start = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start - (end > start && text[end - 1] == '\r' ? 1 : 0)));
        start = end + 1;
    }
    text.erase(0, start);
}

// The bytes of a log compared to tell a cut.
const size_t HEAD_BYTES = 64;

}  // namespace

long long CivilSeconds(long long y, long long mon, long long d, long long h, long long min, long long s) {
    y -= mon <= 2;
    const long long era = (y >= 0 ? y : y - 399) / 400;
    const long long yoe = y - era * 400;
    const long long doy = (153 * (mon + (mon > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const long long days = era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
    return days * 86400 + h * 3600 + min * 60 + s;
}

bool ParseLine(const std::string& text, Line& line, std::string& why) {
    static const std::regex s_form(
        R"(\[(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun) ([A-Z][a-z]{2}) ([ 0-3]\d) ([0-2]\d):([0-5]\d):([0-5]\d) (\d{4})\])"
        R"(\[(\d{1,10})\]\[Pellisk\]\[\.\\\w+\]\[\d+\]\[(INFO|ERROR)\](.*))");
    static const std::regex s_stamp(
        R"(\[(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z]{2} [ 0-3]\d \d\d:\d\d:\d\d \d{4}\])");
    std::smatch m;
    const int month = std::regex_match(text, m, s_form) ? MonthOf(m[1]) : 0;
    const auto field = [&m, month](int i) { return month != 0 ? std::stoll(m[i]) : 0LL; };
    const long long y = field(6), d = field(2), h = field(3), min = field(4), s = field(5);
    if (month == 0 || !ValidCivil(y, month, d, h, min, s)) {
        why = "not in the log's form";
        return false;
    }
    line.message = m[9];
    if (std::regex_search(line.message, s_stamp)) {
        why = "holds a second line's time stamp: a line cut short, glued to the next";
        return false;
    }
    line.error = m[8] == "ERROR";
    if (Recognise(line.message, line.error, line.known) == EMatch::TORN) {
        why = "a known message with a field missing or cut short";
        return false;
    }
    const unsigned long long pid = std::stoull(m[7]);
    if (pid > 0xFFFFFFFFull) {
        why = "not in the log's form";
        return false;
    }
    line.seconds = CivilSeconds(y, month, d, h, min, s);
    line.pid = static_cast<unsigned long>(pid);
    line.error = m[8] == "ERROR";
    return true;
}

namespace {

// The length of the valid UTF-8 sequence that starts at text[i]; 0 when none does.
size_t Utf8Length(const std::string& text, size_t i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    size_t length = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    for (size_t k = 1; k < length; ++k) {
        if (i + k >= text.size() || (static_cast<unsigned char>(text[i + k]) >> 6) != 2) {
            length = 0;
        }
    }
    return length;
}

}  // namespace

std::string Escape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char u = static_cast<unsigned char>(text[i]);
        const size_t length = Utf8Length(text, i);
        if (u < 0x20 || u == 0x7F || length == 0) {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02X", u);
            out += hex;
        } else {
            out.append(text, i, length);
            i += length - 1;
        }
    }
    return out;
}

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t length = Utf8Length(text, i);
        char escaped[8];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || length == 0) {
            std::snprintf(escaped, sizeof(escaped), "\\u%04X", c);
            out += escaped;
        } else {
            out.append(text, i, length);
            i += length - 1;
        }
    }
    return out + "\"";
}

std::string FormatTime(long long seconds, bool bOffset) {
    const std::tm tm = Civil(seconds);
    char text[40];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02d%c%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, bOffset ? 'T' : ' ', tm.tm_hour, tm.tm_min, tm.tm_sec);
    std::string out = text;
    if (bOffset) {
        const long long offset = LocalOffset(seconds);
        const long long minutes = (offset < 0 ? -offset : offset) / 60;
        std::snprintf(text, sizeof(text), "%c%02lld:%02lld", offset < 0 ? '-' : '+', minutes / 60,
                      minutes % 60);
        out += text;
    }
    return out;
}

long long LocalNowSeconds() {
    std::tm local = {};
    return Broken(std::time(nullptr), true, local) ? SecondsOf(local) : 0;
}

long long ParseTime(const std::string& text) {
    const long long now = LocalNowSeconds();
    const long long today = now - now % 86400;
    if (text == "today" || text == "yesterday") {
        return text == "today" ? today : today - 86400;
    }
    long long count = 0;
    char unit = 0, extra = 0;
    if (std::sscanf(text.c_str(), "-%lld%c%c", &count, &unit, &extra) == 2 && count >= 0) {
        const std::string units = "smhdw";
        const long long sizes[] = {1, 60, 3600, 86400, 604800};
        const size_t at = units.find(unit);
        return at != std::string::npos ? now - count * sizes[at] : -1;
    }
    int y = 0, mon = 0, d = 0, h = 0, min = 0, s = 0, used = 0;
    // A time of day alone: today at that time.
    const bool bSeconds = std::sscanf(text.c_str(), "%2d:%2d:%2d%n", &h, &min, &s, &used) == 3;
    if ((bSeconds || std::sscanf(text.c_str(), "%2d:%2d%n", &h, &min, &used) == 2) &&
        used == static_cast<int>(text.size()) && text.size() >= 5) {
        return ValidCivil(1970, 1, 1, h, min, s) ? today + h * 3600LL + min * 60LL + s : -1;
    }
    used = 0;
    char name[4] = {}, day[4] = {};
    if (std::sscanf(text.c_str(), "%3s %3s %d %d:%d:%d %d%n", day, name, &d, &h, &min, &s, &y, &used) == 7 &&
        used == static_cast<int>(text.size())) {
        mon = MonthOf(name);
        return ValidCivil(y, mon, d, h, min, s) ? CivilSeconds(y, mon, d, h, min, s) : -1;
    }
    // ISO 8601: a date, then optionally [T ]HH:MM[:SS], then optionally Z or +HH:MM.
    static const std::regex s_iso(
        R"((\d{4})-(\d\d)-(\d\d)(?:[T ](\d\d):(\d\d)(?::(\d\d))?(Z|([+-])(\d\d):?(\d\d))?)?)");
    std::smatch m;
    if (!std::regex_match(text, m, s_iso)) {
        return -1;
    }
    const auto part = [&m](int i) { return m[i].matched ? std::stoll(m[i]) : 0LL; };
    if (!ValidCivil(part(1), part(2), part(3), part(4), part(5), part(6))) {
        return -1;
    }
    const long long civil = CivilSeconds(part(1), part(2), part(3), part(4), part(5), part(6));
    if (!m[7].matched) {
        return civil;
    }
    // A time with its offset: the same instant in this machine's local time.
    const long long utc = civil - (m[8] == "-" ? -1 : 1) * (part(9) * 3600 + part(10) * 60);
    std::tm local = {};
    return Broken(static_cast<std::time_t>(utc), true, local) ? SecondsOf(local) : -1;
}

bool ReadLines(const std::string& path, std::vector<std::string>& lines, std::string& why) {
    const std::filesystem::path file = std::filesystem::u8path(path);
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) {
        why = "is a folder, not a log file";
        return false;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        why = std::filesystem::exists(file, error) ? "cannot be read" : "cannot be read: not found";
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    std::string text = content.str();
    if (text.compare(0, 2, "\xFE\xFF") == 0) {
        why = "is UTF-16 big-endian; save it as UTF-8 or UTF-16 LE";
        return false;
    }
    if (text.compare(0, 2, "\xFF\xFE") == 0) {
        text = FromUtf16Le(text);
    } else if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) {
        text.erase(0, 3);
    }
    lines.clear();
    SplitLines(text, lines);
    if (!text.empty()) {  // a last line without its line end
        if (text.back() == '\r') {
            text.pop_back();
        }
        lines.push_back(text);
    }
    return true;
}

CLogTail::CLogTail(std::string path, unsigned long long offset) : m_path(std::move(path)), m_offset(offset) {}

std::vector<std::string> CLogTail::Read(bool& bCut) {
    std::ifstream in(std::filesystem::u8path(m_path), std::ios::binary | std::ios::ate);
    const unsigned long long size = in ? static_cast<unsigned long long>(in.tellg()) : 0;
    std::string head(static_cast<size_t>(std::min<unsigned long long>(size, HEAD_BYTES)), '\0');
    in.seekg(0);
    in.read(&head[0], static_cast<std::streamsize>(head.size()));
    bCut = size < m_offset || head.compare(0, m_head.size(), m_head) != 0;
    if (bCut) {
        m_offset = 0;
        m_partial.clear();
    }
    // Only what was appended is read.
    std::string appended(static_cast<size_t>(size - m_offset), '\0');
    in.seekg(static_cast<std::streamoff>(m_offset));
    in.read(&appended[0], static_cast<std::streamsize>(appended.size()));
    m_offset = size;
    m_head = head;
    m_partial += appended;
    std::vector<std::string> lines;
    SplitLines(m_partial, lines);
    return lines;
}

std::vector<std::string> LogAndRotated(const std::string& log) {
    const std::filesystem::path path = std::filesystem::u8path(log);
    const std::string name = path.filename().u8string();
    std::vector<std::pair<unsigned long long, std::string>> rotated;
    std::error_code error;
    for (std::filesystem::directory_iterator it(path.parent_path().empty() ? "." : path.parent_path(), error),
         end;
         !error && it != end; it.increment(error)) {
        const std::string other = it->path().filename().u8string();
        if (other.size() > name.size() && other.compare(0, name.size(), name) == 0 &&
            other.size() <= name.size() + 19 &&
            other.find_first_not_of("0123456789", name.size()) == std::string::npos) {
            rotated.emplace_back(std::stoull(other.substr(name.size())), it->path().u8string());
        }
    }
    std::sort(rotated.begin(), rotated.end());
    std::vector<std::string> files;
    files.reserve(rotated.size() + 1);
    for (const auto& entry : rotated) {
        files.push_back(entry.second);
    }
    if (std::filesystem::exists(path, error) || files.empty()) {
        files.push_back(log);
    }
    return files;
}

}  // namespace QoWatchCtl
