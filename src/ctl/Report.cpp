#include "ctl/Report.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "ctl/LogReader.h"
#include "ctl/LogTimeline.h"
#include "ctl/Status.h"
#include "foundation/CRegKey.h"
#include "foundation/Contract.h"

#ifndef QO_VERSION
#error "QO_VERSION: the project version, given by the build"
#endif

namespace QoWatchCtl {
namespace {

// Every value of a key under HKEY_LOCAL_MACHINE: "name = data (type)".
void Values(std::ostream& out, const wchar_t* pszKey) {
    out << "HKLM\\" << Utf8(pszKey) << ":\n";
    CRegKey key;
    const LONG lOpen = key.Open(HKEY_LOCAL_MACHINE, pszKey, KEY_READ);
    if (lOpen != ERROR_SUCCESS) {
        out << "  cannot be opened (error " << lOpen << ": " << Win32Meaning(lOpen) << ")\n";
        return;
    }
    for (DWORD i = 0;; ++i) {
        wchar_t szName[16384];
        BYTE data[8192] = {};
        DWORD nName = 16384, cbData = sizeof(data) - sizeof(wchar_t), dwType = 0;
        const LONG lEnum = RegEnumValueW(key.GetHandle(), i, szName, &nName, nullptr, &dwType, data, &cbData);
        if (lEnum == ERROR_NO_MORE_ITEMS) {
            break;
        }
        out << "  " << Escape(Utf8(szName)) << " = ";
        if (lEnum != ERROR_SUCCESS) {
            out << "cannot be read (error " << lEnum << ")\n";
        } else if (dwType == REG_DWORD && cbData == 4) {
            DWORD dwValue = 0;
            memcpy(&dwValue, data, 4);
            out << dwValue << " (REG_DWORD)\n";
        } else if (dwType == REG_SZ || dwType == REG_EXPAND_SZ) {
            out << "\"" << Escape(Utf8(reinterpret_cast<const wchar_t*>(data))) << "\" (type " << dwType
                << ")\n";
        } else {
            out << cbData << " bytes (type " << dwType << ")\n";
        }
    }
}

std::wstring DefaultName() {
    wchar_t szComputer[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD nComputer = MAX_COMPUTERNAME_LENGTH + 1;
    GetComputerNameW(szComputer, &nComputer);
    std::string stamp = FormatTime(LocalNowSeconds());
    for (char& c : stamp) {
        c = c == ' ' ? '-' : c == ':' ? '.' : c;
    }
    return L"QoWatchCtl-report-" + std::wstring(szComputer) + L"-" +
           std::filesystem::u8path(stamp).wstring() + L".txt";
}

}  // namespace

int Report(const std::wstring& strGiven) {
    const std::wstring strFile = strGiven.empty() ? DefaultName() : strGiven;
    std::ofstream out(std::filesystem::path(strFile), std::ios::binary);
    if (!out) {
        std::cerr << "report: " << Utf8(strFile) << " cannot be written\n";
        return 2;
    }
    out << "QoWatchCtl " << QO_VERSION << " report, made " << FormatTime(LocalNowSeconds(), true)
        << "\n\n== status\n";
    const StatusReport status = GatherStatus(L"");
    RenderText(status, out);
    out << "\n== named objects\n";
    for (const auto& object : NamedObjects()) {
        out << "  " << object.first << ": " << object.second << "\n";
    }
    const std::wstring strIni = status.platform + L"\\" + SESSION_AGENT_INI;
    std::ifstream ini(std::filesystem::path(strIni), std::ios::binary);
    out << "\n== "
        << (status.platform.empty() ? "Session_Agent.ini: no supervisor runs to tell its directory\n"
                                    : Utf8(strIni) + (ini ? "\n" : ": cannot be read\n"));
    if (ini && ini.peek() != std::ifstream::traits_type::eof()) {
        out << ini.rdbuf();
    }
    out << "\n== registry\n";
    for (const wchar_t* pszKey : {REG_INSTALL_KEY, REG_KELD_KEY}) {
        Values(out, pszKey);
    }
    out << "\n== processes\n";
    for (const Process& p : Processes()) {
        out << "  " << p.dwPid << " session " << p.dwSession << " " << Utf8(p.strName)
            << (p.started >= 0 ? " since " + FormatTime(p.started) : "") << " " << Utf8(p.strImage) << "\n";
    }
    std::string fallbackWhy;
    const std::string strLog = Utf8(LogPath(fallbackWhy));
    const std::vector<std::string> files = LogAndRotated(strLog);
    if (files.empty()) {
        out << "\n== log file " << strLog << ": none yet\n";
    }
    for (const std::string& file : files) {
        std::ifstream log(std::filesystem::u8path(file), std::ios::binary);
        out << "\n== log file " << file << (log ? "\n" : ": cannot be read\n");
        if (log && log.peek() != std::ifstream::traits_type::eof()) {
            out << log.rdbuf();
        }
    }
    out << "\n== timeline\n";
    RunLog({}, strLog, out, out);
    if (!out.flush()) {
        std::cerr << "report: " << Utf8(strFile) << " could not be written whole\n";
        return 2;
    }
    std::cout << "report: " << Utf8(strFile) << "\n";
    return 0;
}

}  // namespace QoWatchCtl
