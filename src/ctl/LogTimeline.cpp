#include "ctl/LogTimeline.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>
#include <ostream>

#include "ctl/LogReader.h"
#include "ctl/TimelineFold.h"

namespace QoWatchCtl {

namespace {

using QoLog::EMsg;

const size_t RECENT_ERRORS = 5;

struct Exit {
    long long seconds = 0;
    unsigned long code = 0;
    bool graceful = false;
};

// What the timeline follows of one process while reading: reset at its "Start Watch Dog".
struct Work {
    std::deque<Exit> pending;  // exits not yet attributed to a session
    unsigned long newPid = 0;
    long long runKeyStart = -1;
    std::string lastError;
};

struct Counts {
    size_t starts = 0, restarts = 0, graceful = 0, crashes = 0, offs = 0, ons = 0, failures = 0, loops = 0;
};

class CTimeline {
public:
    // Events before since or after until (-1: none) are neither shown, folded nor counted; the
    // state of the processes is read from every line.
    CTimeline(LogState& state, bool bJson, long long since, long long until)
        : m_state(state), m_bJson(bJson), m_since(since), m_until(until) {}

    void Add(const std::string& file, size_t number, const std::string& text) {
        Line line;
        std::string why;
        if (!ParseLine(text, line, why)) {
            m_bCounted = InWindow(m_lastSeconds);
            m_malformed += m_bCounted ? 1 : 0;
            Entry e = Make(m_lastSeconds, 0, -1, "malformed",
                           "MALFORMED " + file + ":" + std::to_string(number) + " (" + why +
                               "): " + Escape(text.substr(0, 200)));
            e.bTimed = false;
            e.message = text;
            Put(e);
            return;
        }
        m_bCounted = InWindow(line.seconds);
        m_lines += m_bCounted ? 1 : 0;
        m_message = line.message;
        ++m_parsed;
        m_lastSeconds = line.seconds;
        Handle(line);
        m_message.clear();  // events made later (at a flush) are of no one line
    }

    // Restarts held back for a crash loop; at the end also the exits still waiting for the line
    // that names their session.
    void Flush(bool bEnd) {
        if (bEnd) {
            for (auto& work : m_work) {
                Unattributed(work.first, work.second);
            }
        }
        for (auto& run : m_runs) {
            FlushRun(run.first);
        }
    }

    // The entries so far in time order.
    std::vector<Entry> Take() {
        std::stable_sort(m_entries.begin(), m_entries.end(), [](const Entry& a, const Entry& b) {
            return a.seconds != b.seconds ? a.seconds < b.seconds : a.seq < b.seq;
        });
        std::vector<Entry> entries;
        entries.swap(m_entries);
        return entries;
    }

    void Summary(std::ostream& out, long long session) const {
        out << "\nSummary: " << m_lines << " log lines, " << m_malformed << " malformed, " << m_supervisors
            << " supervisor start(s), " << m_runKeys << " run-key instance(s), " << m_errors << " error(s), "
            << m_unattributed << " agent exit(s) not attributed to a session, " << m_lostLines
            << " line(s) the watchdog could not write\n";
        for (const auto& entry : m_counts) {
            if (session >= 0 && entry.first != session) {
                continue;
            }
            const Counts& s = entry.second;
            out << "  session " << entry.first << ": " << s.starts << " agent start(s), " << s.restarts
                << " restart(s), " << s.crashes << " ungraceful end(s), " << s.graceful
                << " graceful end(s), " << s.offs << " off, " << s.ons << " on again, " << s.failures
                << " failed start(s)" << (s.loops > 0 ? ", CRASH LOOP" : "") << "\n";
        }
    }

    size_t Lines() const { return m_parsed; }  // every line in the log's form, in the window or not

private:
    Entry Make(long long seconds, unsigned long pid, long long session, const char* event,
               const std::string& text) {
        Entry e;
        e.seconds = seconds;
        e.pid = pid;
        e.session = session;
        e.event = event;
        e.text = text;
        e.line = m_message;
        return e;
    }

    bool InWindow(long long seconds) const {
        return (m_since < 0 || seconds >= m_since) && (m_until < 0 || seconds <= m_until);
    }

    // A session's counts, or a scratch copy for a line outside the window.
    Counts& CountsOf(long long session) {
        m_ignored = Counts();
        return m_bCounted ? m_counts[session] : m_ignored;
    }

