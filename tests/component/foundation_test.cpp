// Named kernel objects, the registry wrapper and the service start, against Wine's real objects,
// registry and service manager.
#include <windows.h>

#include <string>

#include <gtest/gtest.h>

#include "foundation/CRegKey.h"
#include "foundation/kernel_objects.h"
#include "foundation/service.h"
#include "session/utilWinUserSession.h"
#include "ComponentSupport.h"
#include "LogReader.h"
#include "WinTestEnv.h"
#include "test_agent_protocol.h"
#include "watchdog/QoWatchDog.h"

using BrevantUtility::OperationSystem::CMutex;

namespace {

const wchar_t TEST_KEY[] = L"Software\\QoTest\\RegKey";

// Runs the real program in run-key mode from the platform directory; its exit code.
DWORD RunKeyInstance() {
    qotest::ChildProcess child = qotest::StartProcess(qotest::WatchDogExe(), L"", qotest::PlatformDir());
    EXPECT_TRUE(child.handle.valid());
    const std::optional<DWORD> code = qotest::WaitForExitCode(child.handle.get(), 30000);
    EXPECT_TRUE(code.has_value());
    return code.value_or(0xDEAD);
}

TEST(NamedObjects, EventsAcrossProcessesAndExistingObjects) {
    // The supervisor's reload event, created with the world-accessible descriptor, is opened and
    // set by another process: a run-key instance of the real program.
    {
        DefSecAttr secAttr(DEF_SEC_ATTR_SDDL);
        ASSERT_TRUE(secAttr.HasDescriptor());
        CEvent reload(EVENT_ID_BREVANT_WATCHDOG_RELOAD, false, &secAttr);
        ASSERT_TRUE(reload.IsValid());
        EXPECT_TRUE(CEvent::Exists(EVENT_ID_BREVANT_WATCHDOG_RELOAD));
        EXPECT_EQ(0u, RunKeyInstance());
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(reload.GetHandle(), 0));
        EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(reload.GetHandle(), 0))
            << "auto-reset";
    }
    // Without a supervisor the run-key instance cannot open it and says so.
    EXPECT_EQ(0xFFFFFFFFu, RunKeyInstance());
    const qotest::LogFile log = qotest::LogFile::Read(qotest::WatchDogLogPath());
    EXPECT_TRUE(
        log.InOrder({"Start Watch Dog", "Watch Dog started by runkey", "Set Watch Dog Reload successfully. ",
                     "Exit Watch Dog From Run Key. nRet=0", "Start Watch Dog", "Watch Dog started by runkey",
                     "Open Watch Dog Reload Event failed. Err=2", "Exit Watch Dog From Run Key. nRet=-1"}));
    EXPECT_TRUE(qotest::HasMessage(log, "Set Watch Dog Reload successfully. "));

    // An existing auto-reset event stays auto-reset when asked for a manual-reset one.
    CEvent first(L"Global\\QoTestResetMode", false);
    CEvent second(L"Global\\QoTestResetMode", true);
    ASSERT_TRUE(second.IsValid());
    EXPECT_TRUE(second.Set());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(first.GetHandle(), 0));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(second.GetHandle(), 0));

    // "Global\X" and "X" are different names; a missing name is error 2.
    DWORD dwErr = 0;
    EXPECT_FALSE(CEvent::Exists(L"QoTestResetMode", &dwErr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), dwErr);
}

