// The start of the player, shared by the windowed player and lumetta-serve:
// reading the options, and the fixed sequence that reads the settings, shapes
// the window and brings up the embedded server.
#ifndef LUMETTA_SHELL_PLAYER_START_H
#define LUMETTA_SHELL_PLAYER_START_H

#include "cstr.h"

// What the start sequence asks of a window, in the order it asks. The
// windowless server takes the defaults, which do nothing.
class PlayerWindow {
 public:
  virtual ~PlayerWindow() {}
  virtual void SetCaption(const char* /*title*/) {}
  virtual void SetCentered() {}
  virtual void SetTop(int /*top*/) {}
  virtual void SetLeft(int /*left*/) {}
  virtual void ShowStatusBar(bool /*show*/) {}
  virtual void SetSizeable(bool /*sizeable*/) {}
  virtual void SetBorderless() {}  // also hides the status bar
  virtual void SetClientWidth(int /*width*/) {}
  virtual void SetBrowserHeight(int /*height*/) {}
  virtual void SetStayOnTop(bool /*on*/) {}
  virtual bool LoadIcon(const char* /*path*/) { return true; }
  virtual void SetCaptionButtons(bool /*sysmenu*/, bool /*minimize*/, bool /*maximize*/) {}
  virtual void Navigate(const char* /*url*/) {}
  virtual void SuppressContextMenu() {}
  virtual void MakeTranslucent() {}
};

// Program entry shared by every front end: socket layer up, options read
// from words (argv without the program name, or a split command line), then
// run() for the rest of the program's life. Reports failures through Error;
// returns the exit code, which is always 0.
int PlayerMain(char* const* words, int count, void (*run)(void* arg), void* arg);

// Runs the whole start: program directory, settings file, server creation and
// registrations, window shaping, port search, accepting and the first
// navigation. Throws int 0 (after telling the user) when the server cannot
// accept connections; HttpServer is set from the start on. With accessKey
// the server gets a fresh random key and the window is led to it first.
void StartPlayer(PlayerWindow& window, bool accessKey = true);

// Stops and frees the server (the window's destroy handler and the end of
// lumetta-serve).
void StopPlayer();

// Offers tryPort the ports from first upwards, going on from 1 after 65535,
// each once at most. Returns the port it accepted, 0 when it took none.
int SearchPorts(int first, bool (*tryPort)(int port, void* arg), void* arg);

// The address the browser opens: "http://localhost:<port>" and, with a start
// page, "/" and the page.
CStr StartAddress(int port, const CStr& startPage);

// address with the server's access key added to its query; the server
// answers it with the key's cookie and a redirect to address itself.
// Unchanged for an empty key.
CStr KeyAddress(const CStr& address, const CStr& key);

// Path of the PHP interpreter the player registers, and its argument text.
struct PhpCommand {
  CStr Interpreter;
  CStr Args;
  bool Found = false;  // false: Interpreter names where the bundled one would be
};

// Largest request body the player accepts (uploads included).
const int kPlayerMaxPostLen = 64 * 1024 * 1024;
PhpCommand FindPhpCommand();

#endif
