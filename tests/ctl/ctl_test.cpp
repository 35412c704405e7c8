// QoWatchCtl's log reader against logs in the watchdog's form: the story it tells, what it
// attributes and flags, and damaged input. Portable: runs natively and under Wine.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "ctl/LogTimeline.h"
#include "ctl/Vocabulary.h"

namespace {

// One log line at 20:MM:SS, as the watchdog writes it.
std::string L(int minute, int second, int pid, const std::string& message, bool error = false) {
    char time[32];
    std::snprintf(time, sizeof(time), "Mon Nov 16 20:%02d:%02d 2026", minute, second);
    return "[" + std::string(time) + "][" + std::to_string(pid) + "][Pellisk][.\\QoWatchDog][1][" +
           (error ? "ERROR" : "INFO") + "]" + message + "\r\n";
}

// A value for field i of a message's text, of the field's kind: a number, a word or a text with
// spaces and the message's own punctuation in it.
std::wstring Sample(const char* text, size_t i) {
    for (size_t n = 0; (text = std::strchr(text, '{')) != nullptr; ++n, ++text) {
        const char* close = std::strchr(text, '}');
        const std::string placeholder(text + 1, close);
        if (n == i)
            return placeholder.find(":s") != std::string::npos ? L"C:\\Program Files (x86)\\a, b=1. c"
                   : placeholder.find(":h") != std::string::npos
                       ? L"00000000000001A4"
                       : std::to_wstring(i % 2 == 0 ? 4000000000LL + static_cast<long long>(i) : -7LL);
    }
    return L"";
}

template <QoLog::EMsg E, size_t... I>
std::wstring Written(QoLog::Msg<E> message, std::index_sequence<I...>) {
    std::wostringstream out;
    QoLog::WriteMessage(out, message, Sample(QoLog::Message(E).pszText, I)...);
    return out.str();
}

// Each message as the watchdog writes it, with sample fields.
const std::vector<std::pair<QoLog::EMsg, std::wstring>>& Catalogue() {
    static const std::vector<std::pair<QoLog::EMsg, std::wstring>> s_written = {
#define QO_WRITTEN(id, level, text) \
    {QoLog::EMsg::id,               \
     Written(QoMsg::id,             \
             std::make_index_sequence<QoLog::FieldCount(QoLog::Message(QoLog::EMsg::id).pszText)>{})},
        QO_LOG_MESSAGES(QO_WRITTEN)
#undef QO_WRITTEN
    };
    return s_written;
}

struct Result {
    int code;
    std::string out;
};

// Writes the files (named name0, name1, ... or as given) into a folder of this run's own and reads
// them: given as arguments, or, with no names of their own, as the log beside its rotated files.
Result Timeline(const std::vector<std::string>& contents, std::vector<std::string> args = {},
                const std::vector<std::string>& names = {},
                const std::function<bool(const std::filesystem::path&)>& follow = {}) {
    static int s_run = 0;
    const auto dir = std::filesystem::temp_directory_path() /
                     ("qoctl-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) +
                      "-" + std::to_string(++s_run));
    std::filesystem::create_directories(dir);
    for (size_t i = 0; i < contents.size(); ++i) {
        const auto path = dir / (names.empty() ? "qoctl-" + std::to_string(i) + ".log" : names[i]);
        std::ofstream(path, std::ios::binary) << contents[i];
        if (names.empty())
            args.insert(args.begin() + i, path.string());  // the files before the options
        std::string upper = path.string();
        std::transform(upper.begin(), upper.end(), upper.begin(),
                       [](char c) { return static_cast<char>(std::toupper(c)); });
        std::replace(args.begin(), args.end(), "@" + std::to_string(i), path.string());
        std::replace(args.begin(), args.end(), "@U" + std::to_string(i), upper);
    }
    std::ostringstream out;
    const auto log = dir / "QoWatchDog.log";
    const int code = QoWatchCtl::RunLog(
        args, log.string(), out, out, follow ? std::function<bool()>([&] { return follow(log); }) : nullptr);
    return {code, out.str()};
}

void ExpectHas(const std::string& out, const std::vector<std::string>& parts) {
    for (const std::string& part : parts)
        EXPECT_NE(std::string::npos, out.find(part)) << "missing: " << part << "\n" << out;
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
        L(0, 6, 10, "OpenProcess Err=87", true) + L(0, 6, 10, "Gr\xC3\xBC\xC3\x9F \"q\" \\ \xFF", true) +
        L(0, 7, 10, "3 log lines lost: the log could not be written, last error=32", true);
    for (int i = 0; i < 5; ++i)  // session 3 crashes five times within a minute
        life += Exit(1, 10 * i, 10, 0, "1") + Started(1, 10 * i, 10, 40 + i, 3);
    // Six restarts each of sessions 5 and 6, no crash loop: 5's change their exit code half-way,
    // 6's are parted by an event of the session.
    for (int i = 0; i < 6; ++i) {
        life += Exit(1, 50, 10, 0, i < 3 ? "1" : "2") + Started(1, 50, 10, 60 + i, 5) +
                (i == 3 ? L(1, 50, 10, "session (6) is on again.") : "") + Exit(1, 50, 10, 0, "1") +
                Started(1, 50, 10, 70 + i, 6);
    }
    life += Exit(2, 0, 10, 0, "1") + L(2, 0, 10, "CreateProcessAsUser GetLastError=2", true) +
            L(2, 0, 10, " Create Session Agent failed session ID = 3", true) +
            L(2, 0, 10, "session (3) is off.") + L(2, 0, 10, "Session Agent re-create failed", true) +
            Exit(2, 5, 10, 1, "0") + L(2, 9, 10, "Product Adapter Terminate Event!!") +
            L(2, 9, 10, "Watch Dog finished") +
            // A run-key instance after the exit at 20:02:05, which is told only at its process's end.
            L(2, 9, 30, "Start Watch Dog") + L(2, 9, 30, "Watch Dog started by runkey") +
            L(2, 10, 30, "Exit Watch Dog From Run Key. nRet=0") +
            // The process id used again: the earlier exit stays unattributed, the start is a start.
            L(3, 0, 10, "Start Watch Dog") + L(3, 0, 10, "Watch Dog started") + Started(3, 1, 10, 50, 4) +
            L(3, 2, 10, "WaitForMultipleObjects Error", true) +
            // Refused: it returns -1. Then one that serves while 10 has logged no end: 10 is gone.
            L(4, 0, 90, "Start Watch Dog") + L(4, 0, 90, "Watch Dog started") +
            L(4, 0, 90, "Another instance is running!!", true) + L(4, 10, 80, "Start Watch Dog") +
            L(4, 10, 80, "Watch Dog started") + L(4, 11, 80, "Enter WaitForMultipleObjects Main Loop");
    const Result run = Timeline({life});
    EXPECT_EQ(0, run.code);
    ExpectHas(
        run.out,
        {"2026-11-16 20:00:00  [10] supervisor started\n",
         "[10] waits at its start gate",
         "[10] start gate: the install key was deleted and created again",
         "[10] LOG GAP: 3 line(s) of this process could not be written before this point (32: ",
         "[10] serving: main loop",
         "20:04:00  [90] ended (exit code -1)",
         "20:03:02  [10] no end in the log: killed or crashed after its last line (process 80 serves from "
         "2026-11-16 20:04:11)",
         "[10] session 4: agent (pid 50) no longer supervised: a failed wait; it is not restarted when it "
         "ends",
         "[10] session 1: agent started (pid 20)",
         "session 1: agent ended, exit 0xC0000005 access violation; restarted (pid 21)",
         "session 1: agent ended, exit 0xC0000142 DLL initialization failed (the session is ending) "
         "(graceful)",
         "session 1: off: no agent until the user logs on again",
         "20:02:09  [30] run-key instance: asked the supervisor to reload",
         "ERROR OpenProcess Err=87 (87: the parameter is incorrect",
         "20:01:00  [10] session 3: CRASH LOOP: restarted 5 times 20:01:00-20:01:40, exit 0x1\n",
         "session 3: agent ended, exit 0x1, could not be restarted: CreateProcessAsUser GetLastError=2",
         "ERROR CreateProcessAsUser GetLastError=2 (2: the file or key was not found)",
         "20:02:05  [10] an agent ended, exit 0x0 normal end; the log does not tell in which session",
         "session 1: agent (pid 22) no longer supervised: a terminate request; it is not restarted when it "
         "ends",
         "20:03:01  [10] session 4: agent started (pid 50)",
         "4 supervisor start(s), 2 run-key instance(s), 10 error(s), 1 agent exit(s) not attributed to a "
         "session, 3 line(s) the watchdog could not write",
         "session 1: 3 agent start(s), 1 restart(s), 1 ungraceful end(s), 1 graceful end(s), 1 off, 1 "
         "on again",
         "session 3: 5 agent start(s), 5 restart(s), 6 ungraceful end(s), 0 graceful end(s), 1 off, 0 "
         "on again, 1 failed start(s), CRASH LOOP"});
    EXPECT_EQ(std::string::npos, run.out.find("(pid 42)")) << "folded into the crash loop";
    EXPECT_EQ(run.out.find("CRASH LOOP:"), run.out.rfind("CRASH LOOP:")) << "sessions 5 and 6 are not";
    EXPECT_LT(run.out.find("20:02:05  [10] an agent ended"), run.out.find("20:02:09  [30] run-key"));

    // Narrowed to session 3 from 20:01:30 on: its end and the supervisor's events, in time order;
    // nothing of other sessions, no exit it cannot place. The crash loop's restarts in the window
    // are too few to fold: each is shown, and the summary counts what the window holds.
    const Result narrow = Timeline({life}, {"--session", "3", "--since", "2026-11-16 20:01:30"});
    ExpectHas(narrow.out, {"could not be restarted", "request served: terminate", "supervisor started",
                           "20:01:40  [10] session 3: agent ended, exit 0x1; restarted (pid 44)",
                           "session 3: 2 agent start(s), 2 restart(s), 3 ungraceful end(s)"});
    for (const char* absent : {"session 1", "does not tell", "20:01:00", "CRASH LOOP"})
        EXPECT_EQ(std::string::npos, narrow.out.find(absent)) << absent << "\n" << narrow.out;
    EXPECT_LT(narrow.out.find("could not be restarted"), narrow.out.find("request served: terminate"));
    // --since takes its own second; relative times count back from now.
    ExpectHas(Timeline({life}, {"--since", "2026-11-16T20:02:09"}).out, {"request served: terminate"});
    EXPECT_EQ(std::string::npos, Timeline({life}, {"--since", "-1h"}).out.find("supervisor started"));
    EXPECT_NE(std::string::npos, Timeline({life}, {"--since", "-20000d"}).out.find("supervisor started"));
    for (const char* recent : {"-1w", "00:00", "00:00:00"}) {
        const Result since = Timeline({life}, {"--since", recent});
        EXPECT_EQ(0, since.code) << recent;
        EXPECT_EQ(std::string::npos, since.out.find("supervisor started")) << recent;
    }
    // The last of the events that hold a text, as tail -n and grep would give them.
    const std::string lastLoop = Timeline({life}, {"--grep", "CRASH LOOP", "-n", "1"}).out;
    ExpectHas(Timeline({life}, {"--grep", "Terminate Event"}).out, {"[10] request served: terminate"});
    ExpectHas(lastLoop, {"session 3: CRASH LOOP: restarted 5 times 20:01:00-20:01:40"});
    EXPECT_EQ(std::string::npos, lastLoop.find("agent started"));

    // JSON Lines for scripts: one event a line, every restart of the loop, times with their offset.
    const Result json = Timeline({life}, {"--json", "--until", "Mon Nov 16 20:02:09 2026"});
    ExpectHas(json.out,
              {"{\"time\":\"2026-11-16T20:00:02",
               "\"event\":\"agent_restarted\",\"pid\":10,\"session\":1,"
               "\"exit_code\":3221225477,\"exit_hex\":\"0xC0000005\",\"exit_name\":\"access violation\","
               "\"graceful\":false,\"agent_pid\":21,",
               "\"event\":\"crash_loop\",\"pid\":10,\"session\":3,\"exit_code\":1,\"exit_hex\":\"0x1\","
               "\"graceful\"",
               "\"count\":5,\"until\":\"2026-11-16T20:01:40", "\"agent_pid\":44,",
               "\"event\":\"supervision_ended\"",
               "\"event\":\"ended\",\"pid\":10,\"exit_code\":0,\"exit_hex\":\"0x0\",\"exit_name\":\"normal "
               "end\",\"text\"",
               "\"event\":\"run_key\",\"pid\":30,\"exit_code\":0,\"exit_hex\":\"0x0\",\"exit_name\":\"normal "
               "end\",\"text\"",
               "\"message\":\"Gr\xC3\xBC\xC3\x9F \\\"q\\\" \\\\ \\u00FF\"}"});
    EXPECT_EQ(std::string::npos, json.out.find("\"agent_pid\":50")) << "until 20:02:09";
    std::istringstream lines(json.out);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.front() == '{' && line.back() == '}') << line;
}

