// ctest-labels: threads
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "clog.h"
#include "pl_net.h"

namespace fs = std::filesystem;

namespace {

std::string UtcDate(time_t t) {
  struct tm tm = *std::gmtime(&t);
  char buf[16];
  strftime(buf, sizeof buf, "%Y%m%d", &tm);
  return buf;
}

std::string ReadFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

bool LockFreeForOtherThreads(PlMutex* m) {
  bool free = false;
  std::thread([&] {
    free = m->TryLock();
    if (free) m->Unlock();
  }).join();
  return free;
}

// Each test logs into a fresh directory of its own.
class LogTest : public ::testing::Test {
 protected:
  fs::path Dir;
  CLog Log;

  void SetUp() override {
    std::random_device rd;
    Dir = fs::temp_directory_path() / ("lumetta_clog_" + std::to_string(rd()) + "_" +
                                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(Dir);
    Log.Path = (Dir.string() + "/").c_str();
    Log.FileNamePref = "srv";
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(Dir, ec);
  }

  // The file a New() at time t opens.
  fs::path FileFor(time_t t, const char* prefix = "srv") const {
    return Dir / (std::string(prefix) + UtcDate(t) + ".log");
  }
};

TEST(LogDefaults, AreSetAndWritingNeedsAnOpenFileUnlessLoggingIsOff) {
  CLog log;
  EXPECT_TRUE(log.AutoFlush);
  EXPECT_STREQ(log.FileNameExt.c_str(), ".log");
  EXPECT_STREQ(log.FileNamePref.c_str(), "def");
  EXPECT_STREQ(log.Path.c_str(), "./");
  EXPECT_EQ(log.LogLevel, 3);
  EXPECT_EQ(log.FH, nullptr);
  EXPECT_FALSE(log.Print("no file yet"));
  EXPECT_FALSE(CLog::Flush(&log));
  EXPECT_FALSE(CLog::Flush(nullptr));
  log.LogLevel = 0;
  EXPECT_TRUE(log.Print("switched off"));
}

TEST(LogFormatIP, GivesDottedFormFromNetworkOrder) {
  EXPECT_STREQ(CLog::FormatIP(PlHtonl(0xC0A8010Au)).c_str(), "192.168.1.10");
  EXPECT_STREQ(CLog::FormatIP(0).c_str(), "0.0.0.0");
  EXPECT_STREQ(CLog::FormatIP(0xFFFFFFFFu).c_str(), "255.255.255.255");
}

TEST_F(LogTest, FileIsNamedByUtcDateAndLinesCarryUtcTime) {
  time_t before = time(nullptr);
  Log.New();
  ASSERT_TRUE(Log.Print("hello %d %s", 42, "there"));
  time_t after = time(nullptr);
  fs::path file = FileFor(before);
  if (!fs::exists(file)) file = FileFor(after);  // midnight passed meanwhile
  std::string text = ReadFile(file);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(text, m, std::regex(R"((\d\d):(\d\d):(\d\d) hello 42 there\n)"))) << text;
  int stamp = std::stoi(m[1]) * 3600 + std::stoi(m[2]) * 60 + std::stoi(m[3]);
  int lo = static_cast<int>(before % 86400), hi = static_cast<int>(after % 86400);
  EXPECT_TRUE(lo <= hi ? (stamp >= lo && stamp <= hi) : (stamp >= lo || stamp <= hi)) << text;

