// ctest-labels: threads
#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
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

// Splits "HH:MM:SS rest" into the stamp (seconds of the day) and the rest.
bool SplitStamp(const std::string& text, int* secs, std::string* rest) {
  int h, m, sec;
  char blank;
  if (text.size() < 9 || sscanf(text.c_str(), "%2d:%2d:%2d%c", &h, &m, &sec, &blank) != 4 || blank != ' ')
    return false;
  for (int i : {0, 1, 3, 4, 6, 7})
    if (!isdigit(static_cast<unsigned char>(text[i]))) return false;
  if (secs) *secs = h * 3600 + m * 60 + sec;
  *rest = text.substr(9);
  return true;
}

// The text after the stamp of a one-stamp file, or "<no stamp>".
std::string Unstamped(const std::string& text) {
  std::string rest;
  return SplitStamp(text, nullptr, &rest) ? rest : "<no stamp>";
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
  int stamp = -1;
  std::string rest;
  ASSERT_TRUE(SplitStamp(text, &stamp, &rest)) << text;
  EXPECT_EQ(rest, "hello 42 there\n");
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
  EXPECT_EQ(Unstamped(Unstamped(ReadFile(FileFor(Log.CreationTime)))), "next\n");
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
  EXPECT_EQ(Unstamped(ReadFile(FileFor(first))), "one\n");
  EXPECT_EQ(Unstamped(ReadFile(FileFor(Log.CreationTime, "other"))), "two\n");
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
  EXPECT_EQ(Unstamped(ReadFile(FileFor(Log.CreationTime))), "deferred\n");
}

TEST_F(LogTest, WinErrWritesTheSystemErrorText) {
  Log.New();
  errno = ENOENT;
  ASSERT_TRUE(Log.WinErr());
  std::string text = ReadFile(FileFor(Log.CreationTime));
  EXPECT_EQ(Unstamped(text), std::string("WINDOWS ERROR: ") + strerror(ENOENT) + "\n");
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
  std::vector<int> nextLine(kThreads, 0);
  std::string line;
  int lines = 0;
  while (std::getline(in, line)) {
    std::string rest;
    int t = -1, i = -1;
    ASSERT_TRUE(SplitStamp(line, nullptr, &rest)) << line;
    ASSERT_EQ(sscanf(rest.c_str(), "thread %d line %d", &t, &i), 2) << line;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    EXPECT_EQ(rest, "thread " + std::to_string(t) + " line " + std::to_string(i) + " padding-padding-padding");
    EXPECT_EQ(i, nextLine[t]++);  // each thread's lines in order
    ++lines;
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

}  // namespace
