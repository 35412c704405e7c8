#include "ctl/LogTimeline.h"

#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>
#include <regex>
#include <sstream>

namespace QoWatchCtl {
namespace {

// A session restarted this often within this many seconds is in a crash loop.
const size_t CRASH_LOOP_RESTARTS = 5;
const long long CRASH_LOOP_SECONDS = 60;

const char* const MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Seconds since 1970 of a civil date and time, taken as UTC: the log's local times compare and
// subtract correctly, whatever the zone.
long long Seconds(long long y, long long mon, long long d, long long h, long long min, long long s) {
    y -= mon <= 2;
    const long long era = (y >= 0 ? y : y - 399) / 400;
    const long long yoe = y - era * 400;
    const long long doy = (153 * (mon + (mon > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const long long days = era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
    return days * 86400 + h * 3600 + min * 60 + s;
}

struct Line {
    std::string time;
    long long seconds = 0;
    unsigned long pid = 0;
    bool error = false;
    std::string message;
};

// [Mon Nov 16 20:00:32 2026][2140][Pellisk][.\source][100][INFO]message
bool Parse(const std::string& text, Line& line) {
    static const std::regex form(
        R"(\[((Mon|Tue|Wed|Thu|Fri|Sat|Sun) ([A-Z][a-z]{2}) ([ 0-3]\d) ([0-2]\d):([0-5]\d):([0-5]\d) (\d{4}))\])"
        R"(\[(\d+)\]\[Pellisk\]\[\.\\\w+\]\[\d+\]\[(INFO|ERROR)\](.*))");
    std::smatch m;
    if (!std::regex_match(text, m, form)) {
        return false;
    }
    long long month = 0;
    while (month < 12 && m[3] != MONTHS[month]) {
        ++month;
    }
    if (month == 12) {
        return false;
    }
    line.time = m[1];
    line.seconds = Seconds(std::stoll(m[8]), month + 1, std::stoll(m[4]), std::stoll(m[5]), std::stoll(m[6]),
                           std::stoll(m[7]));
    line.pid = std::stoul(m[9]);
    line.error = m[10] == "ERROR";
    line.message = m[11];
    return true;
}

// "YYYY-MM-DD HH:MM:SS" or with a T; -1 when it is neither.
long long ParseSince(const std::string& text) {
    int y = 0, mon = 0, d = 0, h = 0, min = 0, s = 0;
    char sep = 0;
    if (std::sscanf(text.c_str(), "%d-%d-%d%c%d:%d:%d", &y, &mon, &d, &sep, &h, &min, &s) != 7 ||
        (sep != ' ' && sep != 'T')) {
        return -1;
    }
    return Seconds(y, mon, d, h, min, s);
}

std::string ExitMeaning(unsigned long code) {
    switch (code) {
        case 0:
            return "graceful: a normal end";
        case 0xC0000142:
            return "graceful: its DLLs failed to start (the session is ending)";
        case 0x40010004:
            return "graceful: ended by a debugger";
        case 0xC0000005:
            return "crash: access violation";
        case 0xC00000FD:
            return "crash: stack overflow";
        case 0xC0000409:
            return "crash: stack buffer overrun";
        default:
            return "ungraceful";
    }
}

// A number after "prefix" in text; false when there is none.
bool NumberAfter(const std::string& text, const std::string& prefix, long long& value) {
    const size_t at = text.find(prefix);
    if (at == std::string::npos) {
        return false;
    }
    const char* start = text.c_str() + at + prefix.size();
    char* end = nullptr;
    value = std::strtoll(start, &end, 10);
    return end != start;
}

struct Session {
    size_t starts = 0, restarts = 0, graceful = 0, crashes = 0, offs = 0, ons = 0, failures = 0, loops = 0;
    std::deque<long long> recentRestarts;  // the last few, within the crash-loop window
    bool bInLoop = false;
};

struct Exit {
    std::string time;
    unsigned long code = 0;
    bool graceful = false;
};

class CTimeline {
public:
    CTimeline(std::ostream& out, long long since, long long session)
        : m_out(out), m_since(since), m_session(session) {}

    void Add(const std::string& file, size_t number, const std::string& text) {
        Line line;
        if (!Parse(text, line)) {
            ++m_malformed;
            Say("", 0, "MALFORMED " + file + ":" + std::to_string(number) + ": " + text.substr(0, 160), -1);
            return;
        }
        ++m_lines;
        if (m_since >= 0 && line.seconds < m_since) {
            return;
        }
        Handle(line);
    }

    // Exits still waiting for the line that names their session.
    void Finish() {
        for (auto& pending : m_pending) {
            for (const Exit& exit : pending.second) {
                Unattributed(pending.first, exit);
            }
        }
        m_pending.clear();
    }

    void Summary() {
        m_out << "\nSummary: " << m_lines << " log lines, " << m_malformed << " malformed, " << m_supervisors
              << " supervisor start(s), " << m_runKeys << " run-key instance(s), " << m_errors
              << " error(s), " << m_unattributed << " agent exit(s) not attributed to a session, "
              << m_lostLines << " line(s) the watchdog could not write\n";
        for (const auto& entry : m_sessions) {
            if (m_session >= 0 && entry.first != m_session) {
                continue;
            }
            const Session& s = entry.second;
            m_out << "  session " << entry.first << ": " << s.starts << " agent start(s), " << s.restarts
                  << " restart(s), " << s.crashes << " ungraceful end(s), " << s.graceful
                  << " graceful end(s), " << s.offs << " off, " << s.ons << " on again, " << s.failures
                  << " failed start(s)" << (s.loops > 0 ? ", CRASH LOOP" : "") << "\n";
        }
    }

    size_t Lines() const { return m_lines; }

private:
    // One timeline entry; session -1 for a process's own event.
    void Say(const std::string& time, unsigned long pid, const std::string& what, long long session) {
        if (m_session >= 0 && session != m_session) {
            return;
        }
        m_out << (time.empty() ? std::string(24, ' ') : time) << "  ";
        m_out << (pid != 0 ? "[" + std::to_string(pid) + "] " : std::string());
        m_out << (session >= 0 ? "session " + std::to_string(session) + ": " : std::string()) << what << "\n";
    }

    void Unattributed(unsigned long pid, const Exit& exit) {
        ++m_unattributed;
        Say(exit.time, pid,
            "an agent ended, exit code " + std::to_string(exit.code) + " (" + ExitMeaning(exit.code) +
                "); the log does not tell in which session",
            m_session >= 0 ? m_session : -1);
    }

    // The oldest exit of this process not yet attributed; the exit line names a handle, not a
    // session, so the next line of the same process that names a session tells whose it was.
    bool TakeExit(unsigned long pid, Exit& exit) {
        auto it = m_pending.find(pid);
        if (it == m_pending.end() || it->second.empty()) {
            return false;
        }
        exit = it->second.front();
        it->second.pop_front();
        return true;
    }

    void Restarted(const Line& line, long long id, Session& s) {
        ++s.restarts;
        s.recentRestarts.push_back(line.seconds);
        while (s.recentRestarts.size() > CRASH_LOOP_RESTARTS ||
               line.seconds - s.recentRestarts.front() > CRASH_LOOP_SECONDS) {
            s.recentRestarts.pop_front();
        }
        // Flagged once as it begins; it lasts while every restart has the last few within the window.
        const bool bLoop = s.recentRestarts.size() == CRASH_LOOP_RESTARTS;
        const bool bBegins = bLoop && !s.bInLoop;
        s.bInLoop = bLoop;
        if (bBegins) {
            ++s.loops;
            Say(line.time, line.pid,
                "CRASH LOOP: restarted " + std::to_string(CRASH_LOOP_RESTARTS) + " times within " +
                    std::to_string(CRASH_LOOP_SECONDS) + " s",
                id);
        }
    }

    void Handle(const Line& line) {
        const std::string& msg = line.message;
        long long n = 0;
        if (line.error) {
            ++m_errors;
            std::string meaning;
            for (const char* key : {"GetLastError=", "Err=", "err=", "error="}) {
                if (meaning.empty() && NumberAfter(msg, key, n) && !Win32Meaning(n).empty()) {
                    meaning = " (" + std::to_string(n) + ": " + Win32Meaning(n) + ")";
                }
            }
            long long lost = 0;
            if (std::sscanf(msg.c_str(), "%lld log lines lost: the log could not be written, last error=%lld",
                            &lost, &n) == 2) {
                m_lostLines += static_cast<size_t>(lost);
                Say(line.time, line.pid,
                    "LOG GAP: " + std::to_string(lost) +
                        " line(s) of this process could not be written before "
                        "this point" +
                        meaning,
                    -1);
                return;
            }
            if (msg.find("Install was deleted and created again") != std::string::npos) {
                Say(line.time, line.pid,
                    "start gate: the install key was deleted and created again (a reinstall); watched again",
                    -1);
                return;
            }
            // A failed start and a shell check name the session whose agent was not started.
            const long long id =
                NumberAfter(msg, "failed session ID = ", n) || NumberAfter(msg, " of session ", n) ? n : -1;
            if (id >= 0) {
                ++m_sessions[id].failures;
            }
            Say(line.time, line.pid, "ERROR " + msg + meaning, m_session >= 0 ? id : -1);
            return;
        }
        if (NumberAfter(msg, "Newly created process id=", n)) {
            m_newPid[line.pid] = static_cast<unsigned long>(n);
        } else if (msg.rfind("Session agent exits, graceful=", 0) == 0) {
            long long code = 0;
            NumberAfter(msg, "exitcode=", code);
            m_pending[line.pid].push_back({line.time, static_cast<unsigned long>(code), msg[30] == '1'});
        } else if (NumberAfter(msg, " Create Session Agent successfully session ID = ", n)) {
            Session& s = m_sessions[n];
            ++s.starts;
            const std::string pid = " (pid " + std::to_string(m_newPid[line.pid]) + ")";
            Exit exit;
            if (TakeExit(line.pid, exit)) {
                ++s.crashes;
                Say(exit.time, line.pid,
                    "agent ended, exit code " + std::to_string(exit.code) + " (" + ExitMeaning(exit.code) +
                        "); restarted" + pid,
                    n);
                Restarted(line, n, s);
            } else {
                Say(line.time, line.pid, "agent started" + pid, n);
            }
        } else if (NumberAfter(msg, "session (", n) && msg.find(") is off.") != std::string::npos) {
            Session& s = m_sessions[n];
            ++s.offs;
            Exit exit;
            if (TakeExit(line.pid, exit)) {
                ++(exit.graceful ? s.graceful : s.crashes);
                Say(exit.time, line.pid,
                    "agent ended, exit code " + std::to_string(exit.code) + " (" + ExitMeaning(exit.code) +
                        ")" + (exit.graceful ? "" : ", could not be restarted"),
                    n);
            }
            Say(line.time, line.pid, "off: no agent until the user logs on again", n);
        } else if (NumberAfter(msg, "session (", n) && msg.find(") is on again.") != std::string::npos) {
            ++m_sessions[n].ons;
            Say(line.time, line.pid, "on again: registered with a new shell", n);
        } else {
            ProcessEvent(line);
        }
    }

    void ProcessEvent(const Line& line) {
        static const std::map<std::string, std::string> s_events = {
            {"Watch Dog started", "supervisor started"},
            {"Wait for set start event.", "waits at its start gate (SetStartEvent)"},
            {"Exit Reload User Session on Startup", "start gate passed; sessions registered"},
            {"Enter WaitForMultipleObjects Main Loop", "serving: main loop"},
            {"Session Reload!!", "request served: reload"},
            {"Product Adapter Stop Event!!", "request served: stop (supervision stopped until a reload)"},
            {"Product Adapter Terminate Event!!", "request served: terminate"},
            {"Product Adapter Ombrine Crash Event!!", "the host process ended: final wait"},
            {"Update Event!!", "request served: update (closes without stopping Keld)"},
            {"Close Session Agent and Waiting Event!!", "request served: close agents and wait: final wait"},
            {"event BREVANT_START_KELD_WITHOUT_UAC exists",
             "hand-over: asks the waiting predecessor to start Keld"},
            {"Start KELD service.", "starts the Keld service"},
            {"event BREVANT_START_KELD_WITHOUT_UAC and instance pre-checking done", "hand-over done"},
            {"Watch Dog finished", "ended (exit code 0)"},
            {"Product Adapter notifies Watch Dog to terminate.", "refused: a terminate request was pending"},
            {"service notify terminate while installation.", "terminate request at the start gate"},
        };
        const std::string& msg = line.message;
        long long n = 0;
        if (msg == "Watch Dog started") {
            ++m_supervisors;
        }
        if (msg == "Watch Dog started by runkey") {
            m_runKeyStart[line.pid] = line.time;
        } else if (NumberAfter(msg, "Exit Watch Dog From Run Key. nRet=", n)) {
            ++m_runKeys;
            Say(m_runKeyStart.count(line.pid) ? m_runKeyStart[line.pid] : line.time, line.pid,
                n == 0 ? "run-key instance: asked the supervisor to reload"
                       : "run-key instance: no supervisor to notify (exit code -1)",
                -1);
        } else if (s_events.count(msg) != 0) {
            Say(line.time, line.pid, s_events.at(msg), -1);
        }
    }

    std::ostream& m_out;
    long long m_since;
    long long m_session;
    size_t m_lines = 0, m_malformed = 0, m_errors = 0, m_supervisors = 0, m_runKeys = 0, m_unattributed = 0,
           m_lostLines = 0;
    std::map<long long, Session> m_sessions;
    std::map<unsigned long, std::deque<Exit>> m_pending;
    std::map<unsigned long, unsigned long> m_newPid;
    std::map<unsigned long, std::string> m_runKeyStart;
};

}  // namespace

std::string Win32Meaning(long long code) {
    static const std::map<long long, std::string> s_meanings = {
        {2, "the file or key was not found"},
        {3, "the path was not found"},
        {5, "access denied"},
        {6, "the handle is invalid"},
        {31, "a device attached to the system is not functioning (a write the disk refused)"},
        {32, "the file is in use by another program that shares nothing"},
        {87, "the parameter is incorrect (for a process id: the process has ended)"},
        {112, "the disk is full"},
        {183, "the name already exists"},
        {998, "invalid access to a memory location"},
        {1056, "the service is already running"},
        {1058, "the service is disabled"},
        {1060, "the service is not installed"},
        {1062, "the service has not been started"},
        {1063, "not started by the service control manager"},
        {1314, "a required privilege is not held"},
        {1359, "an internal error occurred"},
    };
    const auto it = s_meanings.find(code);
    return it != s_meanings.end() ? it->second : std::string();
}

int RunLog(const std::vector<std::string>& args, const std::string& defaultLog, std::ostream& out,
           std::ostream& err) {
    std::vector<std::string> files;
    long long since = -1, session = -1;
    for (size_t i = 0; i < args.size(); ++i) {
        if ((args[i] == "--session" || args[i] == "--since") && i + 1 < args.size()) {
            const std::string& value = args[++i];
            if (args[i - 1] == "--since" ? (since = ParseSince(value)) < 0
                                         : value.find_first_not_of("0123456789") != std::string::npos) {
                err << "log: " << args[i - 1] << " " << value << " is not a "
                    << (args[i - 1] == "--since" ? "time (YYYY-MM-DD HH:MM:SS)" : "session id") << "\n";
                return 2;
            }
            session = args[i - 1] == "--session" ? std::stoll(value) : session;
        } else if (args[i].rfind("--", 0) == 0) {
            err << "log: unknown option " << args[i] << "\n";
            return 2;
        } else {
            files.push_back(args[i]);
        }
    }
    if (files.empty()) {
        files.push_back(defaultLog);
    }
    CTimeline timeline(out, since, session);
    int result = 0;
    for (const std::string& file : files) {
        std::ifstream in(std::filesystem::u8path(file), std::ios::binary);
        if (!in) {
            err << "log: cannot read " << file << "\n";
            return 2;
        }
        out << "== " << file << "\n";
        const size_t before = timeline.Lines();
        size_t number = 0;
        std::string text;
        while (std::getline(in, text)) {
            ++number;
            if (!text.empty() && text.back() == '\r') {
                text.pop_back();
            }
            timeline.Add(file, number, text);
        }
        if (number == 0) {
            out << "(empty)\n";
        } else if (timeline.Lines() == before) {
            err << "log: " << file << " is not a watchdog log: none of its " << number
                << " lines has the log's form\n";
            result = 1;
        }
    }
    timeline.Finish();
    timeline.Summary();
    return result;
}

}  // namespace QoWatchCtl
