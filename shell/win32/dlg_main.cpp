// The player's main window on Windows: its class, child windows, layout,
// style changes and the status strip drawn by hand.
#include "dlg_main.h"

#include <commctrl.h>

#include <cstdio>
#include <cstdlib>

#include "alphawin_win32.h"

// From shell_state.h, which cannot be included beside the system headers:
// their StartPage printing function clashes with the player's start page.
extern void* MainWindowHandle;

TDlgMain* DlgMain = nullptr;

namespace {

const char kClassName[] = "LumettaMain";
const int STATUS_HEIGHT = 19;
const int STATUS_PANEL_WIDTH = 50;
const int MIN_WIDTH = 160, MIN_HEIGHT = 120;
const int kBuiltInIcon = 1;  // resource number in lumetta.rc

bool Tracing() { return getenv("LUMETTA_DEBUG_WINDOW") != nullptr; }

int NotNegative(int v) { return v < 0 ? 0 : v; }

void RegisterWindowClass() {
  static bool done = false;
  if (done) return;
  WNDCLASSEXA wc = {};
  wc.cbSize = sizeof wc;
  wc.lpfnWndProc = DefWindowProcA;  // replaced per window once the object is bound
  wc.hInstance = GetModuleHandleA(nullptr);
  wc.hIcon = LoadIconA(wc.hInstance, MAKEINTRESOURCEA(kBuiltInIcon));
  wc.hCursor = LoadCursorA(nullptr, MAKEINTRESOURCEA(32512));  // the arrow
  wc.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_BTNFACE + 1);
  wc.lpszClassName = kClassName;
  RegisterClassExA(&wc);
  done = true;
}

}  // namespace

TDlgMain::TDlgMain() {
  CreateWidgets();
  MainWindowHandle = Window;
  try {
    StartPlayer(*this);
  } catch (...) {
    DestroyWindow(Window);  // runs FormDestroy, which stops the server
    throw;
  }
}

TDlgMain::~TDlgMain() {
  if (Window) DestroyWindow(Window);
  if (Icon) DestroyIcon(Icon);
}

void TDlgMain::CreateWidgets() {
  RegisterWindowClass();
  HINSTANCE inst = GetModuleHandleA(nullptr);
  // Sizeable, with every caption button, until the settings say otherwise.
  Window = CreateWindowExA(0, kClassName, "Lumetta", WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN,
                           CW_USEDEFAULT, CW_USEDEFAULT, 688, 529, nullptr, nullptr, inst, nullptr);
  SetWindowLongPtrA(Window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  SetWindowLongPtrA(Window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(WndProc));
  SB_Status = CreateWindowExA(0, STATUSCLASSNAMEA, "",
                              WS_CHILD | CCS_NORESIZE | CCS_NOPARENTALIGN | CCS_NODIVIDER, 0, 0, 0,
                              STATUS_HEIGHT, Window, nullptr, inst, nullptr);
  int parts[1] = {STATUS_PANEL_WIDTH};
  SendMessageA(SB_Status, SB_SETPARTS, 1, reinterpret_cast<LPARAM>(parts));
  SendMessageA(SB_Status, SB_SETTEXTA, 0 | SBT_OWNERDRAW, 0);
  SetNewestBrowserMode();
  if (!CWB_Browser.Create(Window, this))
    fprintf(stderr, "Lumetta: the web-browser control could not be created\n");
}

LRESULT CALLBACK TDlgMain::WndProc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
  TDlgMain* self = reinterpret_cast<TDlgMain*>(GetWindowLongPtrA(hwnd, GWLP_USERDATA));
  switch (msg) {
    case WM_SIZE:
      if (self) self->Layout();
      return 0;
    case WM_GETMINMAXINFO: {
      MINMAXINFO* info = reinterpret_cast<MINMAXINFO*>(lp);
      info->ptMinTrackSize.x = MIN_WIDTH;
      info->ptMinTrackSize.y = MIN_HEIGHT;
      return 0;
    }
    case WM_DRAWITEM: {  // the status panel: a plain strip, no text
      DRAWITEMSTRUCT* item = reinterpret_cast<DRAWITEMSTRUCT*>(lp);
      FillRect(item->hDC, &item->rcItem, GetSysColorBrush(COLOR_BTNFACE));
      return TRUE;
    }
    case WM_DESTROY:
      if (self) self->FormDestroy();
      return 0;
    default:
      return DefWindowProcA(hwnd, msg, wp, lp);
  }
}

void TDlgMain::FormDestroy() {
  CWB_Browser.Destroy();
  StopPlayer();
  MainWindowHandle = nullptr;
  Window = nullptr;
  PostQuitMessage(0);
}

void TDlgMain::Layout() {
  RECT client;
  GetClientRect(Window, &client);
  int statusH = StatusVisible ? STATUS_HEIGHT : 0;
  if (StatusVisible)
    MoveWindow(SB_Status, 0, client.bottom - statusH, client.right, statusH, TRUE);
  RECT browser = client;
  browser.bottom = NotNegative(client.bottom - statusH);
  CWB_Browser.SetRect(browser);
}

void TDlgMain::ChangeStyle(DWORD add, DWORD remove) {
  LONG_PTR style = GetWindowLongPtrA(Window, GWL_STYLE);
  SetWindowLongPtrA(Window, GWL_STYLE, (style & ~LONG_PTR(remove)) | LONG_PTR(add));
}

