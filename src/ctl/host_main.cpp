// qowatchctl: the log reader of QoWatchCtl.exe, built for the engineer's own workstation.
#include <iostream>
#include <string>
#include <vector>

#include "ctl/LogTimeline.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
        std::cout << "usage: qowatchctl log [FILE...] [--session N] [--since TIME] [--until TIME] [--json] "
                     "[--follow]\n";
        return 0;
    }
    if (args.empty() || args[0] != "log") {
        std::cerr << "usage: qowatchctl log [FILE...] [--session N] [--since TIME] [--until TIME] [--json] "
                     "[--follow]\n";
        return 9;
    }
    return QoWatchCtl::RunLog(std::vector<std::string>(args.begin() + 1, args.end()), "QoWatchDog.log",
                              std::cout, std::cerr);
}
