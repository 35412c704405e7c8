#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <boost/noncopyable.hpp>

#include "ctl/LogTimeline.h"

namespace QoWatchCtl {

// One event of the timeline, as the log command prints it.
struct Entry {
    long long seconds = 0;
    size_t seq = 0;
    bool bTimed = true;  // false for a malformed line: placed after the line before it
    unsigned long pid = 0;
    long long session = -1;
    std::string event, text, message;
    long long exitCode = -1, count = -1, until = -1;
    bool graceful = false;  // as the exit line says
    bool bOwnExit = false;  // the exit code is the watchdog process's own, not an agent's
    unsigned long agentPid = 0;
    std::string line;  // the log message it was read from, for --grep
};

// The log read into the timeline's events, line by line, and into the state of its processes.
class CTimelineFold : private boost::noncopyable {
public:
    // Only events from since to until (-1: no bound) are shown and counted.
    CTimelineFold(LogState& state, bool bJson, long long since, long long until);
    ~CTimelineFold();

    void Add(const std::string& file, size_t number, const std::string& text);
    // Restarts held back for a crash loop; at the end also exits not yet attributed to a session.
    void Flush(bool bEnd);
    // The events so far, in time order.
    std::vector<Entry> Take();
    void Summary(std::ostream& out, long long session) const;
    size_t Lines() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

}  // namespace QoWatchCtl
