// ctest-labels: threads
// The log: file names and stamps in UTC, levels, rotation when the date turns,
// and whole lines from many threads.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>
#include <vector>

#include "clog.h"
#include "pl_net.h"
#include "test_support.h"

using namespace testsup;

namespace fs = std::filesystem;

namespace {

// Splits a "HH:MM:SS text" line into seconds of the day and the text; -1
// when the stamp is malformed.
int SplitStamp(const std::string& line, std::string* rest) {
  int h, m, s, used = 0;
  if (sscanf(line.c_str(), "%2d:%2d:%2d %n", &h, &m, &s, &used) != 3 || used != 9 || line[2] != ':') return -1;
  *rest = line.substr(9);
  return h * 3600 + m * 60 + s;
}

bool LockFreeForOtherThreads(PlMutex* m) {
  bool free = false;
  std::thread([&] {
    if ((free = m->TryLock())) m->Unlock();
  }).join();
  return free;
}

// Each test logs into a fresh directory of its own. The directory is declared
// first so that it goes last, after the log has closed its file (an open file
// cannot be removed on Windows).
class LogTest : public ::testing::Test {
 protected:
  testsup::TempDir Scratch;
  fs::path Dir = Scratch.Path();
  CLog Log;

  void SetUp() override {
    Log.Path = (Dir.string() + "/").c_str();
    Log.FileNamePref = "srv";
  }

  // The contents of the file a New() at time t opens, with the platform's
  // line ends read as "\n".
  std::string FileFor(time_t t, const char* prefix = "srv") const {
    char date[16];
    strftime(date, sizeof date, "%Y%m%d", std::gmtime(&t));
    std::ifstream in(Dir / (std::string(prefix) + date + ".log"));
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
};

TEST(LogFormatIP, GivesDottedFormFromNetworkOrder) {
  EXPECT_STREQ(CLog::FormatIP(PlHtonl(0xC0A8010Au)).c_str(), "192.168.1.10");
}

TEST_F(LogTest, FileIsNamedByUtcDateAndLinesCarryUtcTime) {
  time_t before = time(nullptr);
  Log.New();
  ASSERT_TRUE(Log.Print("hello %d %s", 42, "there"));
  time_t after = time(nullptr);
  std::string text = FileFor(before), rest;
  if (text.empty()) text = FileFor(after);  // midnight passed meanwhile
  int stamp = SplitStamp(text, &rest);
  EXPECT_EQ(rest, "hello 42 there\n");
  int lo = (int)(before % 86400), hi = (int)(after % 86400);
  EXPECT_TRUE(lo <= hi ? (stamp >= lo && stamp <= hi) : (stamp >= lo || stamp <= hi)) << text;
  // The next file starts at tomorrow's UTC date read as local midnight.
  time_t next = Log.CreationTime + 86400;
  struct tm tm = *std::gmtime(&next);
  tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  EXPECT_EQ(Log.NextLogTime, mktime(&tm));
}

TEST_F(LogTest, LevelZeroAndEmptyMessages) {
  Log.New();
  Log.LogLevel = 0;
  EXPECT_TRUE(Log.Print("invisible"));
  Log.LogLevel = 3;
  bool printed = true;  // a thread that ends gives its kept lock back
  std::thread([&] { printed = Log.Print("%s", ""); }).join();
  EXPECT_FALSE(printed);
  EXPECT_TRUE(LockFreeForOtherThreads(Log.hMutex));
  // An empty message leaves a bare stamp and keeps the lock for this thread.
  EXPECT_FALSE(Log.Print("%s", ""));
  EXPECT_FALSE(LockFreeForOtherThreads(Log.hMutex));
  EXPECT_TRUE(Log.Print("next"));
  std::string text = FileFor(Log.CreationTime), rest;
  int stamps = 0;
  for (; SplitStamp(text, &rest) >= 0; ++stamps) text = rest;
  EXPECT_EQ(stamps, 3);  // two bare ones, then the line
  EXPECT_EQ(text, "next\n");
}

TEST_F(LogTest, RotatesAndSurvivesAFailedRotation) {
  Log.New();
  ASSERT_TRUE(Log.Print("one"));
  time_t first = Log.CreationTime;
  Log.FileNamePref = "other";
  Log.NextLogTime = time(nullptr) - 1;
  ASSERT_TRUE(Log.Print("two"));
  std::string rest;
  SplitStamp(FileFor(first), &rest);
  EXPECT_EQ(rest, "one\n");
  SplitStamp(FileFor(Log.CreationTime, "other"), &rest);
  EXPECT_EQ(rest, "two\n");

  Log.Path = (Dir.string() + "/missing/").c_str();
  Log.NextLogTime = time(nullptr) - 1;
  EXPECT_FALSE(Log.Print("lost"));  // the line is lost, nothing escapes
  EXPECT_TRUE(LockFreeForOtherThreads(Log.hMutex));
}

TEST_F(LogTest, ThreadsWriteWholeLinesInOrder) {
  const int kThreads = 4, kLines = 250;
  Log.AutoFlush = false;
  Log.New();
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t)
    writers.emplace_back([this, t] {
      for (int i = 0; i < kLines; ++i) Log.Print("thread %d line %d %s", t, i, "padding-padding");
    });
  for (std::thread& w : writers) w.join();
  ASSERT_TRUE(CLog::Flush(&Log));
  std::istringstream in(FileFor(Log.CreationTime));
  std::vector<int> nextLine(kThreads, 0);
  std::string line, rest;
  int lines = 0;
  for (; std::getline(in, line); ++lines) {
    ASSERT_GE(SplitStamp(line, &rest), 0) << line;
    int t = rest.size() > 7 ? rest[7] - '0' : -1;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    // Whole lines, and each thread's lines in the order it wrote them.
    EXPECT_EQ(rest, "thread " + std::to_string(t) + " line " + std::to_string(nextLine[t]++) + " padding-padding");
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

}  // namespace