    // Restarts of a session in a row, each soon after the last with the same exit code, are held
    // back and told as one crash loop when there are enough of them.
    void Put(Entry e) {
        e.seq = m_seq++;
        if (!InWindow(e.seconds)) {
            return;
        }
        if (e.session >= 0 && e.event == "agent_restarted") {
            std::vector<Entry>& run = m_runs[e.session];
            if (!run.empty() &&
                !ContinuesRun({run.back().seconds, static_cast<unsigned long>(run.back().exitCode)},
                              {e.seconds, static_cast<unsigned long>(e.exitCode)})) {
                FlushRun(e.session);
            }
            run.push_back(e);
            return;
        }
        if (e.session >= 0) {
            FlushRun(e.session);
        }
        m_entries.push_back(e);
    }

    void FlushRun(long long session) {
        std::vector<Entry>& run = m_runs[session];
        if (run.size() >= CRASH_LOOP_RESTARTS) {
            ++m_counts[session].loops;  // its restarts are all in the window
            const unsigned long code = static_cast<unsigned long>(run.front().exitCode);
            Entry loop = Make(run.front().seconds, run.front().pid, session, "crash_loop",
                              "CRASH LOOP: restarted " + std::to_string(run.size()) + " times " +
                                  FormatTime(run.front().seconds).substr(11) + "-" +
                                  FormatTime(run.back().seconds).substr(11) + ", exit " + ExitName(code));
            loop.line.clear();  // it stands for several lines, not the one being read
            loop.seq = run.front().seq;
            loop.exitCode = run.front().exitCode;
            loop.graceful = run.front().graceful;
            loop.count = static_cast<long long>(run.size());
            loop.until = run.back().seconds;
            m_entries.push_back(loop);
        }
        if (run.size() < CRASH_LOOP_RESTARTS || m_bJson) {
            m_entries.insert(m_entries.end(), run.begin(), run.end());
        }
        run.clear();
    }

    void Unattributed(unsigned long pid, Work& work) {
        for (const Exit& exit : work.pending) {
            m_unattributed += InWindow(exit.seconds) ? 1 : 0;
            Entry e = Make(
                exit.seconds, pid, -1, "agent_exit_unattributed",
                "an agent ended, exit " + ExitName(exit.code) + "; the log does not tell in which session");
            e.exitCode = exit.code;
            e.graceful = exit.graceful;
            Put(e);
        }
        work.pending.clear();
    }

    Entry Ended(const Exit& exit, unsigned long pid, long long session, const char* event,
                const std::string& what) {
        Entry e =
            Make(exit.seconds, pid, session, event,
                 "agent ended, exit " + ExitName(exit.code) + (exit.graceful ? " (graceful)" : "") + what);
        e.exitCode = exit.code;
        e.graceful = exit.graceful;
        return e;
    }

    bool TakeExit(Work& work, Exit& exit) {
        if (work.pending.empty()) {
            return false;
        }
        exit = work.pending.front();
        work.pending.pop_front();
        return true;
    }

