// ctest-labels: threads
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>

#include <string>
#include <thread>
#include <vector>

#include "cpipestream.h"
#include "engines_helpers.h"
#include "pl_thread.h"

namespace {

std::string Helper(const std::string& args) { return "\"" + EnginesHelperPath() + "\" " + args; }

std::string ReadAll(CPipeStream& p) {
  std::string out;
  char buf[4096];
  unsigned n;
  while ((n = p.Read(buf, sizeof buf)) > 0) out.append(buf, n);
  return out;
}

std::string RunHelper(const std::string& args, int flags = CPIPE_READ, CStrList* env = nullptr,
                const char* dir = nullptr) {
  CPipeStream p;
  p.Open(Helper(args).c_str(), dir, env, flags);
  return ReadAll(p);
}

int OpenError(const char* cmd) {
  CPipeStream p;
  try {
    p.Open(cmd, nullptr, nullptr, CPIPE_READ);
  } catch (int e) {
    EXPECT_EQ(p.hRunThread, nullptr);
    EXPECT_EQ(p.hChildStdoutRd, PL_NO_FILE);
    return e;
  }
  return 0;
}

}  // namespace

TEST(CPipeStream, DefaultsAfterSet) {
  CPipeStream p;
  EXPECT_EQ(p.AccFlags, CPIPE_READ);
  EXPECT_EQ(p.TextMode, 1);
  EXPECT_EQ(p.TimeOut, 0u);
  EXPECT_EQ(p.GetStatus(), 0);
  EXPECT_EQ(p.Environ, nullptr);
}

TEST(CPipeStream, OutputAndErrorShareOnePipeAndExitCodeIsKept) {
  EXPECT_EQ(RunHelper("print \"out\\n\""), "out\n");
  EXPECT_EQ(RunHelper("stderr err"), "err");
  CPipeStream p;
  p.Open(Helper("exit 7").c_str(), nullptr, nullptr, CPIPE_READ);
  EXPECT_EQ(ReadAll(p), "");
  p.Wait();
  EXPECT_EQ(p.GetExitCode(), 7u);
  EXPECT_EQ(p.GetStatus() & (CPIPE_ST_RUNNING | CPIPE_ST_TIMEDOUT | CPIPE_ST_CRASHED), 0);
}

TEST(CPipeStream, ProgramThatCannotStartThrowsRun) {
  EXPECT_EQ(OpenError("/nonexistent/dir/program arg"), CERR_GEN_RUN);
  EXPECT_EQ(OpenError("lumetta-no-such-program-on-path"), CERR_GEN_RUN);
  EXPECT_EQ(OpenError(""), CERR_GEN_RUN);
  EXPECT_EQ(OpenError(LUMETTA_SOURCE_DIR), CERR_GEN_RUN);  // a directory is no program
  CPipeStream p;
  EXPECT_THROW(p.Open(Helper("exit 0").c_str(), "/nonexistent/dir", nullptr, CPIPE_READ), int);
}

TEST(CPipeStream, BareProgramNameIsFoundOnPath) {
  CPipeStream p;
  p.Open("sh -c \"echo found\"", nullptr, nullptr, CPIPE_READ);
  EXPECT_EQ(ReadAll(p), "found\n");
}

TEST(CPipeStream, TimeOutEndsChildWithCodeOneAndSetsBit) {
  CPipeStream p;
  p.TimeOut = 1;
  uint64_t start = PlMonotonicMs();
  p.Open(Helper("sleep 30").c_str(), nullptr, nullptr, CPIPE_READ);
  EXPECT_EQ(ReadAll(p), "");
  p.Wait();
  EXPECT_LT(PlMonotonicMs() - start, 10000u);
  EXPECT_TRUE(p.GetStatus() & CPIPE_ST_TIMEDOUT);
  EXPECT_FALSE(p.GetStatus() & CPIPE_ST_RUNNING);
  EXPECT_EQ(p.GetExitCode(), 1u);
}

TEST(CPipeStream, TimeOutAlsoEndsWhatTheChildStarted) {
  // The grandchild holds the output pipe; without ending it the read below
  // would wait its full 30 seconds.
  CPipeStream p;
  p.TimeOut = 1;
  uint64_t start = PlMonotonicMs();
  p.Open(Helper("orphan 30").c_str(), nullptr, nullptr, CPIPE_READ);
  ReadAll(p);
  EXPECT_LT(PlMonotonicMs() - start, 10000u);
  EXPECT_TRUE(p.GetStatus() & CPIPE_ST_TIMEDOUT);
}

