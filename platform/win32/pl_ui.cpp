// Message boxes on Windows and the console's stop events for a windowless
// server.
#include "pl_ui.h"

#include <windows.h>

static PlMessageBoxFunc MessageBoxShow = nullptr;
static HANDLE StopEvent = nullptr;
static volatile LONG StopSignal = 0;

void PlUiSetMessageBox(PlMessageBoxFunc show) { MessageBoxShow = show; }

void PlMessageBox(void* owner, const char* text, const char* caption) {
  if (MessageBoxShow) {
    MessageBoxShow(owner, text, caption);
    return;
  }
  MessageBoxA(static_cast<HWND>(owner), text, caption, MB_OK | MB_ICONEXCLAMATION);
}

// Console control events arrive on a thread of their own; they only wake the
// waiting thread, which then stops the program in order.
static BOOL WINAPI ConsoleStop(DWORD type) {
  InterlockedExchange(&StopSignal, type == CTRL_C_EVENT ? 2 : 15);
  SetEvent(StopEvent);
  return TRUE;
}

bool PlStopSignalsBlock() {
  if (!StopEvent) StopEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  return StopEvent && SetConsoleCtrlHandler(ConsoleStop, TRUE);
}

int PlStopSignalsWait() {
  if (!StopEvent && !PlStopSignalsBlock()) return 0;
  WaitForSingleObject(StopEvent, INFINITE);
  return int(StopSignal);
}