TEST(NamedObjects, NameHeldByAnotherObjectType) {
    // A mutex holds the name of one of the watchdog's events: the event is neither there nor makeable.
    qotest::OwnedHandle squatter(CreateMutexW(nullptr, FALSE, EVENT_ID_BREVANT_STOP_SERVICE));
    ASSERT_TRUE(squatter.valid());
    CEvent stop(EVENT_ID_BREVANT_STOP_SERVICE, false);
    EXPECT_FALSE(stop.IsValid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
    EXPECT_FALSE(stop.Set());
    DWORD dwErr = 0;
    EXPECT_FALSE(CEvent::Exists(EVENT_ID_BREVANT_STOP_SERVICE, &dwErr));
    EXPECT_NE(0u, dwErr);

    // And an event holds the mutex's name: the supervisor cannot take it.
    CEvent eventSquatter(L"Global\\QoTestMutexName", true);
    CMutex mutex(L"Global\\QoTestMutexName");
    EXPECT_FALSE(mutex.Exists());
    EXPECT_FALSE(mutex.Create());

    // The mutex exists while any process holds it, and a second Create opens it.
    CMutex real(L"Global\\QoTestRealMutex");
    EXPECT_FALSE(real.Exists());
    ASSERT_TRUE(real.Create());
    EXPECT_TRUE(real.Exists());
    CMutex other(L"Global\\QoTestRealMutex");
    EXPECT_TRUE(other.Create());
    real.Close();
    EXPECT_TRUE(other.Exists());
    other.Close();
    EXPECT_FALSE(other.Exists());

    // A descriptor string that cannot be converted leaves the default security, and says so.
    const std::wstring strLog = qotest::UseScratchLog(L"bad_sddl");
    DefSecAttr bad(L"D:(not a descriptor");
    EXPECT_FALSE(bad.HasDescriptor());
    EXPECT_EQ(1u, qotest::LogFile::Read(strLog).CountPrefix(
                      "ConvertStringSecurityDescriptorToSecurityDescriptorW Err="));
    qotest::StopUsingScratchLog();
}

TEST(RegKey, AgainstRealKeysAndValueTypes) {
    qotest::DeleteRegKeyTree(TEST_KEY);
    CRegKey key;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, key.Open(HKEY_LOCAL_MACHINE, TEST_KEY, KEY_ALL_ACCESS));
    EXPECT_EQ(nullptr, key.GetHandle());
    EXPECT_EQ(ERROR_SUCCESS, key.Close());
    EXPECT_EQ(ERROR_INVALID_DATA, key.SetValue(L"Path", L"x"));

    ASSERT_TRUE(qotest::SetRegString(TEST_KEY, L"Plain", L"C:\\Windows;C:\\Tools"));
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, TEST_KEY, KEY_ALL_ACCESS));
    EXPECT_EQ(ERROR_INVALID_DATA, key.SetValue(L"Plain", nullptr));

    std::wstring strValue = L"unchanged";
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, key.QueryValue(L"Missing", strValue));
    EXPECT_EQ(L"unchanged", strValue);

    // A REG_SZ is read as it is and written back as REG_EXPAND_SZ.
    ASSERT_EQ(ERROR_SUCCESS, key.QueryValue(L"Plain", strValue));
    EXPECT_EQ(L"C:\\Windows;C:\\Tools", strValue);
    ASSERT_EQ(ERROR_SUCCESS, key.SetValue(L"Plain", strValue.c_str()));
    const qotest::RegValue plain = qotest::RegRead(HKEY_LOCAL_MACHINE, TEST_KEY, L"Plain");
    EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), plain.dwType);
    EXPECT_EQ((strValue.size() + 1) * sizeof(wchar_t), plain.data.size());

    // References stay unexpanded; an empty text is two bytes.
    const wchar_t szExpand[] = L"%SystemRoot%\\system32";
    ASSERT_TRUE(qotest::RegSetRaw(HKEY_LOCAL_MACHINE, TEST_KEY, L"Expand", REG_EXPAND_SZ, szExpand,
                                  sizeof(szExpand)));
    ASSERT_EQ(ERROR_SUCCESS, key.QueryValue(L"Expand", strValue));
    EXPECT_EQ(L"%SystemRoot%\\system32", strValue);
    ASSERT_EQ(ERROR_SUCCESS, key.SetValue(L"Empty", L""));
    EXPECT_EQ(2u, qotest::RegRead(HKEY_LOCAL_MACHINE, TEST_KEY, L"Empty").data.size());
    ASSERT_EQ(ERROR_SUCCESS, key.QueryValue(L"Empty", strValue));
    EXPECT_EQ(L"", strValue);

    // Strings stored without their NUL, or with an odd byte count: only the returned bytes count.
    const wchar_t szNoNul[] = L"ABCD";
    qotest::RegSetRaw(HKEY_LOCAL_MACHINE, TEST_KEY, L"NoNul", REG_SZ, szNoNul, 4 * sizeof(wchar_t));
    ASSERT_EQ(ERROR_SUCCESS, key.QueryValue(L"NoNul", strValue));
    EXPECT_EQ(L"ABCD", strValue);
    qotest::RegSetRaw(HKEY_LOCAL_MACHINE, TEST_KEY, L"Odd", REG_SZ, szNoNul, 5);
    ASSERT_EQ(ERROR_SUCCESS, key.QueryValue(L"Odd", strValue));
    EXPECT_EQ(L"AB", strValue);
    const wchar_t szInner[] = L"AB\0CD";
    qotest::RegSetRaw(HKEY_LOCAL_MACHINE, TEST_KEY, L"Inner", REG_SZ, szInner, sizeof(szInner));
    ASSERT_EQ(ERROR_SUCCESS, key.QueryValue(L"Inner", strValue));
    EXPECT_EQ(L"AB", strValue);

    // Opening a missing key keeps the key held so far.
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, key.Open(HKEY_LOCAL_MACHINE, L"Software\\QoTest\\Missing", KEY_READ));
    EXPECT_EQ(ERROR_SUCCESS, key.QueryValue(L"Plain", strValue));
    EXPECT_EQ(ERROR_SUCCESS, key.Close());
    EXPECT_EQ(nullptr, key.GetHandle());
    qotest::DeleteRegKeyTree(TEST_KEY);
}

