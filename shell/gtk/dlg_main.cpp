// TDlgMain on GTK: building the window, the settings the start sequence
// applies to it, showing it inside the screen, and its debug reports.
#include "dlg_main.h"

#include <webkit2/webkit2.h>

#include <cstdio>
#include <cstdlib>

#include "alphawin_gtk.h"
#include "shell_state.h"

TDlgMain* DlgMain = nullptr;

namespace {

const int STATUS_HEIGHT = 19;
const int MIN_WIDTH = 160, MIN_HEIGHT = 120;

gboolean NoContextMenu(WebKitWebView*, WebKitContextMenu*, GdkEvent*, WebKitHitTestResult*,
                       gpointer) {
  return TRUE;  // claimed as shown, so the web view shows none
}

int NotNegative(int v) { return v < 0 ? 0 : v; }

// v moved into [low, high]; low wins when the range is empty.
int Clamp(int v, int low, int high) { return v > high ? (high > low ? high : low) : v < low ? low : v; }

// The work area (the screen less panels and docks) of the monitor at the
// point, or of the primary monitor.
bool WorkArea(GtkWidget* window, const int* x, const int* y, GdkRectangle* area) {
  GdkDisplay* display = gtk_widget_get_display(window);
  GdkMonitor* monitor = x ? gdk_display_get_monitor_at_point(display, *x, *y) : nullptr;
  if (!monitor) monitor = gdk_display_get_primary_monitor(display);
  if (!monitor) monitor = gdk_display_get_monitor(display, 0);
  if (!monitor) return false;
  gdk_monitor_get_workarea(monitor, area);
  return area->width > 0 && area->height > 0;
}

// Debug trace of the page's life, for tests that cannot look at the screen.
void TraceLoad(WebKitWebView* view, WebKitLoadEvent event, gpointer) {
  if (event == WEBKIT_LOAD_FINISHED) fprintf(stderr, "loaded: %s\n", webkit_web_view_get_uri(view));
}

gboolean TraceLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar* uri, GError* error, gpointer) {
  fprintf(stderr, "load failed: %s: %s\n", uri, error ? error->message : "");
  return FALSE;
}

void TraceCrash(WebKitWebView*, WebKitWebProcessTerminationReason reason, gpointer) {
  fprintf(stderr, "web process ended: %d\n", int(reason));
}

}  // namespace

TDlgMain::TDlgMain() : Window(nullptr), HeaderBar(nullptr), CWB_Browser(nullptr),
                       SB_Status(nullptr) {
  BuildWidgets();
  MainWindowHandle = Window;
  try {
    StartPlayer(*this);
  } catch (...) {
    gtk_widget_destroy(Window);  // runs FormDestroy, which stops the server
    throw;
  }
}

void TDlgMain::BuildWidgets() {
  Window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  HeaderBar = gtk_header_bar_new();
  gtk_header_bar_set_show_close_button(GTK_HEADER_BAR(HeaderBar), TRUE);
  gtk_window_set_titlebar(GTK_WINDOW(Window), HeaderBar);

  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  CWB_Browser = webkit_web_view_new();
  // Drawn in software: GPU compositing leaves the view blank where OpenGL is
  // missing or broken (virtual machines, remote and virtual displays), and an
  // application's pages do not need it.
  WebKitSettings* settings = webkit_web_view_get_settings(WEBKIT_WEB_VIEW(CWB_Browser));
  webkit_settings_set_hardware_acceleration_policy(settings,
                                                   WEBKIT_HARDWARE_ACCELERATION_POLICY_NEVER);
  gtk_box_pack_start(GTK_BOX(box), CWB_Browser, TRUE, TRUE, 0);
  SB_Status = gtk_drawing_area_new();
  gtk_style_context_add_class(gtk_widget_get_style_context(SB_Status), "statusbar");
  gtk_widget_set_size_request(SB_Status, -1, STATUS_HEIGHT);
  gtk_box_pack_end(GTK_BOX(box), SB_Status, FALSE, FALSE, 0);
  gtk_container_add(GTK_CONTAINER(Window), box);

  g_signal_connect(SB_Status, "draw", G_CALLBACK(DrawBarEvent), this);
  g_signal_connect(Window, "destroy", G_CALLBACK(FormDestroy), this);
  g_signal_connect(CWB_Browser, "size-allocate", G_CALLBACK(OnBrowserAllocated), this);
  if (getenv("LUMETTA_DEBUG_WINDOW")) {
    g_signal_connect(CWB_Browser, "load-changed", G_CALLBACK(TraceLoad), nullptr);
    g_signal_connect(CWB_Browser, "load-failed", G_CALLBACK(TraceLoadFailed), nullptr);
    g_signal_connect(CWB_Browser, "web-process-terminated", G_CALLBACK(TraceCrash), nullptr);
  }
}

