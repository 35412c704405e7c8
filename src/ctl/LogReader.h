#pragma once

#include <string>
#include <vector>

#include "ctl/Vocabulary.h"

namespace QoWatchCtl {

// One line of the watchdog's log:
// [Mon Nov 16 20:00:32 2026][2140][Pellisk][.\source][100][INFO]message
struct Line {
    long long seconds = 0;  // the local time as seconds of a civil calendar taken as UTC
    unsigned long pid = 0;
    bool error = false;
    std::string message;
    Recognised known;  // the catalogue's message it is, with its fields
};

// False, with the reason, for text that is not one whole log line: not in the log's form, holding
// the time stamp of a second line (a torn line glued to the next), or a known message cut short.
bool ParseLine(const std::string& text, Line& line, std::string& why);

// Control bytes and bytes that are not valid UTF-8 as \xNN, so that a damaged log cannot drive the
// terminal.
std::string Escape(const std::string& text);

// A JSON string: quotes, backslashes and control bytes escaped; a byte that is not part of valid
// UTF-8 as the character of the same number.
std::string JsonString(const std::string& text);

// Seconds of a civil date and time taken as UTC: local times compare and subtract correctly.
long long CivilSeconds(long long y, long long mon, long long d, long long h, long long min, long long s);

// "2026-11-16 20:00:32", the form --since takes; with bOffset "2026-11-16T20:00:32+01:00", the
// offset that this machine's time zone had at that local time.
std::string FormatTime(long long seconds, bool bOffset = false);

long long LocalNowSeconds();

// A time for --since and --until: ISO 8601 ("2026-11-16T20:00:32", a space instead of the T, a date
// alone), the log's own form ("Mon Nov 16 20:00:32 2026"), -30s, -10m, -1h, -2d, today, yesterday.
// -1 when the text is none of them or names no real time.
long long ParseTime(const std::string& text);

// The text of a file as UTF-8 lines without their line ends; a UTF-16 LE file (by its byte order
// mark) is converted. False with the reason for a folder, an unreadable file or UTF-16 BE.
bool ReadLines(const std::string& path, std::vector<std::string>& lines, std::string& why);

// What is appended to a log, in whole lines, as tail -F reads it. After a cut (the file deleted or
// moved aside and a new one begun: it is shorter, or starts otherwise, than what was read) it reads
// the new file from its start.
class CLogTail {
public:
    explicit CLogTail(std::string path, unsigned long long offset = 0);

    // The whole lines appended since the last call (or since offset); bCut tells of a cut before them.
    std::vector<std::string> Read(bool& bCut);

private:
    std::string m_path;
    std::string m_head;     // the file's first bytes as last read
    std::string m_partial;  // a line not yet ended
    unsigned long long m_offset;
};

// The files the watchdog rotated beside this log ("QoWatchDog.log<seconds>"), oldest first, then
// the log itself when it exists.
std::vector<std::string> LogAndRotated(const std::string& log);

}  // namespace QoWatchCtl