void TDlgMain::SetCaption(const char* title) { SetWindowTextA(Window, title); }
void TDlgMain::SetCentered() { Centered = true; }
void TDlgMain::SetTop(int top) { Top = top; }
void TDlgMain::SetLeft(int left) { Left = left; }
void TDlgMain::ShowStatusBar(bool show) { StatusVisible = show; }

void TDlgMain::SetSizeable(bool sizeable) {
  if (sizeable) ChangeStyle(WS_THICKFRAME, 0);
  else ChangeStyle(0, WS_THICKFRAME);
}

void TDlgMain::SetBorderless() {
  StatusVisible = false;
  ChangeStyle(WS_POPUP, WS_CAPTION | WS_THICKFRAME | WS_SYSMENU | WS_MINIMIZEBOX | WS_MAXIMIZEBOX);
}

void TDlgMain::SetClientWidth(int width) { ClientWidth = NotNegative(width); }
void TDlgMain::SetBrowserHeight(int height) { BrowserHeight = NotNegative(height); }
void TDlgMain::SetStayOnTop(bool on) { TopMost = on; }

bool TDlgMain::LoadIcon(const char* path) {
  HICON icon = static_cast<HICON>(
      LoadImageA(nullptr, path, IMAGE_ICON, 0, 0, LR_LOADFROMFILE | LR_DEFAULTSIZE));
  if (!icon) return false;
  if (Icon) DestroyIcon(Icon);
  Icon = icon;
  SendMessageA(Window, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon));
  SendMessageA(Window, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(icon));
  return true;
}

void TDlgMain::SetCaptionButtons(bool sysmenu, bool minimize, bool maximize) {
  if (!(GetWindowLongPtrA(Window, GWL_STYLE) & WS_CAPTION)) return;  // borderless: none to show
  DWORD add = (sysmenu ? WS_SYSMENU : 0) | (minimize ? WS_MINIMIZEBOX : 0) |
              (maximize ? WS_MAXIMIZEBOX : 0);
  ChangeStyle(add, WS_SYSMENU | WS_MINIMIZEBOX | WS_MAXIMIZEBOX);
}

void TDlgMain::Navigate(const char* url) { CWB_Browser.Navigate(url); }
void TDlgMain::SuppressContextMenu() { CWB_Browser.SuppressContextMenu(); }
void TDlgMain::MakeTranslucent() { AwWin32InitWindow(Window); }

// The status strip stays plain and the caption stays the configured one;
// the events are only traced, for tests that cannot see the page.
void TDlgMain::OnStatusText(const char* text) {
  if (Tracing() && *text) fprintf(stderr, "status: %s\n", text), fflush(stderr);
}

void TDlgMain::OnTitle(const char* title) {
  if (Tracing()) fprintf(stderr, "title: %s\n", title), fflush(stderr);
}

RECT TDlgMain::WindowRectForClient() const {
  RECT r = {0, 0, ClientWidth, BrowserHeight + (StatusVisible ? STATUS_HEIGHT : 0)};
  AdjustWindowRectEx(&r, DWORD(GetWindowLongPtrA(Window, GWL_STYLE)), FALSE,
                     DWORD(GetWindowLongPtrA(Window, GWL_EXSTYLE)));
  int w = r.right - r.left, h = r.bottom - r.top;
  if (Centered) {
    RECT work;
    SystemParametersInfoA(SPI_GETWORKAREA, 0, &work, 0);
    r.left = work.left + (work.right - work.left - w) / 2;
    r.top = work.top + (work.bottom - work.top - h) / 2;
  } else {
    r.left = Left;
    r.top = Top;
  }
  r.right = r.left + w;
  r.bottom = r.top + h;
  return r;
}

void TDlgMain::Show() {
  RECT r = WindowRectForClient();
  ShowWindow(SB_Status, StatusVisible ? SW_SHOW : SW_HIDE);
  // The frame changes with the style set above: SWP_FRAMECHANGED applies it.
  SetWindowPos(Window, TopMost ? HWND_TOPMOST : HWND_NOTOPMOST, r.left, r.top, r.right - r.left,
               r.bottom - r.top, SWP_FRAMECHANGED | SWP_NOACTIVATE);
  ShowWindow(Window, SW_SHOWNORMAL);
  UpdateWindow(Window);
  Layout();
  ReportGeometry();
}

// With LUMETTA_DEBUG_WINDOW set, tells what the window became, so tests
// can compare it with what the desktop reports.
void TDlgMain::ReportGeometry() {
  if (!Tracing()) return;
  RECT client;
  GetClientRect(Window, &client);
  POINT origin = {0, 0};
  ClientToScreen(Window, &origin);
  char title[300];
  GetWindowTextA(Window, title, sizeof title);
  LONG_PTR style = GetWindowLongPtrA(Window, GWL_STYLE);
  fprintf(stderr,
          "geometry: client %ldx%ld at %ld,%ld status %d caption %d sizeable %d sysmenu %d "
          "minimize %d maximize %d above %d title %s\n",
          client.right, client.bottom, origin.x, origin.y, StatusVisible ? STATUS_HEIGHT : 0,
          (style & WS_CAPTION) == WS_CAPTION ? 1 : 0, (style & WS_THICKFRAME) ? 1 : 0,
          (style & WS_SYSMENU) ? 1 : 0, (style & WS_MINIMIZEBOX) ? 1 : 0,
          (style & WS_MAXIMIZEBOX) ? 1 : 0, TopMost ? 1 : 0, title);
  fflush(stderr);
}
