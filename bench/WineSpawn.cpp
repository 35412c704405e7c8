// WineSpawn.exe: Wine's process creation alone, as the watchdog's monitors use it and with nothing
// of the watchdog's. Several threads each keep a number of idle GUI children on winsta0\default and
// replace them one at a time, while one more thread walks process snapshots, as registration does.
// It counts the creations that fail, by error, and reports a creation or a snapshot walk that has
// not returned after a minute.
//
//   WineSpawn.exe [threads] [children per thread] [replacements per thread]   (4 60 3000)
#include <windows.h>
#include <tlhelp32.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

const ULONGLONG kStuckMs = 60000;
CRITICAL_SECTION g_lock;
std::map<DWORD, int> g_failed;  // creations that failed, by error
LONG g_created = 0;
ULONGLONG g_since[65] = {};  // per thread, when its creation or walk in progress began (0: none)
LONG g_walks = 0;
volatile bool g_done = false;
wchar_t g_self[MAX_PATH];

HANDLE Create(int thread) {
    std::wstring line = L"\"" + std::wstring(g_self) + L"\" child";
    wchar_t desktop[] = L"winsta0\\default";
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.lpDesktop = desktop;
    PROCESS_INFORMATION pi = {};
    g_since[thread] = GetTickCount64();
    const BOOL created = CreateProcessW(g_self, line.data(), nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE,
                                        nullptr, nullptr, &si, &pi);
    const DWORD error = GetLastError();
    g_since[thread] = 0;
    if (!created) {
        EnterCriticalSection(&g_lock);
        ++g_failed[error];
        std::printf("creation failed: GetLastError=%lu\n", error);
        LeaveCriticalSection(&g_lock);
        return nullptr;
    }
    InterlockedIncrement(&g_created);
    CloseHandle(pi.hThread);
    return pi.hProcess;
}

struct Work {
    int thread, children;
    long replacements;
};

DWORD WINAPI Worker(LPVOID param) {
    const Work& work = *static_cast<const Work*>(param);
    std::vector<HANDLE> children;
    while (static_cast<int>(children.size()) < work.children) {
        if (HANDLE child = Create(work.thread))
            children.push_back(child);
    }
    for (long r = 0; r < work.replacements; ++r) {
        HANDLE& child = children[static_cast<size_t>(r) % children.size()];
        TerminateProcess(child, 1);
        WaitForSingleObject(child, INFINITE);
        CloseHandle(child);
        while ((child = Create(work.thread)) == nullptr) {
        }
    }
    for (HANDLE child : children) {
        TerminateProcess(child, 1);
        WaitForSingleObject(child, INFINITE);
        CloseHandle(child);
    }
    return 0;
}

DWORD WINAPI Walker(LPVOID param) {
    const int slot = *static_cast<const int*>(param);
    while (!g_done) {
        g_since[slot] = GetTickCount64();
        const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
        PROCESSENTRY32W entry = {};
        entry.dwSize = sizeof(entry);
        for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        }
        CloseHandle(snapshot);
        g_since[slot] = 0;
        InterlockedIncrement(&g_walks);
    }
    return 0;
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR cmdLine, int) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    GetModuleFileNameW(nullptr, g_self, MAX_PATH);
    if (std::wstring(cmdLine) == L"child") {  // as an agent: its station and desktop, then idle
        wchar_t name[64];
        GetUserObjectInformationW(GetProcessWindowStation(), UOI_NAME, name, sizeof(name), nullptr);
        GetUserObjectInformationW(GetThreadDesktop(GetCurrentThreadId()), UOI_NAME, name, sizeof(name),
                                  nullptr);
        Sleep(INFINITE);
    }
    int threads = 4, children = 60;
    long replacements = 3000;
    swscanf(cmdLine, L"%d %d %ld", &threads, &children, &replacements);
    threads = threads < 1 ? 1 : threads > 64 ? 64 : threads;
    InitializeCriticalSection(&g_lock);
    std::vector<Work> work;
    std::vector<HANDLE> workers;
    for (int t = 0; t < threads; ++t)
        work.push_back({t, children, replacements});
    for (int t = 0; t < threads; ++t)
        workers.push_back(CreateThread(nullptr, 0, Worker, &work[static_cast<size_t>(t)], 0, nullptr));
    const HANDLE walker = CreateThread(nullptr, 0, Walker, &threads, 0, nullptr);
    // A creation that does not return is reported, with every creation so far, and ends the run.
    while (WaitForMultipleObjects(static_cast<DWORD>(threads), workers.data(), TRUE, 1000) == WAIT_TIMEOUT) {
        for (int t = 0; t <= threads; ++t) {
            const ULONGLONG since = g_since[t];
            if (since != 0 && GetTickCount64() - since > kStuckMs) {
                std::printf("STUCK: %s has not returned after %llu ms, %ld created, %ld walks\n",
                            t < threads ? "a creation" : "a snapshot walk", GetTickCount64() - since,
                            g_created, g_walks);
                std::fflush(stdout);
                TerminateProcess(GetCurrentProcess(), 2);
            }
        }
    }
    g_done = true;
    WaitForSingleObject(walker, INFINITE);
    int failed = 0;
    for (const auto& [error, count] : g_failed) {
        std::printf("failed with %lu: %d\n", error, count);
        failed += count;
    }
    std::printf(
        "%d threads with %d children each, %ld replacements each: %ld created, %d failed; %ld walks\n",
        threads, children, replacements, g_created, failed, g_walks);
    return failed != 0 ? 1 : 0;
}
