#include <algorithm>
#include <climits>
#include <filesystem>
#include <ostream>

#include "ctl/FileWatch.h"
#include "ctl/LogReader.h"
#include "ctl/LogTimeline.h"
#include "ctl/TimelineFold.h"

// The log command: its options, which events it shows and how, and following the log as it grows.
namespace QoWatchCtl {
namespace {

struct Options {
    std::vector<std::string> files;
    long long since = -1, until = -1, session = -1, last = -1;
    std::string grep;
    bool bJson = false, bFollow = false;
};

// Whether the options show an event; --since and --until are the fold's, which yields no event
// outside them.
bool Shown(const Entry& e, const Options& o) {
    if (!o.grep.empty() && e.text.find(o.grep) == std::string::npos &&
        e.line.find(o.grep) == std::string::npos && e.message.find(o.grep) == std::string::npos) {
        return false;
    }
    // Narrowed to one session: its own entries and the processes' events that explain its gaps.
    return o.session < 0 || (e.session >= 0 ? e.session == o.session : e.event != "agent_exit_unattributed");
}

void Print(std::ostream& out, const Entry& e, const Options& o) {
    if (!o.bJson) {
        out << (e.bTimed ? FormatTime(e.seconds) : std::string(19, ' ')) << "  "
            << (e.pid != 0 ? "[" + std::to_string(e.pid) + "] " : std::string())
            << (e.session >= 0 ? "session " + std::to_string(e.session) + ": " : std::string()) << e.text
            << "\n";
        return;
    }
    out << "{\"time\":" << (e.bTimed ? JsonString(FormatTime(e.seconds, true)) : "null")
        << ",\"event\":" << JsonString(e.event);
    if (e.pid != 0) {
        out << ",\"pid\":" << e.pid;
    }
    if (e.session >= 0) {
        out << ",\"session\":" << e.session;
    }
    if (e.exitCode >= 0) {
        const unsigned long code = static_cast<unsigned long>(e.exitCode);
        const std::string word = ExitWord(code);
        out << ",\"exit_code\":" << code << ",\"exit_hex\":" << JsonString(ExitHex(code))
            << (word.empty() ? "" : ",\"exit_name\":" + JsonString(word));
        if (!e.bOwnExit) {
            out << ",\"graceful\":" << (e.graceful ? "true" : "false");
        }
    }
    if (e.agentPid != 0) {
        out << ",\"agent_pid\":" << e.agentPid;
    }
    if (e.count >= 0) {
        out << ",\"count\":" << e.count;
    }
    if (e.until >= 0) {
        out << ",\"until\":" << JsonString(FormatTime(e.until, true));
    }
    out << ",\"text\":" << JsonString(e.text);
    if (!e.message.empty()) {
        out << ",\"message\":" << JsonString(e.message);
    }
    out << "}\n";
}

int Usage(std::ostream& out, int code) {
    out << "usage: log [FILE...] [--session N] [--since TIME] [--until TIME] [--grep TEXT] [-n N] [--json]\n"
           "           [--follow|-f]\n"
           "  TIME: 2026-11-23T11:29:55 (or with a space, a date alone, an offset such as +01:00),\n"
           "        \"Mon Nov 23 11:29:55 2026\" (the log's form), 11:29 or 11:29:55 (today), -30s, -10m, "
           "-1h,\n"
           "        -2d, -1w, today, yesterday\n";
    return code;
}

// Parses the options; -1 when they are right, else the exit code.
int ParseOptions(const std::vector<std::string>& args, Options& o, std::ostream& out, std::ostream& err) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            return Usage(out, 0);
        }
        if (arg == "--json" || arg == "--follow" || arg == "-f") {
            (arg == "--json" ? o.bJson : o.bFollow) = true;
            continue;
        }
        if (arg != "--session" && arg != "--since" && arg != "--until" && arg != "--grep" && arg != "-n") {
            if (arg.size() > 1 && arg[0] == '-') {
                err << "log: unknown option " << Escape(arg) << "\n";
                return Usage(err, 2);
            }
            o.files.push_back(arg);
            continue;
        }
        if (i + 1 == args.size()) {
            err << "log: " << arg << " needs a value\n";
            return Usage(err, 2);
        }
        const std::string& value = args[++i];
        if (arg == "--grep") {
            o.grep = value;
            continue;
        }
        const bool bNumber = arg == "--session" || arg == "-n";
        long long& target = arg == "--session" ? o.session
                            : arg == "-n"      ? o.last
                            : arg == "--since" ? o.since
                                               : o.until;
        target =
            !bNumber ? ParseTime(value)
            : value.empty() || value.size() > 9 || value.find_first_not_of("0123456789") != std::string::npos
                ? -1
                : std::stoll(value);
        if (target < 0) {
            err << "log: " << arg << " " << Escape(value) << " is not a "
                << (arg == "--session" ? "session id"
                    : bNumber          ? "count"
                                       : "time")
                << "\n";
            return Usage(err, 2);
        }
    }
    return -1;
}

// Prints the entries the options show; the first batch only its last N with -n, as tail does.
void PrintShown(std::ostream& out, const std::vector<Entry>& entries, Options& o) {
    std::vector<const Entry*> shown;
    for (const Entry& e : entries) {
        if (Shown(e, o)) {
            shown.push_back(&e);
        }
    }
    const size_t last = o.last >= 0 ? static_cast<size_t>(o.last) : shown.size();
    for (size_t i = shown.size() > last ? shown.size() - last : 0; i < shown.size(); ++i) {
        Print(out, *shown[i], o);
    }
    o.last = -1;
}

