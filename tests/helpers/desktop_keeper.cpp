// desktop_keeper.exe: keeps Wine's desktop process (explorer.exe /desktop) alive for a whole test run.
// The first use of the desktop starts explorer.exe, and explorer.exe leaves a few seconds after the
// last process attached to the desktop; this program attaches and then never leaves. The prefix
// teardown (wineserver -k) ends it.
#include <windows.h>

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
    if (GetDesktopWindow() == nullptr) {
        return 1;
    }
    Sleep(INFINITE);
    return 0;
}
