// ctest-labels: threads
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "engines_helpers.h"
#include "engines_server.h"
#include "pl_shell.h"
#include "pl_thread.h"
#include "progdir.h"

namespace fs = std::filesystem;

namespace {

// What the stub opener was asked, call by call.
struct OpenCall {
  std::string File;
  std::string Params;  // "<null>" when none was given
  std::string Dir;     // "<null>" when none was given
  int Show;
};

std::mutex CallsLock;
std::vector<OpenCall> Calls;
std::atomic<bool> StubAnswer{true};

// The server's threads record, the test's thread reads: always under the lock.
std::vector<OpenCall> TakeCalls() {
  std::lock_guard<std::mutex> g(CallsLock);
  std::vector<OpenCall> taken;
  taken.swap(Calls);
  return taken;
}

bool RecordingOpener(const char* file, const char* params, const char* dir, int show) {
  std::lock_guard<std::mutex> g(CallsLock);
  Calls.push_back({file, params ? params : "<null>", dir ? dir : "<null>", show});
  return StubAnswer;
}

class RunTest : public ::testing::Test {
 protected:
  EnginesTempDir Home;
  std::unique_ptr<EnginesServer> Srv;

  void SetUp() override {
    TakeCalls();
    StubAnswer = true;
    PlShellSetOpener(RecordingOpener);
    ProgDir = Home.Path().c_str();  // set before the server's threads exist
    EnginesWriteFile(Home / "index.html", "<p>home</p>");
    Srv.reset(new EnginesServer(Home.Path(), false));
    ASSERT_TRUE(Srv->Start());
  }
  void TearDown() override {
    Srv.reset();
    PlShellSetOpener(nullptr);
    ProgDir.Empty();
  }
  EnginesReply Run(const std::string& query) { return EnginesGet(Srv->Port(), "/run.ebd" + query); }
  OpenCall OnlyCall() {
    std::vector<OpenCall> calls = TakeCalls();
    EXPECT_EQ(calls.size(), 1u);
    return calls.empty() ? OpenCall{} : calls.back();
  }
};

bool Is403(const EnginesReply& r) { return r.StatusLine.compare(0, 12, "HTTP/1.1 403") == 0; }

}  // namespace

TEST(ExpandTokens, ReplacesBothSpellingsEverywhere) {
  ProgDir = "/opt/p";
  CStr s("%PROGDIR%/a PROGDIR:/b %PROGDIR%PROGDIR:");
  ExpandTokens(s);
  EXPECT_STREQ(s.c_str(), "/opt/p/a /opt/p/b /opt/p/opt/p");
  ProgDir = "/x/PROGDIR:";  // a directory holding the token must not loop
  CStr t("PROGDIR:");
  ExpandTokens(t);
  EXPECT_STREQ(t.c_str(), "/x/PROGDIR:");
  CStr empty;
  ExpandTokens(empty);
  EXPECT_TRUE(empty.IsEmpty());
  ProgDir.Empty();
}

TEST_F(RunTest, OpensTheFileAndRedirects) {
  EnginesReply r = Run("?file=notes.txt&page=index.html");
  EXPECT_EQ(r.StatusLine.compare(0, 12, "HTTP/1.1 302"), 0) << r.Raw;
  EXPECT_NE(r.Header("Location").find("index.html"), std::string::npos);
  OpenCall c = OnlyCall();
  EXPECT_EQ(c.File, "notes.txt");
  EXPECT_EQ(c.Params, "<null>");
  EXPECT_EQ(c.Dir, "<null>");
  EXPECT_EQ(c.Show, 1);
}

TEST_F(RunTest, RefusalsGive403) {
  EXPECT_TRUE(Is403(Run("")));
  EXPECT_TRUE(Is403(Run("?file=&page=index.html")));
  EXPECT_TRUE(Is403(Run("?page=index.html&directory=/tmp")));
  EXPECT_TRUE(TakeCalls().empty());
  StubAnswer = false;  // the desktop could not open it (set while no request runs)
  EXPECT_TRUE(Is403(Run("?file=x.txt&page=index.html")));
  EXPECT_EQ(TakeCalls().size(), 1u);
}

TEST_F(RunTest, ShowCmdWordsAndLastArgumentWins) {
  const std::pair<const char*, int> cases[] = {
      {"MAXIMIZE", 3}, {"hide", 0}, {"showminnoactive", 7}, {"ShowNoActivate", 4}, {"big", 1}, {"", 1}};
  for (const auto& c : cases) {
    Run(std::string("?file=a&showcmd=") + c.first);
    EXPECT_EQ(OnlyCall().Show, c.second) << c.first;
  }
  Run("?file=a&showcmd=hide&showcmd=big&FILE=b");  // unknown word keeps hide
  OpenCall c = OnlyCall();
  EXPECT_EQ(c.Show, 0);
  EXPECT_EQ(c.File, "b");
}

TEST_F(RunTest, TokensAreExpandedOnlyInParameters) {
  Run("?file=PROGDIR:/tool&directory=%25PROGDIR%25/work&parameters=PROGDIR:/data/x.cfg+%25PROGDIR%25");
  OpenCall c = OnlyCall();
  EXPECT_EQ(c.File, "PROGDIR:/tool");
  EXPECT_EQ(c.Dir, "%PROGDIR%/work");
  EXPECT_EQ(c.Params, Home / "data/x.cfg " + Home.Path());
}

TEST_F(RunTest, PostedFormArgumentsCount) {
  EnginesReply r = EnginesPost(Srv->Port(), "/run.ebd", "application/x-www-form-urlencoded",
                               "file=report.pdf&showcmd=maximize&page=index.html");
  EXPECT_EQ(r.StatusLine.compare(0, 12, "HTTP/1.1 302"), 0) << r.Raw;
  EXPECT_EQ(OnlyCall().File, "report.pdf");
}

TEST_F(RunTest, DesktopOpenerRunsProgramsAndRefusesMissingFiles) {
  PlShellSetOpener(nullptr);
  EXPECT_TRUE(Is403(Run("?file=" + Home / "does-not-exist.txt" + "&page=index.html")));

  // A program is started with its parameters in the given directory.
  std::string out = Home / "ran.txt";
  EnginesReply r = Run("?file=" + EnginesHelperPath() + "&directory=" + Home.Path() +
                       "&parameters=write-file+PROGDIR:/ran.txt+%22two+words%22&page=index.html");
  EXPECT_EQ(r.StatusLine.compare(0, 12, "HTTP/1.1 302"), 0) << r.Raw;
  for (int i = 0; i < 200 && EnginesReadFile(out).find("]\n") == std::string::npos; i++) PlSleepMs(10);
  EXPECT_EQ(EnginesReadFile(out), "cwd=" + Home.Path() + "\n[two words]\n");
}
