#include "foundation/ProcessImage.h"

namespace {

// The longest path Windows gives a file, in characters.
const DWORD IMAGE_PATH_MAX_CHARS = 32768;

}  // namespace

bool GetProcessImagePath(HANDLE hProcess, std::wstring& strPath) {
    for (DWORD nSize = MAX_PATH; nSize <= IMAGE_PATH_MAX_CHARS; nSize *= 2) {
        std::wstring strImage(nSize, L'\0');
        DWORD nChars = nSize;
        if (QueryFullProcessImageNameW(hProcess, 0, &strImage[0], &nChars)) {
            strImage.resize(nChars);
            strPath = strImage;
            return true;
        }
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
            return false;
        }
    }
    return false;
}
