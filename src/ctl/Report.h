#pragma once

#include <string>

namespace QoWatchCtl {

// "report [FILE]": one text file to attach to a ticket: the tool's version, status, the registry
// values the watchdog reads, the Keld service, the watchdog and agent processes and every log
// file. Without FILE, QoWatchCtl-report-<computer>-<time>.txt in the current directory. Returns 0,
// or 2 when the file cannot be written.
int Report(const std::wstring& strGiven);

}  // namespace QoWatchCtl
