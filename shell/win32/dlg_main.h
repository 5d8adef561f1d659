// TDlgMain: the player's window on Windows: the system's web-browser control
// above a plain owner-drawn status strip.
#ifndef LUMETTA_SHELL_WIN32_DLG_MAIN_H
#define LUMETTA_SHELL_WIN32_DLG_MAIN_H

#include <windows.h>

#include "browser_host.h"
#include "player_start.h"

class TDlgMain : public PlayerWindow, public BrowserListener {
 public:
  // Builds the window and runs the whole start of the player; throws int 0
  // (after telling the user) when the server cannot accept connections.
  TDlgMain();
  TDlgMain(const TDlgMain&) = delete;
  TDlgMain& operator=(const TDlgMain&) = delete;
  ~TDlgMain() override;
  void Show();
  // One message of the loop: the page gets its keys first.
  bool TranslateKey(MSG* msg) { return CWB_Browser.TranslateKey(msg); }

  HWND Window = nullptr;
  HWND SB_Status = nullptr;
  BrowserHost CWB_Browser;

  void SetCaption(const char* title) override;
  void SetCentered() override;
  void SetTop(int top) override;
  void SetLeft(int left) override;
  void ShowStatusBar(bool show) override;
  void SetSizeable(bool sizeable) override;
  void SetBorderless() override;
  void SetClientWidth(int width) override;
  void SetBrowserHeight(int height) override;
  void SetStayOnTop(bool on) override;
  bool LoadIcon(const char* path) override;
  void SetCaptionButtons(bool sysmenu, bool minimize, bool maximize) override;
  void Navigate(const char* url) override;
  void SuppressContextMenu() override;
  void MakeTranslucent() override;

  void OnStatusText(const char* text) override;
  void OnTitle(const char* title) override;

 private:
  bool StatusVisible = true;
  bool Centered = false;
  bool TopMost = false;
  int Top = 0, Left = 0;
  int ClientWidth = 688, BrowserHeight = 529 - 19;
  HICON Icon = nullptr;

  void CreateWidgets();
  void Layout();
  void ChangeStyle(DWORD add, DWORD remove);
  RECT WindowRectForClient() const;
  void ReportGeometry();
  void FormDestroy();
  static LRESULT CALLBACK WndProc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp);
};

extern TDlgMain* DlgMain;

#endif
