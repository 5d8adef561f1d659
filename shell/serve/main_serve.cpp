// lumetta-serve: the player's start without a window. It reads the same
// options and settings file, serves the application on 127.0.0.1, prints the
// start address for an ordinary browser, and stops on SIGINT or SIGTERM.
#include <cstdio>

#include "pl_ui.h"
#include "player_start.h"
#include "shell_state.h"

namespace {

// Keeps the start address instead of showing it.
class AddressOnly : public PlayerWindow {
 public:
  CStr Url;
  void Navigate(const char* url) override { Url = url; }
};

void Serve(void*) {
  // Blocked before the server's threads exist, so they inherit the mask and
  // only the wait below receives the stop request.
  PlStopSignalsBlock();
  AddressOnly window;
  try {
    StartPlayer(window);
  } catch (...) {
    StopPlayer();
    throw;
  }
  printf("%s\n", window.Url.c_str());
  fflush(stdout);
  PlStopSignalsWait();
  StopPlayer();
}

}  // namespace

int main(int argc, char** argv) { return PlayerMain(argv + 1, argc - 1, Serve, nullptr); }
