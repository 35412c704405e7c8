#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace QoWatchCtl {

// "log [FILE...] [--session N] [--since TIME] [--until TIME] [--json] [--follow]": the watchdog's log
// told as a timeline, with a summary, or as JSON Lines. Without files, defaultLog and the files
// rotated beside it; files are read in the order of their first time stamp. Returns 0, 1 when an
// input holds no log line at all, 2 for a usage error or an input that cannot be read. Following
// goes on while keepFollowing (when given) returns true after each read. Portable C++17.
int RunLog(const std::vector<std::string>& args, const std::string& defaultLog, std::ostream& out,
           std::ostream& err, const std::function<bool()>& keepFollowing = {});

// The meaning of a Win32 error code as the log reports it; empty when unknown.
std::string Win32Meaning(long long code);

// An exit code in hex with its name: "0xC0000005 access violation", "0x1".
std::string ExitName(unsigned long code);
std::string ExitHex(unsigned long code);
// The name of a known exit code; empty for others.
std::string ExitWord(unsigned long code);

// How often a session may be restarted in a row before it is called a crash loop, and how soon
// each restart must follow the one before.
const size_t CRASH_LOOP_RESTARTS = 5;
const long long CRASH_LOOP_SECONDS = 60;

struct Restart {
    long long seconds = 0;
    unsigned long exitCode = 0;  // of the agent that ended
};

// The crash-loop rule, written once: restarts of a session in a row, each within CRASH_LOOP_SECONDS
// of the one before and after an end with the same exit code, are a crash loop once there are
// CRASH_LOOP_RESTARTS of them.
inline bool ContinuesRun(const Restart& last, const Restart& next) {
    return next.exitCode == last.exitCode && next.seconds - last.seconds <= CRASH_LOOP_SECONDS;
}

// A session as the log of one supervisor tells it.
struct SessionLog {
    enum EState { UNKNOWN, RUNNING, GRACEFUL_END, RESTART_FAILED, START_FAILED, SUPERVISION_ENDED };
    EState eState = UNKNOWN;
    unsigned long agentPid = 0;
    long long since = 0;         // when the state began
    unsigned long exitCode = 0;  // of the agent's last end
    std::string why;             // the error or request that ended its agent
    std::vector<Restart> restarts;
};

// One process of the log since its "Start Watch Dog" (a process id may be used again later).
struct ProcessLog {
    long long started = 0;
    bool bRunKey = false;
    bool bRefused = false;        // another instance ran, or the start failed
    bool bFinished = false;       // "Watch Dog finished", or an error after which it returns -1
    bool bGone = false;           // a later supervisor served while this one had logged no end
    bool bHandOver = false;       // waits for a predecessor in its final wait to end
    bool bKeldAsked = false;      // in its final wait, asked to start Keld
    long long seAgntMaxNum = -1;  // as it loaded it, once
    long long ended = -1;         // when it logged its end
    long long lastSeen = 0;       // its last line
    size_t order = 0;             // of its start among the log's process starts: later is greater
    long long exitCode = -1;      // as its end tells it: 0, or a run-key instance's -1

    std::string lastEvent;  // the event of its last such line: request_stop, host_ended, ended...
    std::map<long long, SessionLog> sessions;
};

struct LogState {
    std::map<unsigned long, ProcessLog> processes;
    std::vector<std::string> recentErrors;  // the last [ERROR] lines, as "time [pid] message"
    long long lostLines = 0;                // lines the watchdog told it could not write
};

// Reads files (oldest first) into state; false, with why, when one cannot be read.
bool ReadLogState(const std::vector<std::string>& files, LogState& state, std::string& why);

}  // namespace QoWatchCtl