TEST(Vocabulary, EveryMessageIsReadBackAsWrittenWithItsFields) {
    ASSERT_EQ(QoLog::MESSAGE_COUNT, Catalogue().size());
    QoWatchCtl::Recognised number;
    EXPECT_EQ(QoWatchCtl::EMatch::UNKNOWN,
              QoWatchCtl::Recognise("Newly created process id=x1", false, number))
        << "a number field holds digits";
    for (const auto& written : Catalogue()) {
        const QoLog::SMessage& message = QoLog::Message(written.first);
        const std::string text(written.second.begin(), written.second.end());  // the samples are ASCII
        QoWatchCtl::Recognised known;
        ASSERT_EQ(QoWatchCtl::EMatch::KNOWN, QoWatchCtl::Recognise(text, message.bError, known)) << text;
        EXPECT_STREQ(message.pszId, known.pMessage->pszId) << text;
        ASSERT_EQ(QoLog::FieldCount(message.pszText), known.fields.size()) << text;
        for (size_t i = 0; i < known.fields.size(); ++i) {
            const std::wstring sample = Sample(message.pszText, i);
            EXPECT_EQ(std::string(sample.begin(), sample.end()), known.fields[i].second) << text;
        }
        // At the other level it is not the watchdog's; cut where its last field begins, it is torn.
        QoWatchCtl::Recognised other;
        EXPECT_NE(QoWatchCtl::EMatch::KNOWN, QoWatchCtl::Recognise(text, !message.bError, other)) << text;
        const std::string pattern = message.pszText;
        if (!known.fields.empty() && pattern.compare(pattern.size() - 3, 3, ":s}") != 0) {
            const std::string cut = text.substr(0, text.rfind(known.fields.back().second));
            EXPECT_EQ(QoWatchCtl::EMatch::TORN, QoWatchCtl::Recognise(cut, message.bError, other)) << cut;
        }
    }
}

