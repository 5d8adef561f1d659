// ctest-labels: threads
// Child processes behind a pipe stream, driven by the helper program: exit
// codes, signals and time-outs, line ends, the environment, error output and
// quoting, and nothing left behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cpipestream.h"
#include "pl_process.h"
#include "test_support.h"

using namespace testsup;

namespace {

std::string ReadAll(CPipeStream& p) {
  std::string out;
  char buf[4096];
  unsigned n;
  while ((n = p.Read(buf, sizeof buf)) > 0) out.append(buf, n);
  return out;
}

// Runs the helper to its end and leaves the stream for the caller to inspect.
std::string RunToEnd(CPipeStream& p, const std::string& cmd, int flags = CPIPE_READ, CStrList* env = nullptr) {
  p.Open(cmd.c_str(), nullptr, env, flags);
  std::string out = ReadAll(p);
  p.Wait();
  return out;
}

int Thrown(const std::function<void()>& f) {
  try {
    f();
  } catch (int e) {
    return e;
  }
  return 0;
}

}  // namespace

// Status bits among running, timed out and crashed; exit code -1 is not checked.
struct EndCase {
  const char* args;
  int flags;
  unsigned timeOut;
  int bits;
  long exitCode;
};

void ExpectEnds(const std::vector<EndCase>& cases) {
  for (const EndCase& c : cases) {
    SCOPED_TRACE(c.args);
    CPipeStream p;
    p.TimeOut = c.timeOut;
    uint64_t start = PlMonotonicMs();
    EXPECT_EQ(RunToEnd(p, PipeHelperCmd(c.args), c.flags), "");
    EXPECT_LT(PlMonotonicMs() - start, 10000u);
    EXPECT_EQ(p.GetStatus() & (CPIPE_ST_RUNNING | CPIPE_ST_TIMEDOUT | CPIPE_ST_CRASHED), c.bits);
    EXPECT_TRUE(c.exitCode < 0 || p.GetExitCode() == (unsigned)c.exitCode) << p.GetExitCode();
  }
}

TEST(CPipeStream, EndStatesExitCodesAndTimeOut) {
  ExpectEnds({
      {"exit 7", CPIPE_READ, 0, 0, 7},
      {"exit 0", CPIPE_READ | CPIPE_DEBUG, 0, 0, 0},
      // The grandchild holds the output too: the read only ends in time if
      // the time-out ends it as well.
      {"sleep 30", CPIPE_READ, 1, CPIPE_ST_TIMEDOUT, 1},
      {"crash", CPIPE_READ | CPIPE_DEBUG, 0, CPIPE_ST_CRASHED, -1},
      {"crash", CPIPE_READ, 0, 0, -1},  // outside debug mode a crash is just an end
  });
}

TEST(CPipeStream, SignalDeathsCrashedOnlyForBadAccess) {
  SKIP_ON_WINDOWS("signals are POSIX's; a Windows crash is an exception, tested above");
  ExpectEnds({
      {"signal 7", CPIPE_READ | CPIPE_DEBUG, 0, CPIPE_ST_CRASHED, -1},  // SIGBUS: a bad access too
      // Aborts, bad instructions and arithmetic traps are ends, not crashes.
      {"signal 6", CPIPE_READ | CPIPE_DEBUG, 0, 0, 128 + 6},
      {"signal 4", CPIPE_READ | CPIPE_DEBUG, 0, 0, 128 + 4},
      {"signal 8", CPIPE_READ | CPIPE_DEBUG, 0, 0, 128 + 8},
  });
}

TEST(CPipeStream, ProgramThatCannotStartThrowsRun) {
  for (std::string cmd : {"/nonexistent/dir/program arg", "lumetta-no-such-program-on-path", "", LUMETTA_SOURCE_DIR}) {
    SCOPED_TRACE(cmd);
    CPipeStream p;
    EXPECT_EQ(Thrown([&] { p.Open(cmd.c_str(), nullptr, nullptr, CPIPE_READ); }), CERR_GEN_RUN);
    EXPECT_EQ(p.hRunThread, nullptr);
    EXPECT_EQ(p.hChildStdoutRd, PL_NO_FILE);
  }
  CPipeStream p;
  EXPECT_NE(Thrown([&] { p.Open(PipeHelperCmd("exit 0").c_str(), "/nonexistent/dir", nullptr, CPIPE_READ); }), 0);
}

TEST(CPipeStream, MisuseThrowsCodes) {
  CPipeStream idle, writeOnly, readOnly, ended, gone;
  char c;
  std::string big(1 << 20, 'z');
  writeOnly.Open(PipeHelperCmd("exit 0").c_str(), nullptr, nullptr, CPIPE_WRITE);
  readOnly.Open(PipeHelperCmd("exit 0").c_str(), nullptr, nullptr, CPIPE_READ);
  RunToEnd(ended, PipeHelperCmd("exit 0"));
  RunToEnd(gone, PipeHelperCmd("exit 0"), CPIPE_READ | CPIPE_WRITE);
  const std::pair<int, std::function<void()>> cases[] = {
      {CERR_GEN_PRIORITY, [&] { idle.SetPriority(4); }},
      {CERR_GEN_WRITEONLY, [&] { writeOnly.Read(&c, 1); }},
      {CERR_GEN_READONLY, [&] { readOnly.Write("x", 1); }},
      {CERR_GEN_FILENOTOPEN, [&] { ended.Puts("late"); }},
      {CERR_GEN_WRITE, [&] { gone.Write(big.data(), (unsigned)big.size()); }},  // not a broken-pipe signal
  };
  for (const auto& c : cases) EXPECT_EQ(Thrown(c.second), c.first);
  // Text writes of nothing do nothing, in every line-end mode.
  CPipeStream text;
  text.Open(PipeHelperCmd("exit 0").c_str(), nullptr, nullptr, CPIPE_WRITE);
  text.Wait();  // the watcher reads the flags while it runs
  for (int mode : {0, 1, 2}) {
    text.TextMode = mode;
    EXPECT_EQ(Thrown([&] { text.WriteConv("", 0); }), 0) << mode;
  }
  text.AccFlags |= CPIPE_BINARY;
  EXPECT_EQ(Thrown([&] { text.WriteConv("", 0); }), CERR_GEN_MISSINGARGUMENT);
}

