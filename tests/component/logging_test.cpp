// The log as a support engineer reads it: the line format, the cut at the size limit, lines of
// several threads, and the places the file cannot go.
#include <windows.h>

#include <process.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/logging.h"
#include "ComponentSupport.h"
#include "LogReader.h"
#include "WinTestEnv.h"

namespace {

using qotest::LogRecord;

class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_strDir = qotest::MakeScratchDirectory(L"logging");
        m_strFile = m_strDir + L"\\QoWatchDog.log";
        GetLogger().set_file(m_strFile.c_str());
    }
    void TearDown() override { GetLogger().set_file(nullptr); }

    // A file of exactly nBytes bytes at the log path.
    void MakeFileOfSize(size_t nBytes) {
        qotest::WriteFileBytes(m_strFile, std::string(nBytes, 'x'));
        ASSERT_EQ(nBytes, qotest::FileSize(m_strFile));
    }

    std::wstring m_strDir;
    std::wstring m_strFile;
};

TEST_F(LoggingTest, LineFormatAndLineEnds) {
    const int nInfoLine = __LINE__ + 1;
    LOG_INFO(L"Start Watch Dog");
    const DWORD dwErr = 5;
    const LONG lStatus = -2;
    const int nErrorLine = __LINE__ + 1;
    LOG_ERROR(L"CreateToolhelp32Snapshot Err=" << dwErr << L" status=" << lStatus << L" flag=" << true);
    // Characters beyond Latin-1 must not cut the line short.
    LOG_INFO(L"user=\u0416\u65E5\u672C path=C:\\Users\\\u00E9l\u00E8ve end");

    const std::string strRaw = qotest::ReadFileBytes(m_strFile);
    EXPECT_EQ(std::string::npos, strRaw.find("\xEF\xBB\xBF")) << "no byte-order mark";
    EXPECT_EQ(3u, qotest::CountSubstr(strRaw, "\r\n")) << "each line ends once, in CR LF";
    EXPECT_EQ(std::string::npos, strRaw.find("\n\r"));

    const qotest::LogFile log = qotest::LogFile::Read(m_strFile);
    ASSERT_EQ(3u, log.records().size());
    EXPECT_TRUE(log.malformed().empty());
    const LogRecord& info = log.records()[0];
    EXPECT_EQ(24u, info.time.size());
    EXPECT_EQ(static_cast<DWORD>(_getpid()), info.pid);
    EXPECT_EQ("Pellisk", info.tag);
    EXPECT_EQ(".\\logging_test", info.source);
    EXPECT_EQ(static_cast<unsigned>(nInfoLine), info.line);
    EXPECT_EQ("INFO", info.level);
    EXPECT_EQ("Start Watch Dog", info.message);

    const LogRecord& error = log.records()[1];
    EXPECT_EQ(static_cast<unsigned>(nErrorLine), error.line);
    EXPECT_EQ("ERROR", error.level);
    EXPECT_EQ("CreateToolhelp32Snapshot Err=5 status=-2 flag=1", error.message);

    EXPECT_EQ(qotest::ToUtf8(L"user=\u0416\u65E5\u672C path=C:\\Users\\\u00E9l\u00E8ve end"),
              log.records()[2].message);
}

TEST_F(LoggingTest, NoFileMeansDebuggerOutputAndLowLevelsAreDropped) {
    GetLogger().set_file(nullptr);
    LOG_INFO(L"to the debugger");
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(m_strFile.c_str())) << "no file without a path";

    GetLogger().set_file(m_strFile.c_str());
    const log_settings settings = {20, m_strFile};
    write_line(&settings, 10, L"below the threshold\n");
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(m_strFile.c_str()));
    write_line(&settings, 20, L"at the threshold\n");
    EXPECT_EQ("at the threshold\r\n", qotest::ReadFileBytes(m_strFile));
}

TEST_F(LoggingTest, CutAtTenMillionBytes) {
    // Exactly at the limit: the line is appended.
    MakeFileOfSize(LOG_FILE_SIZE_LIMIT);
    LOG_INFO(L"appended");
    EXPECT_GT(qotest::FileSize(m_strFile), static_cast<size_t>(LOG_FILE_SIZE_LIMIT));

    // One byte past it: the file is deleted and the line starts a new one.
    MakeFileOfSize(LOG_FILE_SIZE_LIMIT + 1);
    LOG_INFO(L"first line of a new file");
    const qotest::LogFile log = qotest::LogFile::Read(m_strFile);
    ASSERT_EQ(1u, log.records().size());
    EXPECT_EQ("first line of a new file", log.records()[0].message);
    EXPECT_TRUE(qotest::ListFiles(m_strDir, L"QoWatchDog.log?*").empty()) << "deleted, not moved aside";
}

TEST_F(LoggingTest, OversizeFileThatCannotBeDeletedIsMovedAside) {
    MakeFileOfSize(LOG_FILE_SIZE_LIMIT + 1);
    // A read-only file cannot be deleted, but it can be renamed.
    ASSERT_TRUE(SetFileAttributesW(m_strFile.c_str(), FILE_ATTRIBUTE_READONLY));
    const __time64_t tBefore = _time64(nullptr);
    LOG_INFO(L"after the move");
    const __time64_t tAfter = _time64(nullptr);

    const std::vector<std::wstring> aside = qotest::ListFiles(m_strDir, L"QoWatchDog.log?*");
    ASSERT_EQ(1u, aside.size());
    const std::wstring strSuffix = aside[0].substr(wcslen(L"QoWatchDog.log"));
    const __time64_t tSuffix = _wtoi64(strSuffix.c_str());
    EXPECT_EQ(strSuffix, std::to_wstring(tSuffix)) << "only decimal digits follow the name";
    EXPECT_GE(tSuffix, tBefore);
    EXPECT_LE(tSuffix, tAfter);
    const std::wstring strAside = m_strDir + L"\\" + aside[0];
    EXPECT_EQ(static_cast<size_t>(LOG_FILE_SIZE_LIMIT + 1), qotest::FileSize(strAside));
    SetFileAttributesW(strAside.c_str(), FILE_ATTRIBUTE_NORMAL);

    const qotest::LogFile log = qotest::LogFile::Read(m_strFile);
    ASSERT_EQ(1u, log.records().size());
    EXPECT_EQ("after the move", log.records()[0].message);
}