    void Error(const Line& line, Work& work, ProcessLog& process) {
        const std::string& msg = line.message;
        const std::string before = work.lastError;
        work.lastError = msg;
        m_errors += m_bCounted ? 1 : 0;
        m_state.recentErrors.push_back(FormatTime(line.seconds) + " [" + std::to_string(line.pid) + "] " +
                                       Escape(msg));
        if (m_state.recentErrors.size() > RECENT_ERRORS) {
            m_state.recentErrors.erase(m_state.recentErrors.begin());
        }
        const Recognised& known = line.known;
        const long long err = known.Number("err");
        const std::string meaning =
            Win32Meaning(err).empty() ? "" : " (" + std::to_string(err) + ": " + Win32Meaning(err) + ")";
        if (known.Is(EMsg::LINES_LOST)) {
            const long long lost = known.Number("count");
            m_lostLines += m_bCounted ? static_cast<size_t>(lost) : 0;
            m_state.lostLines += lost;
            Entry e = Make(line.seconds, line.pid, -1, "log_gap",
                           "LOG GAP: " + std::to_string(lost) +
                               " line(s) of this process could not be written before this point" + meaning);
            e.count = lost;
            e.message = msg;
            Put(e);
            return;
        }
        if (known.Is(EMsg::INSTALL_KEY_RETURNED)) {
            Put(Make(
                line.seconds, line.pid, -1, "gate_reinstall",
                "start gate: the install key was deleted and created again (a reinstall); watched again"));
            return;
        }
        // A failed start and a shell check name the session whose agent was not started.
        const bool bFailed = known.Is(EMsg::AGENT_START_FAILED);
        const long long id = known.Number("session");
        if (bFailed) {
            ++CountsOf(id).failures;
            SessionLog& s = process.sessions[id];
            s.eState = SessionLog::START_FAILED;
            s.since = line.seconds;
            s.why = Escape(before);
        }
        Entry e = Make(line.seconds, line.pid, id, known.pMessage != nullptr ? "error" : "unknown",
                       "ERROR " + Escape(msg) + meaning);
        e.message = msg;
        Put(e);
        process.bRefused =
            process.bRefused || known.Is(EMsg::ANOTHER_INSTANCE) || known.Is(EMsg::MUTEX_FAILED);
        // The main loop's wait failed: the supervisor closes its agents and shuts down.
        if (known.Is(EMsg::MAIN_WAIT_FAILED)) {
            process.lastEvent = "main_wait_failed";
            SupervisionEnds(line, process, "a failed wait");
        }
        // Errors after which the watchdog returns -1 at once.
        static const EMsg s_fatal[] = {EMsg::ANOTHER_INSTANCE,
                                       EMsg::MUTEX_FAILED,
                                       EMsg::TERMINATE_EVENT_FAILED,
                                       EMsg::INSTANCE_FAILED,
                                       EMsg::WORKING_PATH_FAILED,
                                       EMsg::AGENT_PATH_FAILED,
                                       EMsg::GATE_FAILED,
                                       EMsg::RELOAD_EVENT_FAILED,
                                       EMsg::STOP_EVENT_FAILED,
                                       EMsg::CLOSE_AND_WAIT_EVENT_FAILED,
                                       EMsg::SHUTDOWN_EVENT_FAILED,
                                       EMsg::HOST_MISSING};
        if (std::any_of(std::begin(s_fatal), std::end(s_fatal), [&known](EMsg id) { return known.Is(id); })) {
            EndsFailed(line, process);
        }
    }

    void EndsFailed(const Line& line, ProcessLog& process) {
        Entry e = Make(line.seconds, line.pid, -1, "ended", "ended (exit code -1)");
        e.exitCode = 0xFFFFFFFF;
        e.bOwnExit = true;
        process.bFinished = true;
        process.ended = line.seconds;
        process.exitCode = -1;
        Put(e);
    }

    // A supervisor that serves holds the mutex: an earlier one without an end is gone, killed or
    // crashed, after its last line.
    void EarlierGone(const Line& line) {
        for (auto& entry : m_state.processes) {
            ProcessLog& old = entry.second;
            if (entry.first != line.pid && !old.bRunKey && !old.bFinished && !old.bGone &&
                old.started <= line.seconds) {
                old.bGone = true;
                Put(Make(old.lastSeen, entry.first, -1, "gone",
                         "no end in the log: killed or crashed after its last line (process " +
                             std::to_string(line.pid) + " serves from " + FormatTime(line.seconds) + ")"));
            }
        }
    }

    void Handle(const Line& line) {
        const Recognised& known = line.known;
        if (known.Is(EMsg::START)) {
            Unattributed(line.pid, m_work[line.pid]);
            m_work[line.pid] = Work();
            m_state.processes[line.pid] = ProcessLog();
            m_state.processes[line.pid].started = line.seconds;
            m_state.processes[line.pid].lastSeen = line.seconds;
            m_state.processes[line.pid].order = ++m_starts;
            return;
        }
        Work& work = m_work[line.pid];
        ProcessLog& process = m_state.processes[line.pid];
        process.lastSeen = line.seconds;
        if (line.error) {
            Error(line, work, process);
            return;
        }
        if (known.pMessage == nullptr) {
            Entry e = Make(line.seconds, line.pid, -1, "unknown", "UNKNOWN message: " + Escape(line.message));
            e.message = line.message;
            Put(e);
            return;
        }
        const long long n = known.Number("session");
        if (known.Is(EMsg::AGENT_CREATED)) {
            work.newPid = static_cast<unsigned long>(known.Number("pid"));
        } else if (known.Is(EMsg::AGENT_EXITS)) {
            work.pending.push_back({line.seconds, static_cast<unsigned long>(known.Number("exitcode")),
                                    known.Number("graceful") != 0});
        } else if (known.Is(EMsg::AGENT_STARTED)) {
            Started(line, n, work, process.sessions[n]);
        } else if (known.Is(EMsg::SESSION_OFF)) {
            Off(line, n, work, process.sessions[n]);
        } else if (known.Is(EMsg::SESSION_ON)) {
            ++CountsOf(n).ons;
            Put(Make(line.seconds, line.pid, n, "session_on", "on again: registered with a new shell"));
        } else if (known.Is(EMsg::SE_AGNT_MAX_NUM)) {
            process.seAgntMaxNum = known.Number("count");
        } else {
            ProcessEvent(line, work, process);
        }
    }