TEST(Timeline, DamagedInputIsReportedNeverDropped) {
    // A line cut short and glued to the next, a known message cut short, control bytes, an unknown
    // message: each reported where it stands, none misread.
    const std::string glued = L(0, 0, 10, "Session agent exits, graceful=0, ha");
    const std::string damaged = L(0, 0, 10, "Watch Dog started") + glued.substr(0, glued.size() - 2) +
                                L(0, 1, 10, "Start Watch Dog") + glued +
                                L(0, 1, 10, "Odd \x1b[2J\x01 \xFF\xFE text", true) +
                                L(0, 1, 10, "Something new");
    Result run = Timeline({L(0, 2, 10, "Watch Dog finished"), damaged});
    EXPECT_EQ(0, run.code);
    ExpectHas(run.out, {"files read in the order of their first time stamp",
                        "qoctl-1.log:2 (holds a second line's time stamp",
                        "qoctl-1.log:3 (a known message with a field missing",
                        "ERROR Odd \\x1B[2J\\x01 \\xFF\\xFE text", "supervisor started",
                        "ended (exit code 0)", "Summary: 4 log lines, 2 malformed",
                        "UNKNOWN message: Something new", "0 agent exit(s) not attributed"});
    EXPECT_LT(run.out.find("qoctl-1.log"), run.out.find("qoctl-0.log"));
    EXPECT_EQ(std::string::npos, run.out.find_first_of("\x1b\xFF"));

    // A file given twice is read once; one that cannot be read is told, and the others are read.
    run = Timeline({L(0, 0, 10, "Watch Dog started")}, {"@0", "missing.log"});
    EXPECT_EQ(2, run.code);
    ExpectHas(run.out,
              {"is given twice: read once", "missing.log cannot be read: not found", "Summary: 1 log lines"});
#ifdef _WIN32
    // On Windows a name in other letters is the same file.
    ExpectHas(Timeline({L(0, 0, 10, "Watch Dog started")}, {"@U0"}).out, {"is given twice: read once"});
#endif

    // A UTF-16 log is read by its byte order mark; a folder, an empty file and a text that is no log
    // are refused; every option is checked.
    std::string utf16 = "\xFF\xFE";
    for (const char c : L(0, 0, 10, "Watch Dog started"))
        utf16 += std::string(1, c) + '\0';
    run = Timeline({utf16,
                    "[Tue Jan 05 10:00:00 2027][10][Pellisk][.\\x][1][INFO]Watch Dog started\r\n"
                    "[Tue Feb 29 10:00:00 2028][10][Pellisk][.\\x][1][INFO]Watch Dog finished\r\n"});
    EXPECT_EQ(0, run.code) << run.out;
    ExpectHas(run.out,
              {"2026-11-16 20:00:00  [10] supervisor started", "2027-01-05 10:00:00  [10] supervisor started",
               "2028-02-29 10:00:00  [10] ended", "Summary: 3 log lines, 0 malformed"});
    run = Timeline({"not a log\nat all\n", ""});
    EXPECT_EQ(1, run.code);
    ExpectHas(run.out,
              {"is not a watchdog log: none of its 2 lines has the log's form", "(empty)", "is empty"});
    EXPECT_EQ(2, Timeline({}).code) << "the default log is missing";
    EXPECT_EQ(1, Timeline({""}).code) << "an empty file holds no log line";
    const std::vector<std::vector<std::string>> wrong = {{"--since", "2026-13-45 99:99:99"},
                                                         {"--until", "2026-02-30"},
                                                         {"--since", "24:00"},
                                                         {"-n", "x"},
                                                         {"--session", "x"},
                                                         {"--verbose"},
                                                         {"--session"},
                                                         {std::filesystem::temp_directory_path().string()}};
    for (const auto& options : wrong)
        EXPECT_EQ(2, Timeline({""}, options).code) << options[0];
    EXPECT_EQ(0, Timeline({}, {"--help"}).code);
    ExpectHas(Timeline({""}, {"--session"}).out, {"--session needs a value"});

    // The log found beside its rotated files, read oldest first by their suffix.
    run = Timeline({L(0, 9, 30, "Watch Dog finished"), L(0, 0, 20, "Watch Dog started"),
                    L(0, 5, 10, "Watch Dog started")},
                   {}, {"QoWatchDog.log", "QoWatchDog.log100", "QoWatchDog.log99"});
    EXPECT_LT(run.out.find("QoWatchDog.log99"), run.out.find("QoWatchDog.log100"));
    EXPECT_LT(run.out.find("QoWatchDog.log100"), run.out.find("QoWatchDog.log\n"));

    std::string huge;
    for (int i = 0; i < 20000; ++i)
        huge += Exit(i % 60, i % 60, 10, 0, "1") + Started(i % 60, i % 60, 10, 100 + i, i % 7);
    run = Timeline({huge}, {"--session", "0"});
    ExpectHas(run.out,
              {"Summary: 60000 log lines, 0 malformed", "0 agent exit(s) not attributed", "  session 0: "});
    EXPECT_EQ(std::string::npos, run.out.find("session 1: "))
        << "the timeline and summary of session 0 alone";
}

