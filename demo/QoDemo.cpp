// QoDemo.exe: one life of the real QoWatchDog.exe, told step by step: what was done, what was seen,
// and the watchdog's log lines each step produced. Exits with 1 at the first step that does not go
// as told. Requests go through QoWatchCtl, as a support engineer sends them; it ends with
// QoWatchCtl status and QoWatchCtl log.
#include <windows.h>

#include <cstdio>
#include <functional>
#include <string>

#include "Harness.h"

namespace {

ULONGLONG g_start = GetTickCount64();
size_t g_linesShown = 0;
qt::Agents g_started;

// Runs one step; `act` returns what it saw, or "" when the step went wrong.
bool Step(const char* what, const std::function<std::string()>& act) {
    const std::string seen = act();
    std::printf("%6.1f s  %-44s %s\n", (GetTickCount64() - g_start) / 1000.0, what,
                seen.empty() ? "FAILED" : seen.c_str());
    const qt::Log log = qt::ReadLog();
    for (; g_linesShown < log.lines.size(); ++g_linesShown) {
        const qt::Line& line = log.lines[g_linesShown];
        std::printf("%10s| [%lu] %s%s\n", "", line.pid, line.error ? "[ERROR] " : "", line.message.c_str());
    }
    return !seen.empty();
}

// A request sent as a support engineer sends it: QoWatchCtl says what it set; empty when it could not.
bool Request(const wchar_t* pszCommand) {
    const auto [code, out] = qt::Ctl(pszCommand);
    std::printf("%10s> QoWatchCtl %s: %s", "", qt::ToUtf8(pszCommand).c_str(), out.c_str());
    return code == 0;
}

std::string Pid(DWORD pid) { return pid != 0 ? std::to_string(pid) : std::string(); }

std::string NewAgent(const char* what) {
    return g_started.Wait() ? what + std::string(" ") + Pid(qt::OnlyAgent()) : "";
}

std::string LineSeen(const std::string& text, size_t count = 1) {
    return qt::WaitLog(text, count) ? "log: " + text : "";
}

// The n-th close of supervision: once the monitor has seen it, the agents are asked to end (earlier,
// their end would count as graceful), and the monitor then sees them gone.
std::string Closed(size_t n, const std::string& what) {
    const bool closed = qt::WaitLog("KELD Stop", n);
    qt::EndAllAgents(0);
    const bool ended = closed && qt::WaitLog("Wait for All Session Agent. dwRet=0", n);
    qt::ResetAllAgents();
    return ended ? what : "";
}

std::string Exited(const qt::Proc& p, DWORD expected) {
    const std::optional<DWORD> code = qt::ExitCode(p);
    return code && *code == expected ? "exit code " + std::to_string(static_cast<int>(*code)) : "";
}

// Terminate: the n-th close, then the supervisor's end.
std::string Terminated(size_t n, const qt::Proc& supervisor) {
    const std::string closed = Closed(n, "agents ended, ");
    const std::string exited = closed.empty() ? closed : Exited(supervisor, 0);
    return exited.empty() ? exited : closed + exited;
}

}  // namespace

int main() {
    qt::Reset();
    std::printf(
        "QoWatchDog under Wine: one life. Time, step, what was seen; the log lines it wrote below.\n\n");
    qt::Proc host = qt::StartHelper(L"host.exe", L"idle");
    qt::Proc supervisor, successor, shell;
    const bool lived =
        Step("host starts the supervisor",
             [&] {
                 supervisor = qt::StartWatchDog(std::to_wstring(host.pid));
                 return qt::WaitLog("Wait for set start event.") ? "waits at its start gate" : "";
             }) &&
        Step("installer sets SetStartEvent=1",
             [] {
                 qt::SetDword(qt::kInstallKey, L"SetStartEvent", 1);
                 return NewAgent("agent started, pid");
             }) &&
        Step("the agent crashes (0xC0000005)",
             [] {
                 qt::EndAgent(qt::OnlyAgent(), 0xC0000005);
                 return NewAgent("restarted at once, pid");
             }) &&
        Step("the agent ends gracefully (0)",
             [] {
                 qt::EndAgent(qt::OnlyAgent(), 0);
                 return LineSeen("session (1) is off.");
             }) &&
        Step("the user logs on again (new shell, Run key)",
             [&] {
                 shell = qt::StartHelper(L"explorer.exe", L"idle");
                 const qt::Proc runKey = qt::StartWatchDog(L"");
                 return Exited(runKey, 0).empty() ? ""
                                                  : NewAgent("run-key instance asked for a reload; agent");
             }) &&
        Step("Product Adapter: stop",
             [] {
                 return !Request(L"stop")
                            ? ""
                            : Closed(1, "supervision stopped, agents ended; supervisor still runs");
             }) &&
        Step("reload", [] { return !Request(L"reload") ? "" : NewAgent("supervision anew, agent"); }) &&
        Step("Product Adapter: terminate",
             [&] { return !Request(L"terminate") ? "" : Terminated(2, supervisor); }) &&
        Step("host starts a new supervisor",
             [&] {
                 supervisor = qt::StartWatchDog(std::to_wstring(host.pid));
                 return NewAgent("gate open already; agent");
             }) &&
        Step("the host process ends",
             [&] {
                 TerminateProcess(host.h.get(), 0);
                 return Closed(3, "agents ended; final wait, mutex held");
             }) &&
        Step("a new host starts a successor",
             [&] {
                 host = qt::StartHelper(L"host.exe", L"idle");
                 const qt::Handle keld = qt::Own(CreateEventW(nullptr, TRUE, FALSE, qt::kKeldRunning));
                 successor = qt::StartWatchDog(std::to_wstring(host.pid));
                 const bool keldRuns = WaitForSingleObject(keld.get(), qt::kWaitMs) == WAIT_OBJECT_0;
                 return keldRuns && !Exited(supervisor, 0).empty()
                            ? NewAgent("old one started Keld and left; agent")
                            : "";
             }) &&
        Step("Product Adapter: terminate",
             [&] { return !Request(L"terminate") ? "" : Terminated(4, successor); });
    const qt::Log log = qt::ReadLog();
    for (const wchar_t* pszCommand : {L"status", L"log"}) {
        std::printf("\n> QoWatchCtl %s\n%s", qt::ToUtf8(pszCommand).c_str(),
                    qt::Ctl(pszCommand).second.c_str());
    }
    std::printf("\n%s: %zu log lines, %zu ERROR, %zu malformed.\n",
                lived ? "The life went as told" : "FAILED", log.lines.size(), log.Errors(),
                log.malformed.size());
    qt::Reset();
    return lived ? 0 : 1;
}