  // The next file starts at tomorrow's UTC date read as local midnight.
  time_t next = Log.CreationTime + 86400;
  struct tm tm = *std::gmtime(&next);
  tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  EXPECT_EQ(Log.NextLogTime, mktime(&tm));
  EXPECT_GE(Log.CreationTime, before);
  EXPECT_LE(Log.CreationTime, after);
}

TEST_F(LogTest, LevelZeroWritesNothing) {
  Log.New();
  Log.LogLevel = 0;
  EXPECT_TRUE(Log.Print("invisible"));
  Log.LogLevel = 1;
  CLog::Flush(&Log);
  EXPECT_EQ(ReadFile(FileFor(Log.CreationTime)), "");
}

TEST_F(LogTest, EmptyMessageLeavesTheStampAndKeepsTheLock) {
  Log.New();
  EXPECT_FALSE(Log.Print("%s", ""));
  EXPECT_FALSE(LockFreeForOtherThreads(Log.hMutex));
  EXPECT_TRUE(Log.Print("next"));  // the same thread may go on
  EXPECT_TRUE(std::regex_match(ReadFile(FileFor(Log.CreationTime)),
                               std::regex(R"(\d\d:\d\d:\d\d \d\d:\d\d:\d\d next\n)")));
}

TEST_F(LogTest, LockKeptByAThreadIsGivenBackWhenItEnds) {
  Log.New();
  bool printed = true;
  std::thread([&] { printed = Log.Print("%s", ""); }).join();
  EXPECT_FALSE(printed);
  EXPECT_TRUE(LockFreeForOtherThreads(Log.hMutex));
  EXPECT_TRUE(Log.Print("still logging"));
}

TEST_F(LogTest, RotatesWhenTheNextLogTimeIsReached) {
  Log.New();
  ASSERT_TRUE(Log.Print("one"));
  time_t first = Log.CreationTime;
  Log.FileNamePref = "other";
  Log.NextLogTime = time(nullptr) - 1;
  ASSERT_TRUE(Log.Print("two"));
  EXPECT_GT(Log.NextLogTime, time(nullptr));
  EXPECT_TRUE(std::regex_match(ReadFile(FileFor(first)), std::regex(R"(\d\d:\d\d:\d\d one\n)")));
  EXPECT_TRUE(std::regex_match(ReadFile(FileFor(Log.CreationTime, "other")), std::regex(R"(\d\d:\d\d:\d\d two\n)")));
}

TEST_F(LogTest, OpenFailureThrowsZeroAndReleasesTheLock) {
  Log.New();
  Log.Path = (Dir.string() + "/missing/").c_str();
  Log.NextLogTime = time(nullptr) - 1;
  EXPECT_FALSE(Log.Print("lost"));  // a failed rotation loses the line, nothing escapes
  EXPECT_EQ(Log.FH, nullptr);
  EXPECT_TRUE(LockFreeForOtherThreads(Log.hMutex));
  int code = -1;
  try {
    Log.New();
  } catch (int c) {
    code = c;
  }
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(LockFreeForOtherThreads(Log.hMutex));
}

TEST_F(LogTest, DeferredFlushHappensOnRequest) {
  Log.AutoFlush = false;
  Log.New();
  ASSERT_TRUE(Log.Print("deferred"));
  EXPECT_TRUE(Log.DoFlush);
  EXPECT_TRUE(CLog::Flush(&Log));
  EXPECT_FALSE(Log.DoFlush);
  EXPECT_TRUE(std::regex_match(ReadFile(FileFor(Log.CreationTime)), std::regex(R"(\d\d:\d\d:\d\d deferred\n)")));
}

TEST_F(LogTest, WinErrWritesTheSystemErrorText) {
  Log.New();
  errno = ENOENT;
  ASSERT_TRUE(Log.WinErr());
  std::string text = ReadFile(FileFor(Log.CreationTime));
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d\d:\d\d:\d\d WINDOWS ERROR: .+\n)"))) << text;
  EXPECT_NE(text.find(strerror(ENOENT)), std::string::npos) << text;
}

TEST_F(LogTest, ThreadsWriteWholeLines) {
  const int kThreads = 4, kLines = 250;
  Log.AutoFlush = false;
  Log.New();
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t)
    writers.emplace_back([this, t] {
      for (int i = 0; i < kLines; ++i) Log.Print("thread %d line %d %s", t, i, "padding-padding-padding");
    });
  for (std::thread& w : writers) w.join();
  ASSERT_TRUE(CLog::Flush(&Log));

  std::istringstream in(ReadFile(FileFor(Log.CreationTime)));
  std::regex shape(R"(\d\d:\d\d:\d\d thread (\d) line (\d+) padding-padding-padding)");
  std::vector<int> nextLine(kThreads, 0);
  std::string line;
  int lines = 0;
  while (std::getline(in, line)) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
    int t = std::stoi(m[1]);
    EXPECT_EQ(std::stoi(m[2]), nextLine[t]++);  // each thread's lines in order
    ++lines;
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

}  // namespace
