#pragma once

#include <string>

#include <boost/noncopyable.hpp>

// Tells of changes to the files of one folder (a file created, written, renamed or deleted), so a
// reader can wait for a log to grow instead of looking again and again.
class CFileWatch : private boost::noncopyable {
public:
    explicit CFileWatch(const std::string& folder);
    ~CFileWatch();

    // Blocks until something in the folder changed since the last call (or since the watch began),
    // at most nMilliseconds when that is not negative. False on a time-out or when the folder cannot
    // be watched.
    bool Wait(long nMilliseconds = -1);

private:
#ifdef _WIN32
    void* m_hChange;
#else
    int m_fd;
#endif
};
