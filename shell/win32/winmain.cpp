// Windows entry of the windowed player: the raw command line (without the
// program's name) is split here, because Windows hands it over unsplit.
#include <windows.h>
#include <commctrl.h>
#include <ole2.h>

#include "cmdline.h"
#include "dlg_main.h"
#include "player_start.h"

namespace {

// The window's front end: creates the main form (the whole start of the
// player) and runs its message loop until the window is gone.
void RunPlayerWindow(void*) {
  INITCOMMONCONTROLSEX controls = {sizeof controls, ICC_BAR_CLASSES};
  InitCommonControlsEx(&controls);
  DlgMain = new TDlgMain;
  DlgMain->Show();
  MSG msg;
  while (GetMessageA(&msg, nullptr, 0, 0) > 0) {
    if (DlgMain->TranslateKey(&msg)) continue;
    TranslateMessage(&msg);
    DispatchMessageA(&msg);
  }
}

}  // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR cmdLine, int) {
  // The browser control is an apartment-threaded OLE object of this thread.
  bool ole = SUCCEEDED(OleInitialize(nullptr));
  CmdWordBlock words = {nullptr, nullptr, 0};
  if (cmdLine && *cmdLine) words = SplitCommandLine(cmdLine);
  // The words live until the end: the caption from /TITLE points into them.
  PlayerMain(words.Words, words.Count, RunPlayerWindow, nullptr);
  delete DlgMain;
  DlgMain = nullptr;
  FreeCmdWords(&words);
  if (ole) OleUninitialize();
  return 0;
}