    void Started(const Line& line, long long id, Work& work, SessionLog& s) {
        Counts& counts = CountsOf(id);
        ++counts.starts;
        s.eState = SessionLog::RUNNING;
        s.agentPid = work.newPid;
        s.since = line.seconds;
        const std::string pid = " (pid " + std::to_string(work.newPid) + ")";
        Exit exit;
        if (!TakeExit(work, exit)) {
            Entry e = Make(line.seconds, line.pid, id, "agent_started", "agent started" + pid);
            e.agentPid = work.newPid;
            Put(e);
            return;
        }
        ++counts.crashes;
        ++counts.restarts;
        s.restarts.push_back({line.seconds, exit.code});
        s.exitCode = exit.code;
        Entry e = Ended(exit, line.pid, id, "agent_restarted", "; restarted" + pid);
        e.agentPid = work.newPid;
        Put(e);
    }

    void Off(const Line& line, long long id, Work& work, SessionLog& s) {
        Counts& counts = CountsOf(id);
        ++counts.offs;
        Exit exit;
        if (TakeExit(work, exit)) {
            ++(exit.graceful ? counts.graceful : counts.crashes);
            s.exitCode = exit.code;
            s.since = exit.seconds;
            s.eState = exit.graceful ? SessionLog::GRACEFUL_END : SessionLog::RESTART_FAILED;
            Put(Ended(exit, line.pid, id, exit.graceful ? "agent_ended" : "agent_restart_failed",
                      exit.graceful ? "" : ", could not be restarted" + (s.why.empty() ? "" : ": " + s.why)));
        }
        Put(Make(line.seconds, line.pid, id, "session_off", "off: no agent until the user logs on again"));
    }

    // A request or the host's end that ends supervision: running agents are no longer restarted.
    void SupervisionEnds(const Line& line, ProcessLog& process, const std::string& cause) {
        for (auto& entry : process.sessions) {
            SessionLog& s = entry.second;
            if (s.eState == SessionLog::RUNNING) {
                s.eState = SessionLog::SUPERVISION_ENDED;
                s.since = line.seconds;
                s.why = cause;
                Entry e = Make(line.seconds, line.pid, entry.first, "supervision_ended",
                               "agent (pid " + std::to_string(s.agentPid) +
                                   ") no longer supervised: " + cause + "; it is not restarted when it ends");
                e.agentPid = s.agentPid;
                Put(e);
            }
        }
    }

