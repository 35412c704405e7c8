#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace QoWatchCtl {

// "log [FILE...] [--session N] [--since TIME]": the watchdog's log told as a timeline, with a
// summary. Files are read in the order given (rotated files first); without files, defaultLog.
// TIME is "YYYY-MM-DD HH:MM:SS" (or with a T) in the log's local time. Returns 0, 1 when an input
// holds no log line at all, 2 for a usage error or a file that cannot be read. Portable C++17.
int RunLog(const std::vector<std::string>& args, const std::string& defaultLog, std::ostream& out,
           std::ostream& err);

// The meaning of a Win32 error code as the log reports it; empty when unknown.
std::string Win32Meaning(long long code);

}  // namespace QoWatchCtl