// --follow: lines as they are written, then across a cut (the file renamed and a new one begun).
TEST(Timeline, FollowsTheLogAcrossACut) {
    int step = 0;
    const auto steps = [&step](const std::filesystem::path& log) {
        if (++step == 1) {
            std::ofstream(log, std::ios::binary | std::ios::app) << L(0, 1, 10, "Session Reload!!");
        } else if (step == 2) {
            std::filesystem::rename(log, log.string() + "99");
            std::ofstream(log, std::ios::binary) << L(0, 2, 10, "Watch Dog finished");
        }
        return step < 3;
    };
    const Result run = Timeline({L(0, 0, 10, "Watch Dog started")}, {"--follow"}, {"QoWatchDog.log"}, steps);
    EXPECT_EQ(0, run.code);
    EXPECT_EQ(3, step);
    const std::vector<std::string> order = {"supervisor started", "request served: reload", "was cut",
                                            "ended (exit code 0)", "Summary: 3 log lines"};
    ExpectHas(run.out, order);
    for (size_t i = 1; i < order.size(); ++i)
        EXPECT_LT(run.out.find(order[i - 1]), run.out.find(order[i])) << order[i] << "\n" << run.out;

    // A log not made yet is waited for, as tail -F does.
    step = 0;
    EXPECT_EQ(0, Timeline({}, {"--follow"}, {}, [&step](const std::filesystem::path& log) {
                     std::ofstream(log, std::ios::binary) << L(0, 0, 10, "Watch Dog started");
                     return ++step < 2;
                 }).code);
    // With --until passed, nothing to come can be shown: it ends after what is there (the writes
    // would wake a follower that waits on).
    step = 0;
    EXPECT_EQ(0, Timeline({L(0, 0, 10, "Watch Dog started")}, {"--follow", "--until", "2026-11-16T20:05:00"},
                          {"QoWatchDog.log"},
                          [&step](const std::filesystem::path& log) {
                              std::ofstream(log, std::ios::binary | std::ios::app)
                                  << L(9, 0, 10, "Update Event!!");
                              return ++step < 3;
                          })
                     .code);
    EXPECT_EQ(1, step);
}

}  // namespace
