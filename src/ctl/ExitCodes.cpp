#include <cstdio>
#include <map>
#include <string>

#include "ctl/LogTimeline.h"

// Exit codes and Win32 errors in words, as QoWatchCtl shows them.
namespace QoWatchCtl {

std::string ExitHex(unsigned long code) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%lX", code);
    return text;
}

std::string ExitWord(unsigned long code) {
    switch (code) {
        case 0:
            return "normal end";
        case 0xC0000142:
            return "DLL initialization failed (the session is ending)";
        case 0x40010004:
            return "ended by a debugger";
        case 0xC0000005:
            return "access violation";
        case 0xC00000FD:
            return "stack overflow";
        case 0xC0000409:
            return "stack buffer overrun";
        case 0xC000013A:
            return "ended by Ctrl+C";
        default:
            return "";
    }
}

std::string ExitName(unsigned long code) {
    const std::string word = ExitWord(code);
    return ExitHex(code) + (word.empty() ? "" : " " + word);
}

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

}  // namespace QoWatchCtl
