// The start sequence on a recording window: which settings it reads in which
// order, what the server gets, the port search and the start address.
// ctest-labels: threads
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "chttpserver.h"
#include "pl_net.h"
#include "pl_thread.h"
#include "player_start.h"
#include "progdir.h"
#include "shell_state.h"
#include "test_support.h"

using namespace testsup;

namespace {

using Calls = std::vector<std::string>;

// Records every request of the start sequence as one line.
class RecordingWindow : public PlayerWindow {
 public:
  Calls Log;
  void SetCaption(const char* t) override { Log.push_back(std::string("caption ") + t); }
  void SetCentered() override { Log.push_back("centered"); }
  void SetTop(int v) override { Log.push_back("top " + std::to_string(v)); }
  void SetLeft(int v) override { Log.push_back("left " + std::to_string(v)); }
  void ShowStatusBar(bool on) override { Log.push_back(on ? "status on" : "status off"); }
  void SetSizeable(bool on) override { Log.push_back(on ? "sizeable" : "fixed"); }
  void SetBorderless() override { Log.push_back("borderless"); }
  void SetClientWidth(int v) override { Log.push_back("width " + std::to_string(v)); }
  void SetBrowserHeight(int v) override { Log.push_back("height " + std::to_string(v)); }
  void SetStayOnTop(bool on) override { Log.push_back(on ? "on top" : "not on top"); }
  bool LoadIcon(const char* p) override { Log.push_back(std::string("icon ") + p); return true; }
  void SetCaptionButtons(bool s, bool mi, bool ma) override {
    Log.push_back(std::string("buttons ") + "-S"[s] + "-N"[mi] + "-X"[ma]);
  }
  void Navigate(const char* url) override { Log.push_back(std::string("navigate ") + url); }
  void SuppressContextMenu() override { Log.push_back("no context menu"); }
  void MakeTranslucent() override { Log.push_back("translucent"); }
};

bool PortFree(int port) {
  PlSocket s = PlSockTcp();
  bool ok = PlSockBind(s, 0x7F000001, static_cast<unsigned short>(port));
  PlSockClose(s);
  return ok;
}

// A port below the range the system hands out by itself whose upper
// neighbour is free too, so the port search lands where the test expects.
int QuietPort() {
  int port = 20000 + int(PlMonotonicMs() % 12000);
  while (!PortFree(port) || !PortFree(port + 1)) port += 2;
  return port;
}

class ShellStart : public ::testing::Test {
 protected:
  TempDir Tmp;
  RecordingWindow W;
  void SetUp() override {
    PlNetStartup();
    IniFile = Tmp.Join("Lumetta.ini").c_str();
  }
  void TearDown() override {
    StopPlayer();
    StartPage.Empty();
    CmdTitle = nullptr;
    PlNetCleanup();
  }
  // The first occurrence of a key wins, so the test's own PORT or HOMEDIR come first.
  // Returns the navigation the port found should lead to.
  std::string Start(const std::string& ini) {
    Tmp.Write("Lumetta.ini", "[Lumetta]\n" + ini + "\nPORT=" + std::to_string(QuietPort()) +
                                 "\nHOMEDIR=" + Tmp.Path() + "\n");
    StartPlayer(W);
    return "navigate http://localhost:" + std::to_string(HttpServer->GetPort()) + "/" + KeyQuery("?");
  }
  // The window's first load carries the server's fresh access key.
  static std::string KeyQuery(const char* sep) {
    const CStr& key = HttpServer->GetAccessKey();
    EXPECT_EQ(key.Len, 32);
    return std::string(sep) + "lumetta_key=" + key.c_str();
  }
};

TEST_F(ShellStart, ReadsSettingsInOrderAndConfiguresTheServer) {
  std::string nav = Start("TITLE=Shop\nCENTER=0\nTOP=12\nLEFT=34\nSTATUSBAR=0\nSIZEABLE=0\n"
                          "BORDER=0\nCLIENT_WIDTH=700\nCLIENT_HEIGHT=500\nSTAYONTOP=2\n"
                          "ICON_MAXIMIZE=0\nPOPUPMENU=0\nGLASSWIN=1");
  EXPECT_EQ(W.Log, (Calls{"caption Shop", "top 12", "left 34", "status off", "fixed",
                          "borderless", "width 700", "height 500", "on top", "buttons SN-", nav,
                          "no context menu", "translucent"}));
  EXPECT_EQ(HttpServer->GetListeningAddr(), 0x7F000001u);
  EXPECT_STREQ(HttpServer->GetHomeDir().c_str(), TestNativePath(Tmp.Path()).c_str());
  EXPECT_NE(HttpServer->ObjGet(HTTPS_OBJ_ENGINE, "/run.ebd"), nullptr);
  EXPECT_EQ(HttpServer->ObjGet(HTTPS_OBJ_EXT, "/a.php"), nullptr);  // PHP is off
  ASSERT_EQ(HttpServer->DefDocs.Count(), 2);
  EXPECT_STREQ(HttpServer->DefDocs[0]->Str, "index.htm");
  EXPECT_STREQ(HttpServer->DefDocs[1]->Str, "index.html");
  CStr css("css");
  EXPECT_STREQ(HttpServer->GetMimeType(css), "text/css");
}

TEST_F(ShellStart, DefaultsTitleStartPageMissingIconAndTakenPort) {
  int port = QuietPort();
  PlSocket blocker = PlSockTcp();
  ASSERT_TRUE(PlSockBind(blocker, 0x7F000001, static_cast<unsigned short>(port)));
  ASSERT_TRUE(PlSockListen(blocker, 1));
  char title[] = "From the command line";
  CmdTitle = title;
  StartPage = "docs/a.html";
  testing::internal::CaptureStderr();
  // Only the low 16 bits of PORT count, and the search moves up past the taken port.
  Start("PORT=" + std::to_string(port + 65536) + "\nICON=%PROGDIR%/no-such.ico");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Unable to load the icon.\nFile not found."), std::string::npos);
  EXPECT_EQ(W.Log, (Calls{"caption From the command line", "centered", "status on", "sizeable",
                          "width 640", "height 480", "not on top", "buttons SNX",
                          "navigate http://localhost:" + std::to_string(port + 1) +
                              "/docs/a.html" + KeyQuery("?")}));
  PlSockClose(blocker);
}

TEST_F(ShellStart, HomeDirTokensPhpAndIcon) {
  // Both spellings of the program-directory token name the same place.
  std::string icon = Tmp.Join("Lumetta.ini");
  Start("HOMEDIR=PROGDIR:\nPHP=1\nICON_SYSMENU=0\nICON_MINIMIZE=1\nICON=" + icon);
  EXPECT_STREQ(HttpServer->GetHomeDir().c_str(), ProgDir.c_str());
  EXPECT_EQ(W.Log.at(7), "icon " + icon);
  EXPECT_EQ(W.Log.at(8), "buttons ---");
  EXPECT_NE(HttpServer->ObjGet(HTTPS_OBJ_EXT, "/a.php"), nullptr);
  ASSERT_EQ(HttpServer->DefDocs.Count(), 3);
  EXPECT_STREQ(HttpServer->DefDocs[2]->Str, "index.php");
  StopPlayer();
  Start("HOMEDIR=%PROGDIR%");
  EXPECT_STREQ(HttpServer->GetHomeDir().c_str(), ProgDir.c_str());
}

// Every port is offered once, going on from 1 after 65535 (0 would let the
// system choose), and the search ends after a full round.
TEST(PortSearch, WrapsPastTheTopAndStopsAfterOneRound) {
  struct Tried {
    std::vector<int> Ports;
    int Accept;
    static bool Offer(int port, void* arg) {
      Tried* t = static_cast<Tried*>(arg);
      t->Ports.push_back(port);
      return port == t->Accept;
    }
  };
  const struct { int first, accept, found; std::vector<int> start; } cases[] = {
      {65534, 1, 1, {65534, 65535, 1}},
      {0, 2, 2, {1, 2}},
      {70000, 1, 1, {1}},
      {8080, -1, 0, {8080, 8081}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    Tried t{{}, c.accept};
    EXPECT_EQ(SearchPorts(c.first, Tried::Offer, &t), c.found);
    EXPECT_EQ(std::vector<int>(t.Ports.begin(), t.Ports.begin() + c.start.size()), c.start);
    if (c.found) continue;
    EXPECT_EQ(t.Ports.size(), 65535u);
    EXPECT_EQ(t.Ports.back(), 8079);
    std::sort(t.Ports.begin(), t.Ports.end());
    EXPECT_EQ(std::unique(t.Ports.begin(), t.Ports.end()), t.Ports.end());
  }
}

TEST_F(ShellStart, TakenTopPortGoesOnFromTheBottom) {
  PlSocket blocker = PlSockTcp();
  bool held = PlSockBind(blocker, 0x7F000001, 65535) && PlSockListen(blocker, 1);
  Tmp.Write("Lumetta.ini", "[Lumetta]\nPORT=65535\nHOMEDIR=" + Tmp.Path() + "\n");
  StartPlayer(W);  // taken either by us or by someone else
  int port = HttpServer->GetPort();
  EXPECT_GE(port, 1);
  EXPECT_LT(port, 65535) << held;
  EXPECT_EQ(W.Log.at(W.Log.size() - 1),
            "navigate http://localhost:" + std::to_string(port) + "/" + KeyQuery("?"));
  PlSockClose(blocker);
}

}  // namespace

// Where the window's first load goes, and keys that never repeat.
TEST(ShellKeyAddress, AddsTheKeyToTheQueryOfAPath) {
  const struct {
    const char *address, *key, *expected;
  } cases[] = {
      {"http://localhost:8580", "k1", "http://localhost:8580/?lumetta_key=k1"},
      {"http://localhost:8580/docs/a.html", "k1", "http://localhost:8580/docs/a.html?lumetta_key=k1"},
      {"http://localhost:8580/a.php?x=1", "k1", "http://localhost:8580/a.php?x=1&lumetta_key=k1"},
      {"http://localhost:8580/a.php", "", "http://localhost:8580/a.php"},
  };
  for (const auto& c : cases)
    EXPECT_STREQ(KeyAddress(CStr(c.address), CStr(c.key)).c_str(), c.expected) << c.address;
  CStr a = CHttpServer::NewAccessKey(), b = CHttpServer::NewAccessKey();
  EXPECT_EQ(a.Len, 32);
  EXPECT_EQ(std::string(a.c_str()).find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(std::string(a.c_str()), std::string(b.c_str()));
}
