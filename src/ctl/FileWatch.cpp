#include "ctl/FileWatch.h"

#ifdef _WIN32

#include <windows.h>

#include <filesystem>

CFileWatch::CFileWatch(const std::string& folder)
    : m_hChange(FindFirstChangeNotificationW(
          std::filesystem::u8path(folder.empty() ? "." : folder).wstring().c_str(), FALSE,
          FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE)) {}

CFileWatch::~CFileWatch() {
    if (m_hChange != INVALID_HANDLE_VALUE) {
        FindCloseChangeNotification(m_hChange);
    }
}

bool CFileWatch::Wait(long nMilliseconds) {
    return m_hChange != INVALID_HANDLE_VALUE &&
           WaitForSingleObject(m_hChange, nMilliseconds < 0 ? INFINITE : static_cast<DWORD>(nMilliseconds)) ==
               WAIT_OBJECT_0 &&
           FindNextChangeNotification(m_hChange);
}

#else

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

CFileWatch::CFileWatch(const std::string& folder) : m_fd(inotify_init1(IN_CLOEXEC)) {
    if (m_fd >= 0 && inotify_add_watch(m_fd, folder.empty() ? "." : folder.c_str(),
                                       IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO) < 0) {
        close(m_fd);
        m_fd = -1;
    }
}

CFileWatch::~CFileWatch() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool CFileWatch::Wait(long nMilliseconds) {
    pollfd ready = {m_fd, POLLIN, 0};
    char events[4096];
    return m_fd >= 0 && poll(&ready, 1, static_cast<int>(nMilliseconds)) == 1 &&
           read(m_fd, events, sizeof(events)) > 0;
}

#endif