// Waits for the followed log to change; false once nothing written from now on can lie before until
// (a change after it is still read once).
bool Awaits(CFileWatch& watch, long long until) {
    if (until < 0) {
        return watch.Wait();
    }
    const long long left = until - LocalNowSeconds();
    return left >= 0 && watch.Wait(static_cast<long>(std::min(left + 1, 86400LL) * 1000));
}

// The first time stamp of a file's lines; a file without one sorts last.
long long FirstTime(const std::vector<std::string>& lines) {
    Line line;
    std::string why;
    for (const std::string& text : lines) {
        if (ParseLine(text, line, why)) {
            return line.seconds;
        }
    }
    return -1;
}

// Reads the files once each; the result 2 when one cannot be read, else 0.
int ReadInputs(const Options& o, std::vector<std::pair<long long, std::string>>& inputs,
               std::vector<std::vector<std::string>>& contents, std::ostream& err) {
    std::vector<std::string> seen;
    int result = 0;
    for (const std::string& file : o.files) {
        std::error_code error;
        const std::filesystem::path same =
            std::filesystem::weakly_canonical(std::filesystem::u8path(file), error);
        std::string key = same.u8string();
#ifdef _WIN32
        // Paths on Windows name the same file in any letter case.
        std::transform(key.begin(), key.end(), key.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
#endif
        if (std::find(seen.begin(), seen.end(), key) != seen.end()) {
            err << "log: " << file << " is given twice: read once\n";
            continue;
        }
        seen.push_back(key);
        std::vector<std::string> lines;
        std::string why;
        // A log to follow that does not exist yet is waited for, as tail -F does.
        const bool bAwaited = o.bFollow && &file == &o.files.back() && !std::filesystem::exists(same, error);
        if (!bAwaited && !ReadLines(file, lines, why)) {
            err << "log: " << file << " " << why << "\n";
            result = 2;
            continue;
        }
        inputs.emplace_back(FirstTime(lines), file);
        contents.push_back(lines);
    }
    return result;
}

// Reads what is appended to the log at path, across cuts, printing the events as they come.
void Follow(const std::string& path, CTimelineFold& timeline, Options& o, std::ostream& out,
            std::ostream& err, const std::function<bool()>& keepFollowing) {
    // The watch begins before the first read, so nothing written meanwhile is missed.
    CFileWatch watch(std::filesystem::u8path(path).parent_path().u8string());
    CLogTail tail(path);
    size_t number = 0;
    do {
        bool bCut = false;
        const std::vector<std::string> lines = tail.Read(bCut);
        if (bCut) {
            number = 0;
            err << "log: " << path << " was cut: reading the new file from its start\n";
        }
        for (const std::string& text : lines) {
            timeline.Add(path, ++number, text);
        }
        timeline.Flush(false);
        PrintShown(out, timeline.Take(), o);
        out.flush();
    } while ((!keepFollowing || keepFollowing()) && Awaits(watch, o.until));
}

}  // namespace

int RunLog(const std::vector<std::string>& args, const std::string& defaultLog, std::ostream& out,
           std::ostream& err, const std::function<bool()>& keepFollowing) {
    Options o;
    const int code = ParseOptions(args, o, out, err);
    if (code >= 0) {
        return code;
    }
    const bool bGiven = !o.files.empty();
    if (!bGiven) {
        o.files = LogAndRotated(defaultLog);
        if (o.files.empty() && o.bFollow) {
            o.files.push_back(defaultLog);
        }
    }
    std::vector<std::pair<long long, std::string>> inputs;
    std::vector<std::vector<std::string>> contents;
    int result = ReadInputs(o, inputs, contents, err);
    if (inputs.empty()) {
        return 2;
    }
    // Files given in any order are read oldest first, one without a time stamp after the others;
    // the log and its rotated files in the order of the rotation.
    std::vector<size_t> order(inputs.size());
    for (size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    const auto first = [&inputs](size_t i) { return inputs[i].first < 0 ? LLONG_MAX : inputs[i].first; };
    if (bGiven) {
        std::stable_sort(order.begin(), order.end(),
                         [&first](size_t a, size_t b) { return first(a) < first(b); });
    }
    if (!std::is_sorted(order.begin(), order.end())) {
        err << "log: files read in the order of their first time stamp, not as given\n";
    }
    LogState state;
    CTimelineFold timeline(state, o.bJson, o.since, o.until);
    for (const size_t i : order) {
        const std::string& file = inputs[i].second;
        if (!o.bJson) {
            out << "== " << file << (contents[i].empty() ? "\n(empty)\n" : "\n");
        }
        if (o.bFollow && i == order.back()) {
            break;  // the follower reads it, from its start
        }
        const size_t before = timeline.Lines();
        for (size_t k = 0; k < contents[i].size(); ++k) {
            timeline.Add(file, k + 1, contents[i][k]);
        }
        if (timeline.Lines() == before) {
            err << "log: " << file
                << (contents[i].empty()
                        ? " is empty"
                        : " is not a watchdog log: none of its " + std::to_string(contents[i].size()) +
                              " lines has the log's form")
                << "\n";
            result = std::max(result, 1);
        }
    }
    if (o.bFollow) {
        Follow(inputs[order.back()].second, timeline, o, out, err, keepFollowing);
    }
    timeline.Flush(true);
    PrintShown(out, timeline.Take(), o);
    if (!o.bJson) {
        timeline.Summary(out, o.session);
    }
    return result;
}

}  // namespace QoWatchCtl
