// The Windows half of window fading: opacity through the layered-window calls
// looked up at run time, timers on the window's own thread, and the window
// procedure that tells the fader what happens to the window.
#include "alphawin_win32.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>

// The system's AnimateWindow flags share a name with a fading event.
#undef AW_ACTIVATE
#include "alphawin.h"

namespace {

typedef BOOL(WINAPI* SetLayeredFn)(HWND, COLORREF, BYTE, DWORD);
typedef BOOL(WINAPI* GetLayeredFn)(HWND, COLORREF*, BYTE*, DWORD*);

// Bound on first use; never freed. When binding fails opacity is never
// applied and the windows keep working.
SetLayeredFn AwLib = nullptr;
GetLayeredFn AwReadBack = nullptr;
bool Bound = false;

std::map<HWND, WNDPROC> OldProcs;
std::map<UINT_PTR, std::pair<void (*)(void*), void*>> Timers;
bool TraceOpacity = false;  // LUMETTA_DEBUG_WINDOW: tests follow the fades

void Bind() {
  if (Bound) return;
  Bound = true;
  HMODULE user = LoadLibraryA("USER32.DLL");
  if (!user) return;
  AwLib = reinterpret_cast<SetLayeredFn>(
      reinterpret_cast<INT_PTR>(GetProcAddress(user, "SetLayeredWindowAttributes")));
  AwReadBack = reinterpret_cast<GetLayeredFn>(
      reinterpret_cast<INT_PTR>(GetProcAddress(user, "GetLayeredWindowAttributes")));
}

// Reports what the window system holds after the change, not what was asked.
void TraceReadBack(HWND window, AwAlpha asked) {
  if (!TraceOpacity) return;
  BYTE alpha = 0;
  DWORD flags = 0;
  bool read = AwReadBack && AwReadBack(window, nullptr, &alpha, &flags) && (flags & LWA_ALPHA);
  fprintf(stderr, "opacity: %d read %d\n", int(asked), read ? int(alpha) : -1);
  fflush(stderr);
}

void SetOpacity(void* window, AwAlpha alpha) {
  HWND hwnd = static_cast<HWND>(window);
  if (!IsWindow(hwnd) || !AwLib) return;
  AwLib(hwnd, 0, alpha, LWA_ALPHA);
  TraceReadBack(hwnd, alpha);
}

void SetLayered(void* window, bool on) {
  HWND hwnd = static_cast<HWND>(window);
  if (!IsWindow(hwnd)) return;
  LONG_PTR ex = GetWindowLongPtrA(hwnd, GWL_EXSTYLE);
  SetWindowLongPtrA(hwnd, GWL_EXSTYLE, on ? (ex | WS_EX_LAYERED) : (ex & ~LONG_PTR(WS_EX_LAYERED)));
}

bool IsForeground(void* window) { return GetForegroundWindow() == static_cast<HWND>(window); }

void CALLBACK RunTimer(HWND, UINT, UINT_PTR id, DWORD) {
  KillTimer(nullptr, id);  // one-shot
  auto it = Timers.find(id);
  if (it == Timers.end()) return;
  auto call = it->second;
  Timers.erase(it);
  call.first(call.second);
}

unsigned TimerStart(unsigned ms, void (*fn)(void*), void* arg) {
  UINT_PTR id = SetTimer(nullptr, 0, ms, RunTimer);
  if (id) Timers[id] = std::make_pair(fn, arg);
  return unsigned(id);
}

void TimerStop(unsigned id) {
  KillTimer(nullptr, id);
  Timers.erase(id);
}

// Waits while the window keeps painting, so a closing fade is seen.
void SleepPainting(unsigned ms) {
  DWORD end = GetTickCount() + ms;
  for (DWORD now = GetTickCount(); LONG(end - now) > 0; now = GetTickCount()) {
    MsgWaitForMultipleObjects(0, nullptr, FALSE, end - now, QS_PAINT);
    MSG msg;
    while (PeekMessageA(&msg, nullptr, WM_PAINT, WM_PAINT, PM_REMOVE)) DispatchMessageA(&msg);
  }
}

LRESULT CALLBACK AwWndProc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
  WNDPROC old = OldProcs.count(hwnd) ? OldProcs[hwnd] : DefWindowProcA;
  switch (msg) {
    case WM_SHOWWINDOW:
      if (wp) AW_CallBack(hwnd, AW_SHOW);
      break;
    case WM_ACTIVATE:
      AW_CallBack(hwnd, LOWORD(wp) == WA_INACTIVE ? AW_DEACTIVATE : AW_ACTIVATE);
      break;
    case WM_CLOSE:
    case WM_QUIT:
      AW_CallBack(hwnd, AW_CLOSE);  // returns once the closing fade has ended
      break;
    case WM_DESTROY:
      AW_CallBack(hwnd, AW_DESTROY);
      SetWindowLongPtrA(hwnd, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(old));
      OldProcs.erase(hwnd);
      break;
    default:
      break;
  }
  return CallWindowProcA(old, hwnd, msg, wp, lp);
}

void InstallPlatformOnce() {
  static bool done = false;
  if (done) return;
  Bind();
  AwPlatform p = {};
  if (AwLib) p.SetOpacity = SetOpacity;
  p.SetLayered = SetLayered;
  p.IsForeground = IsForeground;
  p.TimerStart = TimerStart;
  p.TimerStop = TimerStop;
  p.Sleep = SleepPainting;
  AW_SetPlatform(&p);
  TraceOpacity = getenv("LUMETTA_DEBUG_WINDOW") != nullptr;
  done = true;
}

}  // namespace

void AwWin32InitWindow(HWND window) {
  InstallPlatformOnce();
  OldProcs[window] = reinterpret_cast<WNDPROC>(
      SetWindowLongPtrA(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(AwWndProc)));
  AW_InitAlphaWin(window);
}