TEST(CPipeStream, DebugModeReportsCrashes) {
  for (const char* mode : {"crash", "abort"}) {
    CPipeStream p;
    p.Open(Helper(mode).c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_DEBUG);
    ReadAll(p);
    p.Wait();
    EXPECT_TRUE(p.GetStatus() & CPIPE_ST_CRASHED) << mode;
  }
  CPipeStream plain;  // outside debug mode a crash is just an end
  plain.Open(Helper("crash").c_str(), nullptr, nullptr, CPIPE_READ);
  ReadAll(plain);
  plain.Wait();
  EXPECT_FALSE(plain.GetStatus() & CPIPE_ST_CRASHED);
  CPipeStream clean;
  clean.Open(Helper("exit 0").c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_DEBUG);
  ReadAll(clean);
  clean.Wait();
  EXPECT_FALSE(clean.GetStatus() & CPIPE_ST_CRASHED);
}

TEST(CPipeStream, GetsLineEndRules) {
  CPipeStream p;
  char buf[64];
  p.Open(Helper("print \"a\\rb\"").c_str(), nullptr, nullptr, CPIPE_READ);
  ASSERT_NE(p.Gets(buf, sizeof buf), nullptr);
  EXPECT_STREQ(buf, "a\n");
  EXPECT_EQ(p.Gets(buf, sizeof buf), nullptr);  // the b after a lone CR is lost
  EXPECT_EQ(p.Getc(), -1);
  EXPECT_EQ(p.Getc(), -1);

  p.Open(Helper("print \"a\\r\\nb\"").c_str(), nullptr, nullptr, CPIPE_READ);
  ASSERT_NE(p.Gets(buf, sizeof buf), nullptr);
  EXPECT_STREQ(buf, "a\n");
  ASSERT_NE(p.Gets(buf, sizeof buf), nullptr);
  EXPECT_STREQ(buf, "b");
  EXPECT_EQ(p.Gets(buf, sizeof buf), nullptr);

  p.Open(Helper("print \"abcdef\\n\"").c_str(), nullptr, nullptr, CPIPE_READ);
  ASSERT_NE(p.Gets(buf, 4), nullptr);  // size - 1 characters at most
  EXPECT_STREQ(buf, "abc");
  ASSERT_NE(p.Gets(buf, sizeof buf), nullptr);
  EXPECT_STREQ(buf, "def\n");
  EXPECT_THROW(p.Gets(nullptr, 4), int);
}

TEST(CPipeStream, LongLineArrivesWhole) {
  CPipeStream p;
  p.Open(Helper("line 5000").c_str(), nullptr, nullptr, CPIPE_READ);
  CStr line;
  p.Gets(line);
  EXPECT_EQ(line.Len, 5001);
  EXPECT_EQ(std::string(line.c_str()), std::string(5000, 'x') + "\n");
  p.Gets(line);
  EXPECT_TRUE(line.IsEmpty());
}

TEST(CPipeStream, WritesReachTheChildWithTextConversion) {
  CPipeStream p;
  p.Open(Helper("echo").c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_WRITE);
  p.WriteConv("x\n", 2);  // text mode 1: CR LF
  char buf[8] = {0};
  unsigned got = 0;
  while (got < 3) got += p.Read(buf + got, 3 - got);
  EXPECT_STREQ(buf, "x\r\n");
  p.TextMode = 2;
  p.Printf("%d\n", 42);
  got = 0;
  while (got < 3) got += p.Read(buf + got, 3 - got);
  EXPECT_EQ(std::string(buf, 3), "42\r");
  EXPECT_THROW(p.Puts(""), int);
  p.CloseAll();  // the child sees the end of its input and leaves
  EXPECT_FALSE(p.GetStatus() & CPIPE_ST_RUNNING);

  CPipeStream bin;
  bin.Open(Helper("echo").c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_WRITE | CPIPE_BINARY);
  bin.WriteConv("y\n", 2);
  got = 0;
  while (got < 2) got += bin.Read(buf + got, 2 - got);
  EXPECT_EQ(std::string(buf, 2), "y\n");
}

TEST(CPipeStream, AccessBitsAndStateAreChecked) {
  CPipeStream p;
  char c;
  try {
    p.Open(Helper("exit 0").c_str(), nullptr, nullptr, CPIPE_WRITE);
    p.Read(&c, 1);
    FAIL();
  } catch (int e) {
    EXPECT_EQ(e, CERR_GEN_WRITEONLY);
  }
  CPipeStream q;
  q.Open(Helper("exit 0").c_str(), nullptr, nullptr, CPIPE_READ);
  try {
    q.Write("x", 1);
    FAIL();
  } catch (int e) {
    EXPECT_EQ(e, CERR_GEN_READONLY);
  }
  ReadAll(q);
  q.Wait();
  try {
    q.Puts("late");
    FAIL();
  } catch (int e) {
    EXPECT_EQ(e, CERR_GEN_FILENOTOPEN);
  }
  EXPECT_THROW(q.Read(nullptr, 1), int);
}

