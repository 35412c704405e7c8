// QoWatchCtl's log reader against logs in the watchdog's form: the story it tells, what it
// attributes and flags, and damaged input. Portable: runs natively and under Wine.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ctl/LogTimeline.h"

namespace {

// One log line at 20:MM:SS, as the watchdog writes it.
std::string L(int minute, int second, int pid, const std::string& message, bool error = false) {
    char time[32];
    std::snprintf(time, sizeof(time), "Mon Nov 16 20:%02d:%02d 2026", minute, second);
    return "[" + std::string(time) + "][" + std::to_string(pid) + "][Pellisk][.\\QoWatchDog][1][" +
           (error ? "ERROR" : "INFO") + "]" + message + "\r\n";
}

struct Result {
    int code;
    std::string out;
};

Result Timeline(const std::vector<std::string>& contents, std::vector<std::string> options = {}) {
    // A directory of this run's own: another user's or run's files may stand in the temporary one.
    static const auto s_dir =
        std::filesystem::temp_directory_path() /
        ("qoctl-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
    std::filesystem::create_directories(s_dir);
    std::vector<std::string> args;
    for (size_t i = 0; i < contents.size(); ++i) {
        const auto path = s_dir / ("qoctl-" + std::to_string(i) + ".log");
        std::ofstream(path, std::ios::binary) << contents[i];
        args.push_back(path.string());
    }
    args.insert(args.end(), options.begin(), options.end());
    std::ostringstream out;
    const int code = QoWatchCtl::RunLog(args, "missing.log", out, out);
    return {code, out.str()};
}

void ExpectHas(const std::string& out, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) {
        EXPECT_NE(std::string::npos, out.find(part)) << "missing: " << part << "\n" << out;
    }
}

std::string Started(int m, int s, int pid, int agent, int session) {
    return L(m, s, pid, "Newly created process id=" + std::to_string(agent)) +
           L(m, s, pid, " Create Session Agent successfully session ID = " + std::to_string(session));
}

std::string Exit(int m, int s, int pid, int graceful, const std::string& code) {
    return L(m, s, pid,
             "Session agent exits, graceful=" + std::to_string(graceful) + ", handle=0xbc, exitcode=" + code);
}

TEST(Timeline, ALifeAttributedFlaggedAndSummed) {
    std::string life =
        L(0, 0, 10, "Start Watch Dog") + L(0, 0, 10, "Watch Dog started") +
        L(0, 0, 10, "Wait for set start event.") +
        L(0, 1, 10,
          "Software\\Corvane\\Brevant\\0\\Install was deleted and created again: its SetStartEvent is "
          "watched again",
          true) +
        L(0, 1, 10, "Enter WaitForMultipleObjects Main Loop") + Started(0, 1, 10, 20, 1) +
        Exit(0, 2, 10, 0, "3221225477") + Started(0, 2, 10, 21, 1) + Exit(0, 3, 10, 1, "3221225794") +
        L(0, 3, 10, "session (1) is off.") + L(0, 4, 30, "Start Watch Dog") +
        L(0, 4, 30, "Watch Dog started by runkey") + L(0, 4, 30, "Exit Watch Dog From Run Key. nRet=0") +
        L(0, 5, 10, "session (1) is on again.") + Started(0, 5, 10, 22, 1) +
        L(0, 6, 10,
          "Shell process id=7 of session 2 now names svchost.exe in session 0: its token is not used", true) +
        L(0, 6, 10, "OpenProcess Err=87", true) +
        L(0, 7, 10, "3 log lines lost: the log could not be written, last error=32", true);
    for (int i = 0; i < 5; ++i) {  // session 3 crashes five times within a minute
        life += Exit(1, 10 * i, 10, 0, "1") + Started(1, 10 * i, 10, 40 + i, 3);
    }
    life += Exit(2, 0, 10, 0, "1") + L(2, 0, 10, "CreateProcessAsUser GetLastError=2", true) +
            L(2, 0, 10, " Create Session Agent failed session ID = 3", true) +
            L(2, 0, 10, "session (3) is off.") + L(2, 0, 10, "Session Agent re-create failed", true) +
            Exit(2, 5, 10, 1, "0") + L(2, 9, 10, "Product Adapter Terminate Event!!") +
            L(2, 9, 10, "Watch Dog finished");
    const Result run = Timeline({life});
    EXPECT_EQ(0, run.code);
    ExpectHas(
        run.out,
        {"[10] supervisor started",
         "[10] waits at its start gate",
         "[10] start gate: the install key was deleted and created again",
         "[10] LOG GAP: 3 line(s) of this process could not be written before this point (32: ",
         "[10] serving: main loop",
         "[10] session 1: agent started (pid 20)",
         "session 1: agent ended, exit code 3221225477 (crash: access violation); restarted (pid 21)",
         "session 1: agent ended, exit code 3221225794 (graceful: its DLLs failed to start",
         "session 1: off: no agent until the user logs on again",
         "[30] run-key instance: asked the supervisor",
         "session 1: on again",
         "ERROR OpenProcess Err=87 (87: the parameter is incorrect",
         "session 3: CRASH LOOP: restarted 5 times within 60 s",
         "session 3: agent ended, exit code 1 (ungraceful), could not be restarted",
         "ERROR CreateProcessAsUser GetLastError=2 (2: the file or key was not found)",
         "the log does not tell in which session",
         "request served: terminate",
         "ended (exit code 0)",
         "1 supervisor start(s), 1 run-key instance(s), 7 error(s), 1 agent exit(s) not attributed to a "
         "session, 3 line(s) the watchdog could not write",
         "session 1: 3 agent start(s), 1 restart(s), 1 ungraceful end(s), 1 graceful end(s), 1 off, 1 "
         "on again",
         "session 2: 0 agent start(s), 0 restart(s), 0 ungraceful end(s), 0 graceful end(s), 0 off, 0 "
         "on again, "
         "1 failed start(s)",
         "session 3: 5 agent start(s), 5 restart(s), 6 ungraceful end(s), 0 graceful end(s), 1 off, 0 "
         "on again, "
         "1 failed start(s), CRASH LOOP"});
    EXPECT_EQ(run.out.find("CRASH LOOP:"), run.out.rfind("CRASH LOOP:")) << "flagged once";

    // Narrowed to session 3 from 20:01:30 on: its last restarts and its end, nothing of the others.
    const Result narrow = Timeline({life}, {"--session", "3", "--since", "2026-11-16 20:01:30"});
    ExpectHas(narrow.out, {"session 3: agent ended, exit code 1 (ungraceful); restarted (pid 44)",
                           "could not be restarted"});
    EXPECT_EQ(std::string::npos, narrow.out.find("session 1")) << narrow.out;
    EXPECT_EQ(std::string::npos, narrow.out.find("(pid 42)")) << narrow.out;
    EXPECT_EQ(std::string::npos, narrow.out.find("supervisor started")) << narrow.out;
}

TEST(Timeline, DamagedInputIsReportedNeverDropped) {
    // A rotated file first, then the current one; a torn line and an unknown message in between.
    std::string torn = L(0, 0, 10, "Start Watch Dog").substr(0, 30) + "\r\n" + L(0, 0, 10, "x");
    torn.replace(torn.rfind("Nov"), 3, "Nav");  // no such month
    Result run = Timeline({L(0, 0, 10, "Watch Dog started") + torn + L(0, 1, 10, "Something new"),
                           L(0, 2, 10, "Watch Dog finished")});
    EXPECT_EQ(0, run.code);
    ExpectHas(run.out, {"MALFORMED", "qoctl-0.log:2: [Mon Nov 16 20:00:00 2026][10]\n", "supervisor started",
                        "ended (exit code 0)", "Summary: 3 log lines, 2 malformed"});
    EXPECT_LT(run.out.find("qoctl-0.log"), run.out.find("qoctl-1.log"));

    run = Timeline({"not a log\nat all\n", ""});
    EXPECT_EQ(1, run.code);
    ExpectHas(run.out, {"is not a watchdog log: none of its 2 lines has the log's form", "(empty)"});
    EXPECT_EQ(2, Timeline({}).code) << "the default log is missing";
    EXPECT_EQ(2, Timeline({""}, {"--since", "yesterday"}).code);
    EXPECT_EQ(2, Timeline({""}, {"--session", "x"}).code);
    EXPECT_EQ(2, Timeline({""}, {"--verbose"}).code);
    EXPECT_EQ(2, Timeline({""}, {"--session"}).code) << "an option without its value";

    std::string huge;
    for (int i = 0; i < 20000; ++i) {
        huge += Exit(i % 60, i % 60, 10, 0, "1") + Started(i % 60, i % 60, 10, 100 + i, i % 7);
    }
    run = Timeline({huge}, {"--session", "0"});
    ExpectHas(run.out,
              {"Summary: 60000 log lines, 0 malformed", "0 agent exit(s) not attributed", "  session 0: "});
    EXPECT_EQ(std::string::npos, run.out.find("session 1: "))
        << "the timeline and summary of session 0 alone";
}

}  // namespace
