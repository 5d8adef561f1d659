// The start sequence on a recording window: which settings it reads in which
// order, what the server gets, the port search and the start address.
// ctest-labels: threads
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "chttpserver.h"
#include "pl_net.h"
#include "player_start.h"
#include "progdir.h"
#include "shell_state.h"

namespace {

// Records every request of the start sequence as one line.
class RecordingWindow : public PlayerWindow {
 public:
  std::vector<std::string> Calls;
  void Add(const std::string& s) { Calls.push_back(s); }
  void SetCaption(const char* t) override { Add(std::string("caption ") + t); }
  void SetCentered() override { Add("centered"); }
  void SetTop(int v) override { Add("top " + std::to_string(v)); }
  void SetLeft(int v) override { Add("left " + std::to_string(v)); }
  void ShowStatusBar(bool on) override { Add(on ? "status on" : "status off"); }
  void SetSizeable(bool on) override { Add(on ? "sizeable" : "fixed"); }
  void SetBorderless() override { Add("borderless"); }
  void SetClientWidth(int v) override { Add("width " + std::to_string(v)); }
  void SetBrowserHeight(int v) override { Add("height " + std::to_string(v)); }
  void SetStayOnTop(bool on) override { Add(on ? "on top" : "not on top"); }
  bool LoadIcon(const char* p) override {
    Add(std::string("icon ") + p);
    return true;
  }
  void SetCaptionButtons(bool s, bool mi, bool ma) override {
    Add(std::string("buttons ") + (s ? "S" : "-") + (mi ? "N" : "-") + (ma ? "X" : "-"));
  }
  void Navigate(const char* url) override { Add(std::string("navigate ") + url); }
  void SuppressContextMenu() override { Add("no context menu"); }
  void MakeTranslucent() override { Add("translucent"); }
};

class ShellStart : public ::testing::Test {
 protected:
  std::string Dir;
  void SetUp() override {
    PlNetStartup();
    char tmpl[] = "/tmp/lumetta_start_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    Dir = tmpl;
    IniFile = (Dir + "/Lumetta.ini").c_str();
    CmdTitle = nullptr;
    StartPage.Empty();
  }
  void TearDown() override {
    StopPlayer();
    IniFile.Empty();
    StartPage.Empty();
    CmdTitle = nullptr;
    std::string cmd = "rm -rf '" + Dir + "'";
    EXPECT_EQ(system(cmd.c_str()), 0);
    PlNetCleanup();
  }
  void WriteIni(const std::string& body) {
    FILE* f = fopen(IniFile.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs(("[Lumetta]\n" + body).c_str(), f);
    fclose(f);
  }
  static bool Bindable(int port) {
    PlSocket s = PlSockTcp();
    bool ok = PlSockBind(s, 0x7F000001, static_cast<unsigned short>(port));
    PlSockClose(s);
    return ok;
  }
  // A port that is free now, and its neighbour too (the port search moves
  // there), so runs in parallel do not meet.
  static int FreePort() {
    for (int tries = 0; tries < 200; tries++) {
      PlSocket s = PlSockTcp();
      PlSockBind(s, 0x7F000001, 0);
      unsigned addr = 0;
      unsigned short port = 0;
      PlSockLocalAddr(s, &addr, &port);
      PlSockClose(s);
      if (port < 65535 && Bindable(port) && Bindable(port + 1)) return port;
    }
    return 0;
  }
};

TEST_F(ShellStart, ReadsSettingsInOrderAndConfiguresTheServer) {
  int port = FreePort();
  WriteIni("TITLE=Shop\nCENTER=0\nTOP=12\nLEFT=34\nSTATUSBAR=0\nSIZEABLE=0\nBORDER=1\n"
           "CLIENT_WIDTH=700\nCLIENT_HEIGHT=500\nSTAYONTOP=2\nICON_MAXIMIZE=0\n"
           "POPUPMENU=0\nGLASSWIN=1\nHOMEDIR=" + Dir + "\nPORT=" + std::to_string(port) + "\n");
  RecordingWindow w;
  StartPlayer(w);
  std::vector<std::string> want = {
      "caption Shop", "top 12", "left 34", "status off", "fixed", "width 700", "height 500",
      "on top", "buttons SN-", "navigate http://localhost:" + std::to_string(port),
      "no context menu", "translucent"};
  EXPECT_EQ(w.Calls, want);
  ASSERT_NE(HttpServer, nullptr);
  EXPECT_STREQ(HttpServer->ServerName.c_str(), "Lumetta Server");
  EXPECT_EQ(HttpServer->GetListeningAddr(), 0x7F000001u);
  EXPECT_EQ(HttpServer->CacheExpire, 0);
  EXPECT_STREQ(HttpServer->GetHomeDir().c_str(), Dir.c_str());
  EXPECT_NE(HttpServer->ObjGet(HTTPS_OBJ_ENGINE, "/run.ebd"), nullptr);
  EXPECT_EQ(HttpServer->ObjGet(HTTPS_OBJ_EXT, "/a.php"), nullptr);  // PHP off
  ASSERT_EQ(HttpServer->DefDocs.Count(), 2);
  EXPECT_STREQ(HttpServer->DefDocs[0]->Str, "index.htm");
  EXPECT_STREQ(HttpServer->DefDocs[1]->Str, "index.html");
  CMime* first = HttpServer->MimeList->Get(0);
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first->Type.c_str(), "text/html");
  CStr css("css"), js("js");
  EXPECT_STREQ(HttpServer->GetMimeType(css), "text/css");
  EXPECT_STREQ(HttpServer->GetMimeType(js), "text/javascript");
}

TEST_F(ShellStart, DefaultsAndCommandLineTitle) {
  WriteIni("PORT=" + std::to_string(FreePort()) + "\nHOMEDIR=" + Dir + "\n");
  char title[] = "From the command line";
  CmdTitle = title;
  StartPage = "docs/a.html";
  RecordingWindow w;
  StartPlayer(w);
  ASSERT_EQ(w.Calls.size(), 9u);  // context menu kept, not translucent
  EXPECT_EQ(w.Calls[0], "caption From the command line");
  EXPECT_EQ(w.Calls[1], "centered");
  EXPECT_EQ(w.Calls[2], "status on");
  EXPECT_EQ(w.Calls[3], "sizeable");
  EXPECT_EQ(w.Calls[4], "width 640");
  EXPECT_EQ(w.Calls[5], "height 480");
  EXPECT_EQ(w.Calls[6], "not on top");
  EXPECT_EQ(w.Calls[7], "buttons SNX");
  EXPECT_EQ(w.Calls[8].rfind("navigate http://localhost:", 0), 0u);
  EXPECT_NE(w.Calls[8].find("/docs/a.html"), std::string::npos);
}

TEST_F(ShellStart, BorderlessNoSysMenuAndMissingIcon) {
  WriteIni("PORT=" + std::to_string(FreePort()) + "\nHOMEDIR=" + Dir +
           "\nBORDER=0\nICON_SYSMENU=0\nICON_MINIMIZE=1\nICON=%PROGDIR%/no-such.ico\n");
  RecordingWindow w;
  testing::internal::CaptureStderr();
  StartPlayer(w);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Unable to load the icon.\nFile not found."), std::string::npos);
  EXPECT_EQ(w.Calls[4], "borderless");
  EXPECT_EQ(w.Calls[8], "buttons ---");
}

TEST_F(ShellStart, HomeDirTokensAndPhp) {
  int port = FreePort();
  // Both spellings of the program-directory token name the same place.
  WriteIni("PORT=" + std::to_string(port) + "\nHOMEDIR=PROGDIR:\nPHP=1\nICON=" + Dir +
           "/Lumetta.ini\n");
  RecordingWindow w;
  StartPlayer(w);
  CStr expected = ProgDir;
  EXPECT_STREQ(HttpServer->GetHomeDir().c_str(), expected.c_str());
  EXPECT_EQ(w.Calls[7], "icon " + Dir + "/Lumetta.ini");
  ASSERT_EQ(HttpServer->DefDocs.Count(), 3);
  EXPECT_STREQ(HttpServer->DefDocs[2]->Str, "index.php");
  StopPlayer();
  WriteIni("PORT=" + std::to_string(port) + "\nHOMEDIR=%PROGDIR%\n");
  RecordingWindow w2;
  StartPlayer(w2);
  EXPECT_STREQ(HttpServer->GetHomeDir().c_str(), expected.c_str());
}

TEST_F(ShellStart, TakenPortMovesUpAndStartAddressForms) {
  int port = FreePort();
  PlSocket blocker = PlSockTcp();
  ASSERT_TRUE(PlSockBind(blocker, 0x7F000001, static_cast<unsigned short>(port)));
  ASSERT_TRUE(PlSockListen(blocker, 1));
  WriteIni("PORT=" + std::to_string(port) + "\nHOMEDIR=" + Dir + "\n");
  RecordingWindow w;
  StartPlayer(w);
  EXPECT_EQ(HttpServer->GetPort(), port + 1);
  EXPECT_EQ(w.Calls.back(), "navigate http://localhost:" + std::to_string(port + 1));
  PlSockClose(blocker);

  EXPECT_STREQ(StartAddress(81, CStr()).c_str(), "http://localhost:81");
  EXPECT_STREQ(StartAddress(81, CStr("docs/a.html")).c_str(), "http://localhost:81/docs/a.html");
  EXPECT_STREQ(StartAddress(81, CStr("/x.html")).c_str(), "http://localhost:81//x.html");
}

TEST_F(ShellStart, PortKeepsOnlyItsLow16Bits) {
  int port = FreePort();
  WriteIni("PORT=" + std::to_string(port + 65536) + "\nHOMEDIR=" + Dir + "\n");
  RecordingWindow w;
  StartPlayer(w);
  EXPECT_EQ(HttpServer->GetPort(), port);
}

}  // namespace