TEST(CPipeStream, WriteToAChildThatLeftThrowsInsteadOfKillingUs) {
  CPipeStream p;
  p.Open(Helper("exit 0").c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_WRITE);
  ReadAll(p);
  p.Wait();
  std::string big(1 << 20, 'z');
  try {
    p.Write(big.data(), (unsigned)big.size());
    FAIL();
  } catch (int e) {
    EXPECT_EQ(e, CERR_GEN_WRITE);
  }
}

TEST(CPipeStream, PriorityTable) {
  CPipeStream p;
  try {
    p.SetPriority(4);
    FAIL();
  } catch (int e) {
    EXPECT_EQ(e, CERR_GEN_PRIORITY);
  }
  EXPECT_THROW(p.SetPriority(-1), int);
  p.SetPriority(2);  // below normal, applied as the child starts
  EXPECT_EQ(RunHelper("nice").substr(0, 1), "0");  // a stream of its own keeps normal
  p.Open(Helper("nice").c_str(), nullptr, nullptr, CPIPE_READ);
  EXPECT_EQ(ReadAll(p), "5\n");
  EXPECT_NO_THROW(p.SetPriority(3));
  EXPECT_EQ(p.GetPriority(), 3);
}

TEST(CPipeStream, ChildGetsExactlyTheGivenEnvironment) {
  CStrList env;
  env.Add("ALPHA=1");
  env.Add("EMPTY=");
  env.Add("SPACED=two words");
  EXPECT_EQ(RunHelper("env", CPIPE_READ, &env), "ALPHA=1\nEMPTY=\nSPACED=two words\n");
  CStrList none;
  EXPECT_EQ(RunHelper("env", CPIPE_READ, &none), "");
  EXPECT_NE(RunHelper("env").find("PATH="), std::string::npos);  // no list: ours is inherited
}

TEST(CPipeStream, CommandLineFollowsWindowsQuotingRules) {
  std::string out = RunHelper("args plain \"two words\" a\\b \"q\\\"uote\" back\\\\\"slash x\" 3\\\\\\\"q \"\" end");
  EXPECT_EQ(out, "[plain]\n[two words]\n[a\\b]\n[q\"uote]\n[back\\slash x]\n[3\\\"q]\n[]\n[end]\n");
}

TEST(CPipeStream, WorkingDirectory) {
  EnginesTempDir dir;
  EXPECT_EQ(RunHelper("pwd", CPIPE_READ, nullptr, dir.Path().c_str()), dir.Path() + "\n");
}

TEST(CPipeStream, KillEndsTheChild) {
  CPipeStream p;
  p.Open(Helper("sleep 30").c_str(), nullptr, nullptr, CPIPE_READ);
  EXPECT_TRUE(p.GetStatus() & CPIPE_ST_RUNNING);
  p.Kill();
  EXPECT_TRUE(p.GetStatus() & CPIPE_ST_KILLED);
  EXPECT_FALSE(p.GetStatus() & CPIPE_ST_RUNNING);
  EXPECT_EQ(ReadAll(p), "");
}

TEST(CPipeStream, LeavesNoDescriptorsAndNoZombies) {
  auto openDescriptors = [] {
    int n = 0;
    for (auto& e : std::filesystem::directory_iterator("/proc/self/fd")) n += e.path().empty() ? 0 : 1;
    return n;
  };
  int before = openDescriptors();
  RunHelper("print x");
  OpenError("/nonexistent/program");
  {
    CPipeStream p;
    p.TimeOut = 1;
    p.Open(Helper("sleep 30").c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_WRITE | CPIPE_DEBUG);
    ReadAll(p);
  }
  {
    CPipeStream p;  // dropped while the child still runs
    p.Open(Helper("echo").c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_WRITE);
  }
  EXPECT_EQ(openDescriptors(), before);
  int st;
  errno = 0;
  EXPECT_EQ(waitpid(-1, &st, WNOHANG), -1);  // every child has been collected
  EXPECT_EQ(errno, ECHILD);
}

TEST(CPipeStream, ManyStreamsAtOnce) {
  std::vector<std::thread> threads;
  std::vector<std::string> results(8);
  for (int i = 0; i < 8; i++)
    threads.emplace_back([i, &results] {
      for (int k = 0; k < 5; k++) results[i] += RunHelper("print " + std::to_string(i));
    });
  for (auto& t : threads) t.join();
  for (int i = 0; i < 8; i++) EXPECT_EQ(results[i], std::string(5, (char)('0' + i)));
}