TEST(CPipeStream, GetsLineEndRules) {
  struct Case { const char* args; int size; const char* lines; } cases[] = {  // each line ends in '|'
      {"print \"a\\rb\"", 64, "a\n|"},  // a lone CR ends the line and the rest is lost
      {"print \"a\\r\\nb\"", 64, "a\n|b|"},
      {"print \"abcdef\\n\"", 4, "abc|def|\n|"},  // size - 1 characters at most
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    CPipeStream p;
    p.Open(PipeHelperCmd(c.args).c_str(), nullptr, nullptr, CPIPE_READ);
    std::string got;
    char buf[64];
    while (p.Gets(buf, c.size)) got += std::string(buf) + "|";
    EXPECT_EQ(got, c.lines);
    EXPECT_EQ(p.Getc(), -1);
  }
  CPipeStream p;
  p.Open(PipeHelperCmd("print " + std::string(5000, 'x') + "\\n").c_str(), nullptr, nullptr, CPIPE_READ);
  CStr line;
  EXPECT_EQ(std::string(p.Gets(line).c_str()), std::string(5000, 'x') + "\n");
  EXPECT_TRUE(p.Gets(line).IsEmpty());
}

TEST(CPipeStream, ChildGetsTheGivenEnvironmentOrOurs) {
  CStrList env, none;
  env.Add("ALPHA=1");
  env.Add("EMPTY=");
  env.Add("SPACED=two words");
  CPipeStream p;
  EXPECT_EQ(WithoutSystemVariables(RunToEnd(p, PipeHelperCmd("env"), CPIPE_READ, &env)), "ALPHA=1\nEMPTY=\nSPACED=two words\n");
  // No list and an empty list alike: the child inherits ours.
  EXPECT_NE(RunToEnd(p, PipeHelperCmd("env"), CPIPE_READ, &none).find("PATH="), std::string::npos);
  EXPECT_NE(RunToEnd(p, PipeHelperCmd("env")).find("PATH="), std::string::npos);
}

TEST(CPipeStream, ErrorOutputMergedOrOnAPipeOfItsOwn) {
  CPipeStream p;
  EXPECT_EQ(RunToEnd(p, PipeHelperCmd("both out\\n err\\n")), "out\nerr\n");
  std::string err;
  std::thread drain;
  p.Open(PipeHelperCmd("both out\\n err\\n").c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_STDERR);
  drain = std::thread([&] {
    char buf[64];
    unsigned n;
    while ((n = p.ReadErr(buf, sizeof buf)) > 0) err.append(buf, n);
  });
  EXPECT_EQ(ReadAll(p), "out\n");
  p.Wait();
  drain.join();
  EXPECT_EQ(err, "err\n");
  CPipeStream plain;
  EXPECT_EQ(Thrown([&] { plain.ReadErr(&err[0], 1); }), CERR_GEN_WRITEONLY);
}

TEST(CPipeStream, CommandLineFollowsWindowsQuotingRules) {
  CPipeStream p;
  EXPECT_EQ(RunToEnd(p, PipeHelperCmd("args \"two words\" a\\b \"q\\\"uote\" back\\\\\"slash x\" 3\\\\\\\"q \"\" end")),
            "[two words]\n[a\\b]\n[q\"uote]\n[back\\slash x]\n[3\\\"q]\n[]\n[end]\n");
}

TEST(CPipeStream, ManyStreamsLeaveNoDescriptorsAndNoChildren) {
  auto before = PlOpenHandleCount();
  ASSERT_GE(before, 0);
  std::vector<std::thread> threads;
  std::string results[8];
  for (int i = 0; i < 8; i++)
    threads.emplace_back([i, &results] {
      CPipeStream p;
      for (int k = 0; k < 4; k++) results[i] += RunToEnd(p, PipeHelperCmd("print " + std::to_string(i)));
    });
  for (auto& t : threads) t.join();
  for (int i = 0; i < 8; i++) EXPECT_EQ(results[i], std::string(4, (char)('0' + i)));
  {
    CPipeStream timedOut, dropped;
    timedOut.TimeOut = 1;
    RunToEnd(timedOut, PipeHelperCmd("sleep 30"), CPIPE_READ | CPIPE_WRITE | CPIPE_DEBUG);
    dropped.Open(PipeHelperCmd("cat").c_str(), nullptr, nullptr, CPIPE_READ | CPIPE_WRITE);  // still running
    Thrown([&] { CPipeStream().Open("/nonexistent/program", nullptr, nullptr, CPIPE_READ); });
  }
  EXPECT_EQ(PlOpenHandleCount(), before);
  EXPECT_TRUE(PlProcessAllCollected());  // every child has been collected
}