    void ProcessEvent(const Line& line, Work& work, ProcessLog& process) {
        struct Event {
            EMsg eMessage;
            const char* event;
            const char* text;
            const char* ends;  // the cause, when supervision ends with it
        };
        static const Event s_events[] = {
            {EMsg::STARTED, "supervisor_started", "supervisor started", nullptr},
            {EMsg::GATE_WAIT, "gate", "waits at its start gate (SetStartEvent)", nullptr},
            {EMsg::GATE_PASSED, "gate_passed", "start gate passed; sessions registered", nullptr},
            {EMsg::MAIN_LOOP, "serving", "serving: main loop", nullptr},
            {EMsg::REQUEST_RELOAD, "request_reload", "request served: reload", nullptr},
            {EMsg::REQUEST_STOP, "request_stop", "request served: stop (supervision stopped until a reload)",
             "a stop request"},
            {EMsg::REQUEST_TERMINATE, "request_terminate", "request served: terminate",
             "a terminate request"},
            {EMsg::HOST_ENDED, "host_ended", "the host process ended: final wait", "the host process's end"},
            {EMsg::REQUEST_UPDATE, "request_update", "request served: update (closes without stopping Keld)",
             nullptr},
            {EMsg::REQUEST_CLOSE_AND_WAIT, "request_close_and_wait",
             "request served: close agents and wait: final wait", "a close-agents-and-wait request"},
            {EMsg::HAND_OVER, "hand_over", "hand-over: asks the waiting predecessor to start Keld", nullptr},
            {EMsg::KELD_START, "keld_start_asked",
             "asks the service control manager to start Keld (the log records no result)", nullptr},
            {EMsg::KELD_RUNNING, "keld_running", "Keld already runs: not started again", nullptr},
            {EMsg::HAND_OVER_DONE, "hand_over_done", "hand-over done", nullptr},
            {EMsg::FINISHED, "ended", "ended (exit code 0)", nullptr},
            {EMsg::TERMINATE_PENDING, "refused", "refused: a terminate request was pending", nullptr},
            {EMsg::GATE_TERMINATE, "gate_terminate", "terminate request at the start gate", nullptr},
        };
        const Recognised& known = line.known;
        if (known.Is(EMsg::RUN_KEY_STARTED)) {
            process.bRunKey = true;
            work.runKeyStart = line.seconds;
            return;
        }
        if (known.Is(EMsg::RUN_KEY_EXIT)) {
            const long long n = known.Number("ret");
            m_runKeys += m_bCounted ? 1 : 0;
            Entry e = Make(work.runKeyStart >= 0 ? work.runKeyStart : line.seconds, line.pid, -1, "run_key",
                           n == 0 ? "run-key instance: asked the supervisor to reload"
                                  : "run-key instance: no supervisor to notify (exit code -1)");
            e.exitCode = static_cast<long long>(static_cast<unsigned int>(n));
            e.bOwnExit = true;
            process.ended = line.seconds;
            process.exitCode = n;
            Put(e);
            return;
        }
        for (const Event& event : s_events) {
            if (!known.Is(event.eMessage)) {
                continue;
            }
            const std::string id = event.event;
            m_supervisors += id == "supervisor_started" && m_bCounted ? 1 : 0;
            process.bHandOver = id == "hand_over" || (process.bHandOver && id != "hand_over_done");
            process.bKeldAsked = process.bKeldAsked || id == "keld_start_asked" || id == "keld_running";
            process.bFinished = process.bFinished || id == "ended";
            process.lastEvent = id;
            process.bRefused = process.bRefused || id == "refused";
            if (id == "serving") {
                EarlierGone(line);
            }
            Entry e = Make(line.seconds, line.pid, -1, event.event, event.text);
            if (id == "ended") {
                e.exitCode = 0;
                e.bOwnExit = true;
                process.ended = line.seconds;
                process.exitCode = 0;
            }
            Put(e);
            if (event.ends != nullptr) {
                SupervisionEnds(line, process, event.ends);
            }
            if (id == "refused") {
                EndsFailed(line, process);
            }
            return;
        }
    }

    LogState& m_state;
    bool m_bJson;
    long long m_since, m_until;
    bool m_bCounted = true;  // the line being read is inside the window
    size_t m_parsed = 0;
    size_t m_starts = 0;
    std::string m_message;  // of the line being read
    Counts m_ignored;
    size_t m_seq = 0;
    long long m_lastSeconds = 0;
    size_t m_lines = 0, m_malformed = 0, m_errors = 0, m_supervisors = 0, m_runKeys = 0, m_unattributed = 0,
           m_lostLines = 0;
    std::map<long long, Counts> m_counts;
    std::map<unsigned long, Work> m_work;
    std::map<long long, std::vector<Entry>> m_runs;
    std::vector<Entry> m_entries;
};

}  // namespace

struct CTimelineFold::Impl {
    Impl(LogState& state, bool bJson, long long since, long long until)
        : timeline(state, bJson, since, until) {}
    CTimeline timeline;
};

CTimelineFold::CTimelineFold(LogState& state, bool bJson, long long since, long long until)
    : m_pImpl(new Impl(state, bJson, since, until)) {}
CTimelineFold::~CTimelineFold() = default;
void CTimelineFold::Add(const std::string& file, size_t number, const std::string& text) {
    m_pImpl->timeline.Add(file, number, text);
}
void CTimelineFold::Flush(bool bEnd) { m_pImpl->timeline.Flush(bEnd); }
std::vector<Entry> CTimelineFold::Take() { return m_pImpl->timeline.Take(); }
void CTimelineFold::Summary(std::ostream& out, long long session) const {
    m_pImpl->timeline.Summary(out, session);
}
size_t CTimelineFold::Lines() const { return m_pImpl->timeline.Lines(); }

bool ReadLogState(const std::vector<std::string>& files, LogState& state, std::string& why) {
    CTimelineFold timeline(state, false, -1, -1);
    for (const std::string& file : files) {
        std::vector<std::string> lines;
        if (!ReadLines(file, lines, why)) {
            why.insert(0, file + " ");
            return false;
        }
        for (size_t i = 0; i < lines.size(); ++i) {
            timeline.Add(file, i + 1, lines[i]);
        }
    }
    return true;
}

}  // namespace QoWatchCtl
