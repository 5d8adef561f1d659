// lumetta-serve: the player's start without a window. It reads the same
// options and settings file, serves the application on 127.0.0.1, prints the
// start address with its access key for an ordinary browser, and stops on SIGINT or SIGTERM.
#include <cstdio>
#include <cstring>
#include <vector>

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

// Switches the access key off: every local program and every web page in
// any browser on the machine can then use the application and start
// programs through it. Only for serving other local tools on purpose.
const char kNoKeyOption[] = "--no-access-key";

void Serve(void* arg) {
  const bool accessKey = *static_cast<bool*>(arg);
  // Blocked before the server's threads exist, so they inherit the mask and
  // only the wait below receives the stop request.
  PlStopSignalsBlock();
  AddressOnly window;
  try {
    StartPlayer(window, accessKey);
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

int main(int argc, char** argv) {
  bool accessKey = true;
  std::vector<char*> words;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], kNoKeyOption) == 0) accessKey = false;
    else words.push_back(argv[i]);
  }
  if (!accessKey)
    fprintf(stderr, "lumetta-serve: access key off; any program or web page on this machine can use the server\n");
  return PlayerMain(words.data(), (int)words.size(), Serve, &accessKey);
}
