// Message boxes through the hook the window's toolkit installs (none without
// a window) and the stop signals a windowless server waits for.
#include "pl_ui.h"

#include <signal.h>

static PlMessageBoxFunc MessageBoxShow = nullptr;

void PlUiSetMessageBox(PlMessageBoxFunc show) { MessageBoxShow = show; }

void PlMessageBox(void* owner, const char* text, const char* caption) {
  if (MessageBoxShow) MessageBoxShow(owner, text, caption);
}

static void StopSignalSet(sigset_t* set) {
  sigemptyset(set);
  sigaddset(set, SIGINT);
  sigaddset(set, SIGTERM);
}

bool PlStopSignalsBlock() {
  sigset_t set;
  StopSignalSet(&set);
  return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0;
}

int PlStopSignalsWait() {
  sigset_t set;
  StopSignalSet(&set);
  int sig = 0;
  while (sigwait(&set, &sig) != 0) {
  }
  return sig;
}
