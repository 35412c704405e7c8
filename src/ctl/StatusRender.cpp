#include <ostream>

#include "ctl/LogReader.h"
#include "ctl/Status.h"

// The status gathered once, told three ways: as text for a person, as JSON for scripts, and as
// Prometheus metrics for a fleet's scraper.
namespace QoWatchCtl {
namespace {

std::string JsonTime(long long seconds) {
    return seconds < 0 ? "null" : JsonString(FormatTime(seconds, true));
}

// A label value of the exposition format: backslash, quote and line feed escaped.
std::string Label(const std::string& text) {
    std::string out;
    for (const char c : text) {
        out += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
    }
    return out;
}

void Metric(std::ostream& out, const char* name, const char* type, const char* help) {
    out << "# HELP qowatchdog_" << name << " " << help << "\n# TYPE qowatchdog_" << name << " " << type
        << "\n";
}

}  // namespace

void RenderJson(const StatusReport& r, std::ostream& out) {
    out << "{\"phase\":" << JsonString(r.phase.id) << ",\"phase_text\":" << JsonString(r.phase.text)
        << ",\"exit_code\":" << r.phase.nCode << ",\"supervisor_pid\":" << r.phase.dwSupervisor
        << ",\"watchdog_processes\":[";
    for (size_t i = 0; i < r.watchdogs.size(); ++i) {
        out << (i ? "," : "") << "{\"pid\":" << r.watchdogs[i].process.dwPid
            << ",\"role\":" << JsonString(r.watchdogs[i].role)
            << ",\"started\":" << JsonTime(r.watchdogs[i].process.started) << "}";
    }
    out << "],\"set_start_event\":" << JsonString(r.gateText)
        << ",\"gate_opens\":" << (r.bGateOpens ? "true" : "false")
        << ",\"se_agnt_max_num\":" << JsonString(r.maxText)
        << ",\"se_agnt_max_num_loaded\":" << (r.loadedMax >= 0 ? std::to_string(r.loadedMax) : "null")
        << ",\"install_dir\":" << JsonString(r.installDir) << ",\"log\":" << JsonString(r.log)
        << ",\"log_fallback\":" << (r.logFallback.empty() ? "null" : JsonString(r.logFallback))
        << ",\"log_lines_lost\":" << r.lostLines << ",\"keld_service\":" << JsonString(r.keld)
        << ",\"uptime_seconds\":" << (r.uptime >= 0 ? std::to_string(r.uptime) : "null")
        << ",\"host_pid\":" << r.dwHost << ",\"host\":" << (r.host.empty() ? "null" : JsonString(r.host))
        << ",\"last_end\":" << (r.lastEnd.empty() ? "null" : JsonString(r.lastEnd))
        << ",\"pending_requests\":[";
    for (size_t i = 0; i < r.phase.pending.size(); ++i) {
        out << (i ? "," : "") << JsonString(r.phase.pending[i]);
    }
    out << "],\"supervisor_in_log\":"
        << (r.phase.dwSupervisor == 0 ? "null"
            : r.phase.bUnlogged       ? "false"
                                      : "true")
        << ",\"agent\":" << (r.bAgent ? JsonString(r.agentText) : "null") << ",\"sessions\":[";
    bool bFirst = true;
    for (const auto& entry : r.sessions) {
        const SessionView& v = entry.second;
        out << (bFirst ? "" : ",") << "{\"session\":" << entry.first << ",\"state\":" << JsonString(v.state)
            << ",\"shells\":[";
        for (size_t i = 0; i < v.shells.size(); ++i) {
            out << (i ? "," : "") << v.shells[i];
        }
        out << "],\"agents\":[";
        for (size_t i = 0; i < v.agents.size(); ++i) {
            out << (i ? "," : "") << "{\"pid\":" << v.agents[i].dwPid
                << ",\"started\":" << JsonTime(v.agents[i].started) << "}";
        }
        out << "],\"restarts_last_hour\":" << v.restartsLastHour
            << ",\"crash_loop\":" << (v.bCrashLoop ? "true" : "false")
            << ",\"why\":" << (v.why.empty() ? "null" : JsonString(v.why)) << "}";
        bFirst = false;
    }
    out << "],\"recent_errors\":[";
    for (size_t i = 0; i < r.recentErrors.size(); ++i) {
        out << (i ? "," : "") << JsonString(r.recentErrors[i]);
    }
    out << "]}\n";
}

void RenderText(const StatusReport& r, std::ostream& out) {
    out << "Supervisor: " << r.phase.text
        << (r.phase.dwSupervisor != 0 ? " (process " + std::to_string(r.phase.dwSupervisor) + ")" : "")
        << (r.phase.bUnlogged ? "; the log does not tell of it" : "");
    for (const std::string& request : r.phase.pending) {
        out << "; REQUEST PENDING: " << request << " (its event is set, the supervisor has not served it)";
    }
    if (r.uptime >= 0) {
        out << "\nUp: " << r.uptime / 86400 << "d " << r.uptime / 3600 % 24 << "h " << r.uptime / 60 % 60
            << "m " << r.uptime % 60 << "s; started by process " << r.dwHost << " (" << r.host << ")";
    }
    out << "\nLast supervisor before it: " << (r.lastEnd.empty() ? "none in the log" : r.lastEnd)
        << "\nWatchdog processes:";
    for (size_t i = 0; i < r.watchdogs.size(); ++i) {
        const WatchdogView& w = r.watchdogs[i];
        out << (i ? "; " : " ") << w.process.dwPid << " " << w.role
            << (w.process.started >= 0 ? " since " + FormatTime(w.process.started) : "");
    }
    out << (r.watchdogs.empty() ? " none" : "") << "\nSetStartEvent: " << r.gateText
        << (r.bGateOpens ? ": the start gate opens" : ": the start gate stays shut")
        << "\nSeAgntMaxNum: " << r.maxText << (r.bMaxDword ? "" : ", so the default 2147483647")
        << " in the registry; "
        << (r.loadedMax >= 0 ? "the supervisor loaded " + std::to_string(r.loadedMax) + " (once per process)"
            : r.phase.bUnlogged ? "the supervisor's load of it is not in the log"
                                : "not loaded by a supervisor")
        << "\nInstallDir: " << r.installDir << "\nLog: " << r.log
        << (r.logFallback.empty() ? "" : " (the fallback: " + r.logFallback + ")")
        << (r.logNote.empty() ? "" : " (" + r.logNote + ")")
        << (r.lostLines > 0 ? "; " + std::to_string(r.lostLines) + " line(s) it could not write" : "")
        << "\nKeld service: " << r.keld << "\nAgent: " << r.agentText
        << "\nSessions:" << (r.sessions.empty() ? " none with a shell" : "") << "\n";
    for (const auto& entry : r.sessions) {
        const SessionView& v = entry.second;
        out << "  session " << entry.first << ": shell";
        for (const DWORD dwShell : v.shells) {
            out << " " << dwShell;
        }
        out << (v.shells.empty() ? " none" : "") << "; ";
        for (const Process& p : v.agents) {
            out << "agent " << p.dwPid << (p.started >= 0 ? " since " + FormatTime(p.started) : "") << "; ";
        }
        if (v.state == "crash_loop" || v.state == "two_agents") {
            out << (v.state == "crash_loop" ? "CRASH LOOP: " : "TWO AGENTS: ");
        } else if (v.agents.empty()) {
            out << (v.state == "off" || v.state == "supervision_ended" ? "no agent: " : "NO AGENT: ");
        }
        out << (v.why.empty() ? "" : v.why + "; ") << v.restartsLastHour << " restart(s) in the last hour\n";
    }
    if (!r.recentErrors.empty()) {
        out << "Recent errors in the log:\n";
        for (const std::string& line : r.recentErrors) {
            out << "  " << line << "\n";
        }
    }
    out << "Exit code " << r.phase.nCode << "\n";
}

void RenderPrometheus(const StatusReport& r, std::ostream& out) {
    static const char* const s_phases[] = {"none",       "starting",    "gate",      "serving",
                                           "stopped",    "terminating", "update",    "closing_agents",
                                           "final_wait", "hand_over",   "keld_asked"};
    Metric(out, "phase", "gauge", "The supervisor's phase: 1 for the phase it is in, 0 for the others.");
    for (const char* pszPhase : s_phases) {
        out << "qowatchdog_phase{phase=\"" << pszPhase << "\"} " << (r.phase.id == pszPhase ? 1 : 0) << "\n";
    }
    Metric(out, "uptime_seconds", "gauge", "Seconds since the supervisor started; 0 without one.");
    out << "qowatchdog_uptime_seconds " << (r.uptime >= 0 ? r.uptime : 0) << "\n";
    Metric(out, "status_code", "gauge", "The exit code of QoWatchCtl status (0 serving, 5 no supervisor).");
    out << "qowatchdog_status_code " << r.phase.nCode << "\n";
    Metric(out, "requests_pending", "gauge", "Requests set that the supervisor's main loop has not served.");
    out << "qowatchdog_requests_pending " << r.phase.pending.size() << "\n";
    Metric(out, "gate_open", "gauge", "1 when SetStartEvent is the REG_DWORD 1 that opens the start gate.");
    out << "qowatchdog_gate_open " << (r.bGateOpens ? 1 : 0) << "\n";
    size_t agents = 0, restarts = 0, loops = 0, missing = 0, shells = 0;
    for (const auto& entry : r.sessions) {
        const SessionView& v = entry.second;
        agents += v.agents.size();
        restarts += v.restartsLastHour;
        loops += v.bCrashLoop ? 1 : 0;
        shells += v.shells.empty() ? 0 : 1;
        missing += v.state == "no_agent" || v.state == "restart_failed" ? 1 : 0;
    }
    Metric(out, "sessions", "gauge", "Sessions with a shell (explorer.exe).");
    out << "qowatchdog_sessions " << shells << "\n";
    Metric(out, "agents_running", "gauge", "Session agents running.");
    out << "qowatchdog_agents_running " << agents << "\n";
    Metric(out, "sessions_without_agent", "gauge", "Sessions with a shell whose agent is missing.");
    out << "qowatchdog_sessions_without_agent " << missing << "\n";
    Metric(out, "restarts_last_hour", "gauge", "Agent restarts in the last hour, all sessions.");
    out << "qowatchdog_restarts_last_hour " << restarts << "\n";
    Metric(out, "crash_loops", "gauge", "Sessions whose agent is in a crash loop.");
    out << "qowatchdog_crash_loops " << loops << "\n";
    Metric(out, "log_lines_lost", "gauge",
           "Log lines the watchdog told it could not write, in its log files.");
    out << "qowatchdog_log_lines_lost " << r.lostLines << "\n";
    Metric(out, "session_agents", "gauge", "Agents running in a session, with the session's state.");
    for (const auto& entry : r.sessions) {
        out << "qowatchdog_session_agents{session=\"" << entry.first << "\",state=\""
            << Label(entry.second.state) << "\"} " << entry.second.agents.size() << "\n";
    }
}

}  // namespace QoWatchCtl