TEST(RegKey, SystemPathReadAndWrittenBack) {
    const std::wstring strLog = qotest::UseScratchLog(L"system_path");
    std::wstring strOriginal;
    ASSERT_TRUE(GetSystemEnvPath(strOriginal));
    EXPECT_FALSE(strOriginal.empty());
    ASSERT_TRUE(SetSystemEnvPath(strOriginal + L";C:\\QoTest"));
    std::wstring strNow;
    ASSERT_TRUE(GetSystemEnvPath(strNow));
    EXPECT_EQ(strOriginal + L";C:\\QoTest", strNow);
    EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ),
              qotest::RegRead(HKEY_LOCAL_MACHINE, REG_SYSTEM_ENV, L"Path").dwType);
    ASSERT_TRUE(SetSystemEnvPath(strOriginal));
    EXPECT_TRUE(qotest::LogFile::Read(strLog).records().empty()) << "no failure, nothing logged";
    qotest::StopUsingScratchLog();
}

TEST(Service, StartKeldAndServicesThatCannotBeStarted) {
    const std::wstring strLog = qotest::UseScratchLog(L"service");
    ASSERT_TRUE(qotest::StopKeldService());
    ASSERT_FALSE(IsServiceRunning(qotest::kKeldServiceName));
    qotest::OwnedHandle running(CreateEventW(nullptr, TRUE, FALSE, qotest::kKeldRunningEvent));

    // Stopped and accessible: one start is asked for, and the call does not wait for it.
    EXPECT_EQ(0u, CheckServiceAccess(qotest::kKeldServiceName, SERVICE_ALL_ACCESS));
    StartKeldService();
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(running.get(), 10000));
    ASSERT_EQ(static_cast<DWORD>(SERVICE_RUNNING), qotest::KeldServiceState());

    // Running: not started again. A second StartServiceW would fail with 1056, and Start leaves a
    // failure's code as the last error.
    BrevantUtility::Service::Control control;
    EXPECT_TRUE(control.Start(qotest::kKeldServiceName));
    EXPECT_NE(static_cast<DWORD>(ERROR_SERVICE_ALREADY_RUNNING), GetLastError());
    StartKeldService();

    // Not installed: nothing is started; the code is left for the caller and logged by the check.
    SetLastError(0);
    EXPECT_TRUE(control.Start(L"QoTestNoSuchService"));
    EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST), GetLastError());
    EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST),
              CheckServiceAccess(L"QoTestNoSuchService", SERVICE_ALL_ACCESS));
    EXPECT_FALSE(IsServiceRunning(L"QoTestNoSuchService"));

    const qotest::LogFile log = qotest::LogFile::Read(strLog);
    EXPECT_EQ(1u, qotest::CountMessage(log, "Start KELD service."));
    EXPECT_EQ(1u, qotest::CountMessage(log, "KELD service is running."));
    EXPECT_TRUE(qotest::HasMessage(log, "OpenService, GetLastError=1060"));
    EXPECT_TRUE(qotest::StopKeldService());
    qotest::StopUsingScratchLog();
}

}  // namespace