// A plain strip in the status bar's own colour, without text.
gboolean TDlgMain::DrawBarEvent(GtkWidget* bar, cairo_t* cr, gpointer) {
  GtkStyleContext* style = gtk_widget_get_style_context(bar);
  gtk_render_background(style, cr, 0, 0, gtk_widget_get_allocated_width(bar),
                        gtk_widget_get_allocated_height(bar));
  return FALSE;
}

void TDlgMain::FormDestroy(GtkWidget*, gpointer) {
  StopPlayer();
  MainWindowHandle = nullptr;
  if (gtk_main_level() > 0) gtk_main_quit();  // not yet running when the start failed
}

void TDlgMain::SetCaption(const char* title) {
  gtk_window_set_title(GTK_WINDOW(Window), title);
  g_set_application_name(title);
}

void TDlgMain::SetCentered() {
  Centered = true;
  gtk_window_set_position(GTK_WINDOW(Window), GTK_WIN_POS_CENTER);
}

void TDlgMain::SetTop(int top) { Top = top; }
void TDlgMain::SetLeft(int left) { Left = left; }
void TDlgMain::ShowStatusBar(bool show) { StatusVisible = show; }

void TDlgMain::SetSizeable(bool sizeable) {
  Sizeable = sizeable;
  gtk_window_set_resizable(GTK_WINDOW(Window), sizeable);
}

void TDlgMain::SetBorderless() {
  StatusVisible = false;
  gtk_window_set_titlebar(GTK_WINDOW(Window), nullptr);  // destroys the header bar
  HeaderBar = nullptr;
  gtk_window_set_decorated(GTK_WINDOW(Window), FALSE);
}

void TDlgMain::SetClientWidth(int width) { BrowserWidth = NotNegative(width); }
void TDlgMain::SetBrowserHeight(int height) { BrowserHeight = NotNegative(height); }

void TDlgMain::SetStayOnTop(bool on) {
  KeepAbove = on;
  gtk_window_set_keep_above(GTK_WINDOW(Window), on);
}

bool TDlgMain::LoadIcon(const char* path) {
  GError* err = nullptr;
  bool ok = gtk_window_set_default_icon_from_file(path, &err);
  if (err) g_error_free(err);
  if (ok) gtk_window_set_icon_from_file(GTK_WINDOW(Window), path, nullptr);
  return ok;
}

void TDlgMain::SetCaptionButtons(bool sysmenu, bool minimize, bool maximize) {
  if (!HeaderBar) return;
  GtkHeaderBar* bar = GTK_HEADER_BAR(HeaderBar);
  if (!sysmenu) {
    gtk_header_bar_set_show_close_button(bar, FALSE);
    return;
  }
  CStr layout = "icon:";
  if (minimize) layout += "minimize,";
  if (maximize) layout += "maximize,";
  layout += "close";
  gtk_header_bar_set_decoration_layout(bar, layout.c_str());
}

void TDlgMain::Navigate(const char* url) {
  if (getenv("LUMETTA_DEBUG_WINDOW")) fprintf(stderr, "navigate: %s\n", url);
  webkit_web_view_load_uri(WEBKIT_WEB_VIEW(CWB_Browser), url);
}

void TDlgMain::SuppressContextMenu() {
  g_signal_connect(CWB_Browser, "context-menu", G_CALLBACK(NoContextMenu), nullptr);
}

void TDlgMain::MakeTranslucent() { AwGtkInitWindow(Window); }

