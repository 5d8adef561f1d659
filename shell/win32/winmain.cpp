// Windows entry of the windowed player: the raw command line (without the
// program's name) is split here, because Windows hands it over unsplit.
#include <windows.h>

#include "cmdline.h"
#include "player_start.h"

// The window's front end: creates the main form and runs its message loop.
void RunPlayerWindow(void* arg);

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR cmdLine, int) {
  CmdWordBlock words = {nullptr, nullptr, 0};
  if (cmdLine && *cmdLine) words = SplitCommandLine(cmdLine);
  // The words live until the end: the caption from /TITLE points into them.
  PlayerMain(words.Words, words.Count, RunPlayerWindow, nullptr);
  FreeCmdWords(&words);
  return 0;
}