TEST_F(LoggingTest, OversizeFileHeldByAnotherProgramKeepsGrowingUntilReleased) {
    MakeFileOfSize(LOG_FILE_SIZE_LIMIT + 1);
    {
        // A viewer that shares reading and writing but not deletion: neither delete nor rename works.
        qotest::OwnedHandle viewer(CreateFileW(m_strFile.c_str(), GENERIC_READ,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                               nullptr));
        ASSERT_TRUE(viewer.valid());
        LOG_INFO(L"kept in the large file");
        EXPECT_GT(qotest::FileSize(m_strFile), static_cast<size_t>(LOG_FILE_SIZE_LIMIT + 1));
    }
    LOG_INFO(L"cut once the viewer has gone");
    const qotest::LogFile log = qotest::LogFile::Read(m_strFile);
    ASSERT_EQ(1u, log.records().size());
    EXPECT_EQ("cut once the viewer has gone", log.records()[0].message);
    EXPECT_TRUE(qotest::ListFiles(m_strDir, L"QoWatchDog.log?*").empty());
}

TEST_F(LoggingTest, MissingDirectoryLosesLinesSilently) {
    const std::wstring strMissing = m_strDir + L"\\missing\\QoWatchDog.log";
    GetLogger().set_file(strMissing.c_str());
    LOG_ERROR(L"lost");
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(strMissing.c_str()));
    GetLogger().set_file(m_strFile.c_str());
    LOG_INFO(L"written again");
    EXPECT_EQ(1u, qotest::LogFile::Read(m_strFile).records().size());
}

TEST_F(LoggingTest, LinesOfTwoThreadsNeverMix) {
    const int nLines = 400;
    auto writer = [nLines](wchar_t cTag) {
        for (int i = 0; i < nLines; ++i) {
            LOG_INFO(L"thread " << cTag << L" line " << i << L" " << std::wstring(60, cTag));
        }
    };
    std::thread first(writer, L'a');
    std::thread second(writer, L'b');
    first.join();
    second.join();

    const qotest::LogFile log = qotest::LogFile::Read(m_strFile);
    EXPECT_TRUE(log.malformed().empty());
    ASSERT_EQ(2u * nLines, log.records().size());
    int nextA = 0;
    int nextB = 0;
    for (const LogRecord& rec : log.records()) {
        const char cTag = rec.message.at(7);
        int& next = (cTag == 'a') ? nextA : nextB;
        EXPECT_EQ(
            "thread " + std::string(1, cTag) + " line " + std::to_string(next) + " " + std::string(60, cTag),
            rec.message);
        ++next;
    }
    EXPECT_EQ(nLines, nextA);
    EXPECT_EQ(nLines, nextB);
}

}  // namespace

namespace {

const wchar_t WRITER_FILE_VARIABLE[] = L"QO_TEST_LOG_WRITER_FILE";
const int WRITER_LINES = 1500;

void WriteNumberedLines(const wchar_t* pszWho) {
    for (int i = 0; i < WRITER_LINES; ++i) {
        LOG_INFO(pszWho << L" line " << i);
    }
}

// The other writer of the test below: this same program, started with the log's path in its
// environment. Run on its own, it has nothing to do.
TEST(LogWriters, ChildWriter) {
    const std::wstring strFile = qotest::GetEnv(WRITER_FILE_VARIABLE);
    if (strFile.empty()) {
        GTEST_SKIP() << "only run by TwoProcessesAtOnceKeepEveryLineWhole";
    }
    GetLogger().set_file(strFile.c_str());
    WriteNumberedLines(L"child");
    GetLogger().set_file(nullptr);
}

TEST(LogWriters, TwoProcessesAtOnceKeepEveryLineWhole) {
    const std::wstring strFile = qotest::UseScratchLog(L"two_writers");
    wchar_t szSelf[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, szSelf, MAX_PATH);
    SetEnvironmentVariableW(WRITER_FILE_VARIABLE, strFile.c_str());
    qotest::ChildProcess child = qotest::StartProcess(szSelf, L"--gtest_filter=LogWriters.ChildWriter");
    SetEnvironmentVariableW(WRITER_FILE_VARIABLE, nullptr);
    ASSERT_TRUE(child.handle.valid());
    WriteNumberedLines(L"parent");
    EXPECT_EQ(0u, qotest::WaitForExitCode(child.handle.get(), 60000).value_or(0xDEAD));
    qotest::StopUsingScratchLog();

    const qotest::LogFile log = qotest::LogFile::Read(strFile);
    EXPECT_TRUE(log.malformed().empty()) << log.DescribeMalformed();
    ASSERT_EQ(2u * WRITER_LINES, log.records().size());
    int next[2] = {0, 0};
    for (const LogRecord& rec : log.records()) {
        const bool bChild = rec.pid == child.pid;
        const std::string strWho = bChild ? "child" : "parent";
        EXPECT_EQ(strWho + " line " + std::to_string(next[bChild]), rec.message);
        ++next[bChild];
    }
}

}  // namespace