void TDlgMain::Show() {
  // The browser asks for exactly the configured area; the status strip comes
  // on top of it. A sizeable window lets go of that request once it has its
  // size, so the user can make it smaller again.
  gtk_widget_set_size_request(CWB_Browser, BrowserWidth, BrowserHeight);
  GdkGeometry hints = {};
  hints.min_width = MIN_WIDTH;
  hints.min_height = MIN_HEIGHT;
  gtk_window_set_geometry_hints(GTK_WINDOW(Window), nullptr, &hints, GDK_HINT_MIN_SIZE);
  gtk_widget_set_no_show_all(SB_Status, !StatusVisible);  // sized without it from the start
  // The parts are shown first so that the window's size can be measured
  // before it appears.
  gtk_widget_show_all(gtk_bin_get_child(GTK_BIN(Window)));
  if (HeaderBar) gtk_widget_show_all(HeaderBar);
  FitIntoWorkArea();
  if (!Centered) gtk_window_move(GTK_WINDOW(Window), Left, Top);
  gtk_widget_show_all(Window);
}

// Settings written for a larger screen must not leave the window, or its
// status strip, out of reach: the browser area gives up what does not fit
// on the monitor, then the window moves in until it lies wholly inside.
void TDlgMain::FitIntoWorkArea() {
  GdkRectangle area;
  if (!WorkArea(Window, Centered ? nullptr : &Left, Centered ? nullptr : &Top, &area)) return;
  GtkRequisition outer;
  gtk_widget_get_preferred_size(Window, nullptr, &outer);
  int chromeWidth = outer.width - BrowserWidth, chromeHeight = outer.height - BrowserHeight;
  int width = Clamp(BrowserWidth, 1, area.width - chromeWidth);
  int height = Clamp(BrowserHeight, 1, area.height - chromeHeight);
  if (width != BrowserWidth || height != BrowserHeight) {
    BrowserWidth = width;
    BrowserHeight = height;
    gtk_widget_set_size_request(CWB_Browser, BrowserWidth, BrowserHeight);
  }
  Left = Clamp(Left, area.x, area.x + area.width - (chromeWidth + BrowserWidth));
  Top = Clamp(Top, area.y, area.y + area.height - (chromeHeight + BrowserHeight));
}

void TDlgMain::OnBrowserAllocated(GtkWidget* browser, GdkRectangle* area, gpointer data) {
  TDlgMain* self = static_cast<TDlgMain*>(data);
  // Skip the placeholder allocation before the window is laid out. The first
  // real one may be smaller than asked when the desktop limits the window.
  bool placeholder = area->width <= 1 && area->height <= 1;
  if (placeholder && (self->BrowserWidth > 1 || self->BrowserHeight > 1)) return;
  g_signal_handlers_disconnect_by_func(browser, (gpointer)OnBrowserAllocated, data);
  if (self->Sizeable) gtk_widget_set_size_request(browser, -1, -1);
  // The status strip is laid out after the browser: report once all is placed.
  g_idle_add(
      [](gpointer d) -> gboolean {
        static_cast<TDlgMain*>(d)->ReportGeometry();
        return G_SOURCE_REMOVE;
      },
      data);
}

// With LUMETTA_DEBUG_WINDOW set, tells what the window became, so tests
// can check it without a window manager.
void TDlgMain::ReportGeometry() {
  if (!getenv("LUMETTA_DEBUG_WINDOW")) return;
  int x = 0, y = 0, dx = 0, dy = 0;
  gdk_window_get_origin(gtk_widget_get_window(Window), &x, &y);
  gtk_widget_translate_coordinates(CWB_Browser, Window, 0, 0, &dx, &dy);
  int statusH = gtk_widget_get_visible(SB_Status) ? gtk_widget_get_allocated_height(SB_Status)
                                                  : 0;
  const char* layout = HeaderBar ? gtk_header_bar_get_decoration_layout(GTK_HEADER_BAR(HeaderBar))
                                 : nullptr;
  bool buttons = HeaderBar && gtk_header_bar_get_show_close_button(GTK_HEADER_BAR(HeaderBar));
  fprintf(stderr,
          "geometry: browser %dx%d client %dx%d at %d,%d status %d titlebar %d "
          "buttons %s resizable %d above %d title %s\n",
          gtk_widget_get_allocated_width(CWB_Browser),
          gtk_widget_get_allocated_height(CWB_Browser),
          gtk_widget_get_allocated_width(CWB_Browser),
          gtk_widget_get_allocated_height(CWB_Browser) + statusH, x + dx, y + dy, statusH,
          HeaderBar ? 1 : 0, buttons ? (layout ? layout : "default") : "none",
          gtk_window_get_resizable(GTK_WINDOW(Window)) ? 1 : 0, KeepAbove ? 1 : 0,
          gtk_window_get_title(GTK_WINDOW(Window)));
  fflush(stderr);
}
