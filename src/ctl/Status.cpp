#include "ctl/Status.h"

#include <tlhelp32.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <set>

#include "ctl/LogReader.h"
#include "foundation/AgentLocation.h"
#include "foundation/CRegKey.h"
#include "foundation/LogLocation.h"
#include "foundation/ProcessImage.h"
#include "foundation/ScopedHandle.h"
#include "foundation/SessionRecord.h"
#include "foundation/kernel_objects.h"

namespace QoWatchCtl {
namespace {

const long long HOUR = 3600;

bool SameText(const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) == 0; }

// SYNCHRONIZE alone, not CEvent::Exists's full access: the supervisor's events need not grant the
// user who runs status more than that.
bool EventExists(const wchar_t* pszName) {
    return CKernelHandle(OpenEventW(SYNCHRONIZE, FALSE, pszName)).IsValid();
}

// Only for manual-reset events: a look at an auto-reset one would take its signal.
bool ManualEventIsSet(const wchar_t* pszName) {
    const CKernelHandle event(OpenEventW(SYNCHRONIZE, FALSE, pszName));
    return event.IsValid() && WaitForSingleObject(event.Get(), 0) == WAIT_OBJECT_0;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> NamedObjects() {
    // Manual-reset events stay set until reset, so their state can be read without taking it.
    static const std::pair<const wchar_t*, bool> s_events[] = {
        {EVENT_ID_BREVANT_TERMINATE_WATCHDOG, false},
        {EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC, false},
        {EVENT_ID_BREVANT_WATCHDOG_RELOAD, false},
        {EVENT_ID_BREVANT_STOP_SERVICE, false},
        {EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK, true},
        {EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING, true},
        {EVENT_ID_BREVANT_WATCHDOG_CLOSE, true},
        {EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD, true},
        {EVENT_ID_BREVANT_START_SERVICE, true},
    };
    std::vector<std::pair<std::string, std::string>> objects;
    objects.emplace_back(
        Utf8(QO_WATCH_DOG_NAMED_MUTEX),
        BrevantUtility::OperationSystem::CMutex(QO_WATCH_DOG_NAMED_MUTEX).Exists() ? "exists" : "absent");
    for (const auto& event : s_events) {
        const bool bExists = EventExists(event.first);
        objects.emplace_back(Utf8(event.first), !bExists        ? "absent"
                                                : !event.second ? "exists (auto-reset: its state is not read)"
                                                : ManualEventIsSet(event.first) ? "exists, set"
                                                                                : "exists, not set");
    }
    return objects;
}

namespace {

std::wstring RegText(const wchar_t* pszKey, const wchar_t* pszValue) {
    CRegKey key;
    std::wstring strText;
    if (key.Open(HKEY_LOCAL_MACHINE, pszKey, KEY_READ) == ERROR_SUCCESS) {
        key.QueryValue(pszValue, strText);
    }
    return strText;
}

// The value as stored: "1 (REG_DWORD)", "\"1\" (registry type 1, not a REG_DWORD)" or "not set".
std::string RegValue(const wchar_t* pszValue, DWORD& dwValue, bool& bDword) {
    CRegKey key;
    DWORD dwType = REG_NONE;
    const LONG lResult = key.Open(HKEY_LOCAL_MACHINE, REG_INSTALL_KEY, KEY_READ) == ERROR_SUCCESS
                             ? key.QueryDword(pszValue, dwValue, &dwType)
                             : ERROR_FILE_NOT_FOUND;
    bDword = lResult == ERROR_SUCCESS;
    if (bDword) {
        return std::to_string(dwValue) + " (REG_DWORD)";
    }
    if (lResult != ERROR_DATATYPE_MISMATCH) {
        return "not set";
    }
    std::wstring strText;
    key.QueryValue(pszValue, strText);
    return "\"" + Utf8(strText) + "\" (registry type " + std::to_string(dwType) + ", not a REG_DWORD)";
}

std::string KeldState() {
    const CServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const CServiceHandle service(OpenServiceW(manager.Get(), KELD_SERVICE_NAME, SERVICE_QUERY_STATUS));
    SERVICE_STATUS status = {};
    if (!service.IsValid() || !QueryServiceStatus(service.Get(), &status)) {
        const DWORD dwErr = GetLastError();
        return "cannot be queried (error " + std::to_string(dwErr) + ": " + Win32Meaning(dwErr) + ")";
    }
    static const char* const s_states[] = {"?",       "stopped",          "start pending", "stop pending",
                                           "running", "continue pending", "pause pending", "paused"};
    return status.dwCurrentState < 8 ? s_states[status.dwCurrentState] : "?";
}

// A session's restarts whose run is still a crash loop: it has enough of them, and the next
// restart, were it now, would still continue it.
bool InCrashLoop(const std::vector<Restart>& restarts, long long now) {
    size_t run = restarts.empty() ? 0 : 1;
    for (size_t i = restarts.size(); i > 1 && ContinuesRun(restarts[i - 2], restarts[i - 1]); --i) {
        ++run;
    }
    return run >= CRASH_LOOP_RESTARTS && now - restarts.back().seconds <= CRASH_LOOP_SECONDS;
}

// Why a session with a shell has no agent, as the supervisor's log tells it; empty state when the
// log says nothing that explains it.
void Explain(const SessionLog& s, SessionView& view) {
    const std::string at = " at " + FormatTime(s.since);
    switch (s.eState) {
        case SessionLog::GRACEFUL_END:
            view.state = "off";
            view.why = "its agent ended gracefully with exit " + ExitName(s.exitCode) + at +
                       "; off until its user logs on again";
            break;
        case SessionLog::RESTART_FAILED:
            view.state = "restart_failed";
            view.why = "its agent ended with exit " + ExitName(s.exitCode) + at +
                       " and could not be restarted" + (s.why.empty() ? "" : ": " + s.why);
            break;
        case SessionLog::START_FAILED:
            view.state = "no_agent";
            view.why = "its agent could not be started" + at + (s.why.empty() ? "" : ": " + s.why);
            break;
        case SessionLog::SUPERVISION_ENDED:
            view.state = "supervision_ended";
            view.why = "supervision ended by " + s.why + at;
            break;
        default:
            break;
    }
}

// Whether a process's log is of this running process, not of an earlier one with its id: the log
// tells of its start no earlier than the process was created (a second for the clocks' rounding).
bool LogIsOf(const ProcessLog& logged, const Process& p) {
    return p.started < 0 || logged.started >= p.started - 1;
}

// The supervisor's uptime and host, and how the last supervisor before it ended.
void Lifetimes(const LogState& log, const std::vector<Process>& processes, StatusReport& r) {
    const long long now = LocalNowSeconds();
    long long started = -1;
    for (const Process& p : processes) {
        if (p.dwPid == r.phase.dwSupervisor && p.started >= 0) {
            r.uptime = now - p.started;
            started = p.started;
            r.dwHost = HostOf(p.dwPid);
        }
    }
    r.host =
        r.dwHost != 0 ? "not running: the supervisor closes its agents and waits for its final requests" : "";
    for (const Process& p : processes) {
        if (r.dwHost != 0 && p.dwPid == r.dwHost && p.started <= started) {
            r.host = Utf8(p.strName) + ", running";
        }
    }
    const std::pair<const unsigned long, ProcessLog>* pLast = nullptr;
    for (const auto& entry : log.processes) {
        const bool bRunning = std::any_of(processes.begin(), processes.end(), [&entry](const Process& p) {
            return p.dwPid == entry.first && LogIsOf(entry.second, p);
        });
        if (!entry.second.bRunKey && !entry.second.bRefused && !bRunning &&
            entry.first != r.phase.dwSupervisor &&
            (pLast == nullptr || entry.second.order > pLast->second.order)) {
            pLast = &entry;
        }
    }
    if (pLast != nullptr) {
        const ProcessLog& last = pLast->second;
        r.lastEnd =
            "process " + std::to_string(pLast->first) + " " +
            (last.ended >= 0
                 ? "ended at " + FormatTime(last.ended) + " with exit code " + std::to_string(last.exitCode)
                 : "is gone, and its log has no end: it was ended from outside (killed) or "
                   "crashed, after " +
                       FormatTime(last.lastSeen));
    }
}

// The supervisor, its successor and whether the log tells of it, into phase; its log, when it has one.
const ProcessLog* FindSupervisor(const LogState& log, const std::vector<Process>& processes, Phase& phase) {
    // The supervisor: a running watchdog whose log shows it past its start and not yet ended, the
    // newest of them; a successor that waits at the hand-over is not it yet. A watchdog the log
    // does not know (its lines not written yet, or the log moved away) is it when it is the only one.
    const ProcessLog* pSupervisor = nullptr;
    DWORD dwUnlogged = 0;
    size_t nUnlogged = 0;
    for (const Process& p : processes) {
        const auto it = log.processes.find(p.dwPid);
        if (!SameText(p.strName, WATCHDOG_IMAGE_NAME)) {
            continue;
        }
        if (it == log.processes.end() || !LogIsOf(it->second, p)) {
            dwUnlogged = p.dwPid;
            ++nUnlogged;
            continue;
        }
        if (it->second.bRunKey || it->second.bFinished) {
            continue;
        }
        if (it->second.bHandOver) {
            phase.dwSuccessor = p.dwPid;
        } else if (pSupervisor == nullptr || it->second.order > pSupervisor->order) {
            pSupervisor = &it->second;
            phase.dwSupervisor = p.dwPid;
        }
    }
    if (pSupervisor == nullptr && nUnlogged == 1) {
        phase.dwSupervisor = dwUnlogged;
        phase.bUnlogged = true;
    }
    return pSupervisor;
}

}  // namespace

Phase ReadPhase(const LogState& log, const std::vector<Process>& processes) {
    Phase phase;
    const ProcessLog* pSupervisor = FindSupervisor(log, processes, phase);
    if (!BrevantUtility::OperationSystem::CMutex(QO_WATCH_DOG_NAMED_MUTEX).Exists()) {
        // Before a supervisor holds the mutex (or while a successor waits for its predecessor's end)
        // a watchdog that is neither a run-key instance nor ended is starting.
        const DWORD dwStarting = phase.dwSupervisor != 0 ? phase.dwSupervisor : phase.dwSuccessor;
        phase.id = dwStarting != 0 ? "starting" : "none";
        phase.nCode = dwStarting != 0 ? STATUS_AT_GATE : STATUS_NONE;
        phase.text = dwStarting != 0 ? "starting: it does not hold " + Utf8(QO_WATCH_DOG_NAMED_MUTEX) + " yet"
                                     : "none: no supervisor holds " + Utf8(QO_WATCH_DOG_NAMED_MUTEX);
        phase.dwSupervisor = dwStarting;
        phase.dwSuccessor = 0;
        return phase;
    }
    const std::string last = pSupervisor != nullptr ? pSupervisor->lastEvent : std::string();
    const auto set = [&phase](int nCode, const char* id, const std::string& text,
                              std::vector<const wchar_t*> listens) {
        phase.nCode = nCode;
        phase.id = id;
        phase.text = text;
        phase.listens = std::move(listens);
    };
    const std::vector<const wchar_t*> mainLoop = {
        EVENT_ID_BREVANT_WATCHDOG_RELOAD, EVENT_ID_BREVANT_STOP_SERVICE, EVENT_ID_BREVANT_TERMINATE_WATCHDOG,
        EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK, EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING};
    if (pSupervisor != nullptr && pSupervisor->bKeldAsked) {
        set(STATUS_FINAL_WAIT, "keld_asked",
            "ending: asked to start Keld in its final wait, it waits for its agents to end", {});
    } else if (EventExists(EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC)) {
        if (phase.dwSuccessor != 0) {
            set(STATUS_FINAL_WAIT, "hand_over",
                "hand-over: in its final wait, asked to start Keld by process " +
                    std::to_string(phase.dwSuccessor) + ", which takes over when it has ended",
                {});
        } else {
            set(STATUS_FINAL_WAIT, "final_wait",
                "final wait: the host has ended or agents were closed; a successor starts Keld",
                {EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC, EVENT_ID_BREVANT_TERMINATE_WATCHDOG});
        }
    } else if (EventExists(EVENT_ID_BREVANT_START_SERVICE)) {
        set(STATUS_AT_GATE, "gate", "at its start gate (waits for SetStartEvent = 1)",
            {EVENT_ID_BREVANT_TERMINATE_WATCHDOG});
    } else if (!EventExists(EVENT_ID_BREVANT_WATCHDOG_RELOAD)) {
        set(STATUS_AT_GATE, "starting", "starting: registering the sessions", {});
    } else if (last == "request_update" ||
               (pSupervisor == nullptr && ManualEventIsSet(EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD))) {
        // The event may stay set after its supervisor has ended, while another process holds it.
        set(STATUS_STOPPED, "update", "closing for an update: agents kept until the close event is set", {});
    } else if (last == "request_terminate" || last == "main_wait_failed") {
        set(STATUS_STOPPED, "terminating",
            last == "main_wait_failed"
                ? "shutting down after its wait failed: waits for its agents to end, then ends"
                : "terminating: waits for its agents to end, then ends",
            {});
    } else if (last == "request_close_and_wait" || last == "host_ended") {
        set(STATUS_FINAL_WAIT, "closing_agents",
            "entering its final wait: its agents are told to end; it waits for a start or terminate request, "
            "then for its agents",
            {});
    } else if (ManualEventIsSet(EVENT_ID_BREVANT_WATCHDOG_CLOSE)) {
        set(STATUS_STOPPED, "stopped", "supervision stopped by a stop request; a reload restarts it",
            mainLoop);
    } else {
        set(STATUS_SERVING, "serving", "serving", mainLoop);
    }
    // A request's manual-reset event set while the main loop waits: the supervisor has not served it
    // (it is suspended or stuck), as its log would tell once it had.
    if (phase.id == "serving" || phase.id == "stopped") {
        if (ManualEventIsSet(EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK)) {
            phase.pending.emplace_back("update");
        }
        if (ManualEventIsSet(EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING)) {
            phase.pending.emplace_back("close-and-wait");
        }
    }
    return phase;
}

namespace {

// The sessions with a shell or an agent: shells by their image name, agents by the path
// Session_Agent.ini names or, without it, by the log's agent process ids.
void FindSessions(const LogState& log, const std::vector<Process>& processes, bool bAgent,
                  const std::wstring& strAgent, std::map<DWORD, SessionView>& sessions) {
    // Agents the log tells of, of any supervisor: one that was killed leaves its agents running.
    std::map<DWORD, long long> agentPids;
    for (const auto& process : log.processes) {
        for (const auto& s : process.second.sessions) {
            agentPids[s.second.agentPid] = s.second.since;
        }
    }
    const auto logged = [&agentPids](const Process& p) {
        const auto it = agentPids.find(p.dwPid);
        return it != agentPids.end() && p.started <= it->second + 1;  // not a later process of that id
    };
    for (const Process& p : processes) {
        if (SameText(p.strName, SHELL_IMAGE_NAME)) {
            sessions[p.dwSession].shells.push_back(p.dwPid);
        } else if ((bAgent && SameText(p.strImage, strAgent)) ||
                   (!bAgent && logged(p) && !SameText(p.strName, WATCHDOG_IMAGE_NAME))) {
            sessions[p.dwSession].agents.push_back(p);
        }
    }
}

// Restarts count across supervisors: a new one does not make a crashing agent new.
std::vector<Restart> RestartsOf(const LogState& log, DWORD dwSession) {
    std::vector<Restart> restarts;
    for (const auto& process : log.processes) {
        const auto it = process.second.sessions.find(dwSession);
        if (it != process.second.sessions.end()) {
            restarts.insert(restarts.end(), it->second.restarts.begin(), it->second.restarts.end());
        }
    }
    std::stable_sort(restarts.begin(), restarts.end(),
                     [](const Restart& a, const Restart& b) { return a.seconds < b.seconds; });
    return restarts;
}

// Each session's state and why, from the processes and the supervisor's log; the worst code of them.
int Classify(const LogState& log, const ProcessLog* pSupervisor, long long loadedMax,
             std::map<DWORD, SessionView>& sessions) {
    const long long now = LocalNowSeconds();
    int worst = STATUS_SERVING;
    for (auto& entry : sessions) {
        SessionView& view = entry.second;
        const SessionLog* pKnown = nullptr;
        if (pSupervisor != nullptr && pSupervisor->sessions.count(entry.first) != 0) {
            pKnown = &pSupervisor->sessions.at(entry.first);
        }
        const std::vector<Restart> restarts = RestartsOf(log, entry.first);
        view.restartsLastHour = static_cast<size_t>(std::count_if(
            restarts.begin(), restarts.end(), [now](const Restart& r) { return now - r.seconds <= HOUR; }));
        view.bCrashLoop = InCrashLoop(restarts, now);
        int code = STATUS_SERVING;
        const bool bEnded = pKnown != nullptr && pKnown->eState != SessionLog::RUNNING &&
                            pKnown->eState != SessionLog::UNKNOWN;
        if (view.agents.size() > 1) {
            view.state = "two_agents";
            view.why = std::to_string(view.agents.size()) + " agents in one session";
            code = STATUS_TWO_AGENTS;
        } else if (view.agents.empty() && bEnded) {
            Explain(*pKnown, view);
            code = view.state == "restart_failed" ? STATUS_RESTART_FAILED
                   : view.state == "no_agent"     ? STATUS_SESSIONS_MISSING
                                                  : STATUS_SERVING;
        } else if (view.bCrashLoop && !bEnded && pSupervisor != nullptr) {
            view.state = "crash_loop";
            view.why = "restarted " + std::to_string(view.restartsLastHour) +
                       " times in the last hour, the last " + FormatTime(restarts.back().seconds) +
                       "; last exit " + ExitName(restarts.back().exitCode);
            code = STATUS_CRASH_LOOP;
        } else if (!view.agents.empty()) {
            view.state = "running";
            if (pKnown != nullptr && pKnown->eState == SessionLog::SUPERVISION_ENDED) {
                view.why = "no longer restarted: supervision ended by " + pKnown->why + " at " +
                           FormatTime(pKnown->since);
            } else if (pSupervisor == nullptr) {
                view.why = "not supervised: no supervisor runs, it is not restarted when it ends";
            }
        } else if (loadedMax >= 0 && !view.shells.empty()) {
            // A monitor starts agents only while it watches fewer than the limit.
            size_t inBatch = 0;
            for (const auto& other : sessions) {
                inBatch += other.first / SESSIONS_PER_MONITOR == entry.first / SESSIONS_PER_MONITOR
                               ? other.second.agents.size()
                               : 0;
            }
            view.state = "no_agent";
            view.why = static_cast<long long>(inBatch) >= loadedMax
                           ? "left out by the agent limit: SeAgntMaxNum " + std::to_string(loadedMax) +
                                 " as loaded, and its monitor watches " + std::to_string(inBatch) +
                                 " agent(s)"
                           : "the log says nothing of it since the supervisor started";
            code = static_cast<long long>(inBatch) >= loadedMax ? STATUS_SERVING : STATUS_SESSIONS_MISSING;
        } else {
            view.state = view.shells.empty() ? "gone" : "no_agent";
            view.why = view.shells.empty() ? "no shell and no agent" : "the log says nothing of it";
            code = view.shells.empty() ? STATUS_SERVING : STATUS_SESSIONS_MISSING;
        }
        view.bCrashLoop = view.state == "crash_loop";
        // A failed restart, then a crash loop, then two agents, then a missing agent.
        static const int s_rank[] = {0, 1, 0, 0, 0, 0, 3, 4, 2};
        worst = s_rank[code] > s_rank[worst] ? code : worst;
    }
    return worst;
}

}  // namespace

StatusReport GatherStatus(const std::wstring& strPlatformGiven) {
    StatusReport r;
    const std::vector<Process> processes = Processes();
    std::string fallbackWhy, logWhy;
    const std::wstring strLog = LogPath(fallbackWhy);
    LogState log;
    const bool bLog = ReadLogState(LogAndRotated(Utf8(strLog)), log, logWhy);
    r.phase = ReadPhase(log, processes);
    Phase& phase = r.phase;
    const auto supervisorLog = log.processes.find(phase.dwSupervisor);
    const ProcessLog* pSupervisor = supervisorLog != log.processes.end() ? &supervisorLog->second : nullptr;

    // The platform directory is the supervisor's own; its Session_Agent.ini names the agent.
    std::wstring strPlatform = strPlatformGiven;
    for (const Process& p : processes) {
        if (strPlatform.empty() && p.dwPid == phase.dwSupervisor && !p.strImage.empty()) {
            strPlatform = p.strImage.substr(0, p.strImage.find_last_of(L'\\'));
        }
    }
    std::wstring strAgentDir, strAgent;
    const bool bAgent = !strPlatform.empty() && ReadAgentLocation(strPlatform, strAgentDir, strAgent);
    r.platform = strPlatform;
    r.bAgent = bAgent;
    const std::wstring strIni = strPlatform + L"\\" + SESSION_AGENT_INI;
    r.agentText = bAgent ? Utf8(strAgent)
                  : strPlatform.empty()
                      ? "unknown: no supervisor runs to tell its platform directory (give --platform DIR)"
                  : GetFileAttributesW(strIni.c_str()) == INVALID_FILE_ATTRIBUTES
                      ? "unknown: there is no " + Utf8(strIni)
                      : "unknown: no Path or Name in " + Utf8(strIni);

    FindSessions(log, processes, bAgent, strAgent, r.sessions);
    DWORD dwMaxValue = 0;
    r.maxText = RegValue(REG_VALUE_SE_AGNT_MAX_NUM, dwMaxValue, r.bMaxDword);
    const long long loadedMax = pSupervisor != nullptr ? pSupervisor->seAgntMaxNum : -1;
    r.loadedMax = loadedMax;
    const int worst = Classify(log, pSupervisor, loadedMax, r.sessions);
    if (phase.nCode == STATUS_SERVING) {
        phase.nCode = worst;
    }

    DWORD dwGate = 0;
    bool bGateDword = false;
    r.gateText = RegValue(REG_VALUE_SET_START_EVENT, dwGate, bGateDword);
    r.bGateOpens = bGateDword && dwGate == 1;
    r.installDir = Utf8(RegText(REG_KELD_KEY, REG_VALUE_INSTALL_DIR));
    r.keld = KeldState();
    for (const Process& p : processes) {
        if (SameText(p.strName, WATCHDOG_IMAGE_NAME)) {
            const auto it = log.processes.find(p.dwPid);
            r.watchdogs.push_back({p, p.dwPid == phase.dwSupervisor                     ? "supervisor"
                                      : p.dwPid == phase.dwSuccessor                    ? "successor"
                                      : it != log.processes.end() && it->second.bRunKey ? "run_key"
                                                                                        : "unknown"});
        }
    }
    r.log = Utf8(strLog);
    r.logFallback = fallbackWhy;
    r.logNote = bLog                                                            ? ""
                : GetFileAttributesW(strLog.c_str()) != INVALID_FILE_ATTRIBUTES ? logWhy
                : phase.bUnlogged
                    ? "not there: moved away or deleted while the supervisor runs; its next line "
                      "begins a new one"
                    : "not there yet";
    r.recentErrors = log.recentErrors;
    r.lostLines = log.lostLines;
    Lifetimes(log, processes, r);
    return r;
}

int Status(const std::wstring& strPlatform, EFormat eFormat, std::ostream& out) {
    const StatusReport report = GatherStatus(strPlatform);
    if (eFormat == EFormat::JSON) {
        RenderJson(report, out);
    } else if (eFormat == EFormat::PROMETHEUS) {
        RenderPrometheus(report, out);
    } else {
        RenderText(report, out);
    }
    return report.phase.nCode;
}

}  // namespace QoWatchCtl
