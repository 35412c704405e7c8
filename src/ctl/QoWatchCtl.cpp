// QoWatchCtl.exe: the support engineers' tool beside the watchdog. "status" reads the machine as it
// is and changes nothing; a request sets the event a client component would set, when something
// waits on it; "log" tells the watchdog's log as a timeline (ctl/LogTimeline); "report" gathers all
// of it into one file for a ticket.
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "ctl/FileWatch.h"
#include "ctl/LogReader.h"
#include "ctl/LogTimeline.h"
#include "ctl/Report.h"
#include "ctl/Status.h"
#include "foundation/Contract.h"
#include "foundation/ScopedHandle.h"

using namespace QoWatchCtl;
using QoLog::EMsg;

namespace {

struct Request {
    const char* pszCommand;
    const wchar_t* pszEvent;
    const char* pszWhat;
    std::vector<QoLog::EMsg> served;  // the supervisor's log messages that show it served
};

const Request REQUESTS[] = {
    {"reload",
     EVENT_ID_BREVANT_WATCHDOG_RELOAD,
     "the supervisor registers the sessions again",
     {EMsg::REQUEST_RELOAD}},
    {"stop",
     EVENT_ID_BREVANT_STOP_SERVICE,
     "the supervisor stops supervising the agents and goes on running",
     {EMsg::REQUEST_STOP}},
    {"terminate",
     EVENT_ID_BREVANT_TERMINATE_WATCHDOG,
     "the supervisor ends after its agents have ended",
     {EMsg::REQUEST_TERMINATE, EMsg::GATE_TERMINATE}},
    {"update",
     EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK,
     "the supervisor closes without stopping Keld",
     {EMsg::REQUEST_UPDATE}},
    {"close-and-wait",
     EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING,
     "the supervisor stops supervising and waits for a start or terminate request",
     {EMsg::REQUEST_CLOSE_AND_WAIT}},
    {"start-keld",
     EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC,
     "a supervisor in its final wait starts Keld and ends",
     {EMsg::KELD_START, EMsg::KELD_RUNNING}},
};

int Usage(std::ostream& out, int nCode) {
    out << "usage: QoWatchCtl status [--platform DIR] [--json | --prometheus]\n"
           "       QoWatchCtl reload | stop | terminate | update | close-and-wait | start-keld [--wait "
           "SECONDS]\n"
           "       QoWatchCtl log [FILE...] [--session N] [--since TIME] [--until TIME] [--grep TEXT] [-n "
           "N]\n"
           "                      [--json] [--follow|-f]\n"
           "       QoWatchCtl report [FILE]\n"
           "       QoWatchCtl --help\n";
    return nCode;
}

// Whether the supervisor wrote one of the request's lines after offset bytes of its log, waiting up
// to nSeconds for the log to grow.
bool Served(const Request& request, DWORD dwSupervisor, const std::wstring& strLog, uintmax_t offset,
            long nSeconds) {
    const ULONGLONG deadline = GetTickCount64() + static_cast<ULONGLONG>(nSeconds) * 1000;
    CFileWatch watch(std::filesystem::path(strLog).parent_path().u8string());
    CLogTail tail(Utf8(strLog), offset);
    for (;;) {
        bool bCut = false;
        for (const std::string& text : tail.Read(bCut)) {
            Line line;
            std::string why;
            if (ParseLine(text, line, why) && line.pid == dwSupervisor && line.known.pMessage != nullptr &&
                std::find(request.served.begin(), request.served.end(), line.known.pMessage->eId) !=
                    request.served.end()) {
                return true;
            }
        }
        const ULONGLONG now = GetTickCount64();
        if (now >= deadline || !watch.Wait(static_cast<long>(deadline - now))) {
            return false;
        }
    }
}

int Send(const Request& request, long nWaitSeconds) {
    std::string fallbackWhy, logWhy;
    const std::wstring strLog = LogPath(fallbackWhy);
    LogState log;
    ReadLogState(LogAndRotated(Utf8(strLog)), log, logWhy);
    const Phase phase = ReadPhase(log, Processes());
    bool bListens = false;
    for (const wchar_t* pszEvent : phase.listens) {
        bListens = bListens || wcscmp(pszEvent, request.pszEvent) == 0;
    }
    if (!bListens) {
        std::cerr << request.pszCommand << ": refused: supervisor phase: " << phase.text
                  << "; nothing acts on " << Utf8(request.pszEvent) << " in that phase\n";
        return 1;
    }
    std::error_code error;
    const uintmax_t offset = std::filesystem::file_size(std::filesystem::path(strLog), error);
    const CKernelHandle event(OpenEventW(EVENT_MODIFY_STATE, FALSE, request.pszEvent));
    if (!event.IsValid() || !SetEvent(event.Get())) {
        const DWORD dwErr = GetLastError();
        std::cerr << request.pszCommand << ": " << Utf8(request.pszEvent) << " could not be set (error "
                  << dwErr << ": " << Win32Meaning(dwErr) << ")\n";
        return 1;
    }
    std::cout << request.pszCommand << ": set " << Utf8(request.pszEvent) << ": " << request.pszWhat << "\n";
    if (nWaitSeconds < 0) {
        return 0;
    }
    if (Served(request, phase.dwSupervisor, strLog, error ? 0 : offset, nWaitSeconds)) {
        std::cout << request.pszCommand << ": served: supervisor " << phase.dwSupervisor << " logged it\n";
        return 0;
    }
    std::cerr << request.pszCommand << ": not served: supervisor " << phase.dwSupervisor << " logged no "
              << QoLog::Message(request.served.front()).pszText << " within " << nWaitSeconds << " s\n";
    return 1;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        args.push_back(Utf8(argv[i]));
    }
    const std::string command = args.empty() ? "" : args[0];
    if (command == "--help" || command == "-h" || command == "help") {
        return Usage(std::cout, 0);
    }
    if (command == "log") {
        std::string fallbackWhy;
        return RunLog(std::vector<std::string>(args.begin() + 1, args.end()), Utf8(LogPath(fallbackWhy)),
                      std::cout, std::cerr);
    }
    if (command == "status") {
        std::wstring strPlatform;
        EFormat eFormat = EFormat::TEXT;
        for (size_t i = 1; i < args.size(); ++i) {
            if ((args[i] == "--json" || args[i] == "--prometheus") && eFormat == EFormat::TEXT) {
                eFormat = args[i] == "--json" ? EFormat::JSON : EFormat::PROMETHEUS;
            } else if (args[i] == "--platform" && i + 1 < args.size()) {
                strPlatform = argv[++i + 1];
            } else {
                std::cerr << "status: unknown or incomplete option " << Escape(args[i]) << "\n";
                return Usage(std::cerr, STATUS_USAGE);
            }
        }
        if (eFormat == EFormat::PROMETHEUS) {
            std::cout.flush();
            _setmode(_fileno(stdout), _O_BINARY);  // the exposition format ends its lines with \n alone
        }
        return Status(strPlatform, eFormat, std::cout);
    }
    if (command == "report") {
        if (args.size() > 2 || (args.size() == 2 && args[1].size() > 1 && args[1][0] == '-')) {
            std::cerr << "report: takes only a file name\n";
            return Usage(std::cerr, STATUS_USAGE);
        }
        return Report(args.size() == 2 ? argv[2] : L"");
    }
    for (const Request& request : REQUESTS) {
        if (command != request.pszCommand) {
            continue;
        }
        long nWait = -1;
        if (args.size() == 3 && args[1] == "--wait" &&
            args[2].find_first_not_of("0123456789") == std::string::npos && !args[2].empty() &&
            args[2].size() < 7) {
            nWait = std::stol(args[2]);
        } else if (args.size() != 1) {
            std::cerr << command << ": takes only --wait SECONDS\n";
            return Usage(std::cerr, STATUS_USAGE);
        }
        return Send(request, nWait);
    }
    std::cerr << (command.empty() ? "no command" : "unknown command " + Escape(command)) << "\n";
    return Usage(std::cerr, STATUS_USAGE);
}
