// ctest-labels: threads
// The run wrapper on "/run.ebd" through a real server: what the opener is
// asked, the requests it refuses, and programs started in their directory.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "pl_shell.h"
#include "pl_thread.h"
#include "progdir.h"
#include "test_servers.h"

using namespace testsup;

namespace {

// The server's threads record what the stub opener was asked, the test's
// thread reads it: both under the lock.
std::mutex CallsLock;
std::vector<std::string> Calls;  // "file|parameters|directory|show"
std::atomic<bool> StubAnswer{true};

bool RecordingOpener(const char* file, const char* params, const char* dir, int show) {
  std::lock_guard<std::mutex> g(CallsLock);
  Calls.push_back(std::string(file) + "|" + (params ? params : "<null>") + "|" + (dir ? dir : "<null>") + "|" +
                  std::to_string(show));
  return StubAnswer;
}

std::vector<std::string> TakeCalls() {
  std::lock_guard<std::mutex> g(CallsLock);
  return std::move(Calls);
}

class RunTest : public ::testing::Test {
 protected:
  TempDir Home;
  std::unique_ptr<TestServer> Srv;

  void SetUp() override {
    TakeCalls();
    PlShellSetOpener(RecordingOpener);
    ProgDir = "/opt/p";  // before the server's threads exist
    ServerSetup setup;
    setup.AsPlayer = true;
    Srv = std::make_unique<TestServer>(Home.Path(), setup);
    ASSERT_TRUE(Srv->Start());
  }
  void TearDown() override { PlShellSetOpener(nullptr); }
  Reply Ask(const std::string& query) { return Get(Srv->Port(), "/run.ebd" + query); }
  std::string Status(const std::string& query) { return Ask(query).StatusLine.substr(0, 12); }
};

}  // namespace

TEST_F(RunTest, OpenerGetsTheArguments) {
  WriteFile(Home.Join("notes.txt"), "n");
  Reply r = Ask("?file=" + Home.Join("notes.txt") + "&page=index.html");
  EXPECT_EQ(r.StatusLine.substr(0, 12), "HTTP/1.1 302");
  EXPECT_TRUE(r.Has("\r\nLocation: ") && r.Has("index.html\r\n")) << r.Raw;
  EXPECT_EQ(TakeCalls(), std::vector<std::string>{TestNativePath(Home.Join("notes.txt")) + "|<null>|<null>|1"});
  const std::pair<const char*, const char*> cases[] = {
      {"file=a&showcmd=MAXIMIZE", "a|<null>|<null>|3"}, {"file=a&showcmd=hide", "a|<null>|<null>|0"},
      {"file=a&showcmd=showminnoactive", "a|<null>|<null>|7"}, {"file=a&showcmd=ShowNoActivate", "a|<null>|<null>|4"},
      {"file=a&showcmd=big", "a|<null>|<null>|1"},
      {"file=a&showcmd=hide&showcmd=big&FILE=b", "b|<null>|<null>|0"},  // an unknown word keeps hide
      // Only the parameters have the program directory put in.
      // File and directory are given to the system with its own separator.
      {"file=PROGDIR:/t&directory=%25PROGDIR%25/w&parameters=PROGDIR:/x.cfg+%25PROGDIR%25",
       "PROGDIR:/t|/opt/p/x.cfg /opt/p|%PROGDIR%/w|1"},
  };
  for (const auto& c : cases) {
    Ask(std::string("?") + c.first);
    std::string want = c.second;
    size_t params = want.find('|'), dir = want.find('|', params + 1);
    want = TestNativePath(want.substr(0, params)) + want.substr(params, dir - params) +
           TestNativePath(want.substr(dir));
    EXPECT_EQ(TakeCalls(), std::vector<std::string>{want}) << c.first;
  }
}

TEST_F(RunTest, RefusalsGive403) {
  for (const char* q : {"", "?file=&page=index.html"}) EXPECT_EQ(Status(q), "HTTP/1.1 403") << q;
  EXPECT_TRUE(TakeCalls().empty());
  StubAnswer = false;  // the desktop could not open it
  EXPECT_EQ(Status("?file=x.txt&page=index.html"), "HTTP/1.1 403");
  StubAnswer = true;
  PlShellSetOpener(nullptr);
  EXPECT_EQ(Status("?file=" + Home.Join("does-not-exist.txt") + "&page=index.html"), "HTTP/1.1 403");
}

TEST_F(RunTest, DesktopOpenerStartsAProgramInItsDirectory) {
  PlShellSetOpener(nullptr);
  std::string out = Home.Join("ran.txt");
  std::string query = "?file=" + PipeHelperPath() + "&directory=" + Home.Path() +
                      "&parameters=cwd+ran.txt&page=p";
  EXPECT_EQ(Status(query), "HTTP/1.1 302");
  for (int i = 0; i < 300 && ReadFile(out).empty(); i++) PlSleepMs(10);
  EXPECT_EQ(ReadFile(out), TestNativePath(Home.Path()) + "\n");
}

// Names the way the desktop takes them: a bare program name from the search
// path, a relative path against our own current directory (not the
// directory the program is started in).
TEST_F(RunTest, DesktopOpenerFindsBareNamesAndRelativePaths) {
  SKIP_ON_WINDOWS("the Windows shell searches for programs itself");
  PlShellSetOpener(nullptr);
  WriteFile(Home.Join("prog.sh"), "#!/bin/sh\npwd > ran-relative.txt\n");
  std::filesystem::permissions(Home.Join("prog.sh"), std::filesystem::perms::owner_all);
  const std::string relative = std::filesystem::relative(Home.Join("prog.sh")).string();
  ASSERT_NE(relative[0], '/');
  const struct { std::string file, params, out; } cases[] = {
      {"sh", "-c+%22pwd+%3E+ran-bare.txt%22", "ran-bare.txt"},
      {relative, "", "ran-relative.txt"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    std::string query = "?file=" + c.file + "&directory=" + Home.Path() + "&page=p";
    if (!c.params.empty()) query += "&parameters=" + c.params;
    EXPECT_EQ(Status(query), "HTTP/1.1 302");
    for (int i = 0; i < 200 && ReadFile(Home.Join(c.out)).empty(); i++) PlSleepMs(10);
    EXPECT_EQ(ReadFile(Home.Join(c.out)), Home.Path() + "\n");
  }
  EXPECT_EQ(Status("?file=no-such-program-here&page=p"), "HTTP/1.1 403");
}
