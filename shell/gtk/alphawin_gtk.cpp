// The GTK side of window fading: opacity, timers and the window signals that
// drive the toolkit-free fading unit.
#include "alphawin_gtk.h"

#include <cstdio>
#include <cstdlib>
#include <set>

#include "alphawin.h"

namespace {

// Windows still alive. A record may outlive its window when fading was off
// at destruction; such a window must not be touched any more.
std::set<void*> LiveWindows;

bool TraceOpacity = false;  // LUMETTA_DEBUG_WINDOW: tests follow the fades

void SetOpacity(void* window, AwAlpha alpha) {
  if (!LiveWindows.count(window)) return;
  gtk_widget_set_opacity(GTK_WIDGET(window), alpha / 255.0);
  if (TraceOpacity) fprintf(stderr, "opacity: %d\n", int(alpha));
}

void SetLayered(void* window, bool on) {
  if (!on && LiveWindows.count(window)) gtk_widget_set_opacity(GTK_WIDGET(window), 1.0);
}

bool IsForeground(void* window) {
  return LiveWindows.count(window) && gtk_window_is_active(GTK_WINDOW(window));
}

struct PendingTick {
  void (*Fn)(void*);
  void* Arg;
};

gboolean RunTick(gpointer data) {
  PendingTick* t = static_cast<PendingTick*>(data);
  t->Fn(t->Arg);
  return G_SOURCE_REMOVE;
}

void FreeTick(gpointer data) { delete static_cast<PendingTick*>(data); }

unsigned TimerStart(unsigned ms, void (*fn)(void*), void* arg) {
  return g_timeout_add_full(G_PRIORITY_DEFAULT, ms, RunTick, new PendingTick{fn, arg}, FreeTick);
}

void TimerStop(unsigned id) { g_source_remove(id); }

// Waits while the main loop keeps drawing, so a closing fade is seen.
void SleepDrawing(unsigned ms) {
  gint64 end = g_get_monotonic_time() + gint64(ms) * 1000;
  while (g_get_monotonic_time() < end) {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    g_usleep(2000);
  }
}

void OnMap(GtkWidget* w, gpointer) { AW_CallBack(w, AW_SHOW); }

void OnActiveChanged(GObject* w, GParamSpec*, gpointer) {
  AW_CallBack(w, gtk_window_is_active(GTK_WINDOW(w)) ? AW_ACTIVATE : AW_DEACTIVATE);
}

gboolean OnDelete(GtkWidget* w, GdkEvent*, gpointer) {
  static bool closing = false;  // a second close while fading waits for the first
  if (closing) return TRUE;
  closing = true;
  AW_CallBack(w, AW_CLOSE);
  closing = false;
  return FALSE;  // the close goes on
}

void OnDestroy(GtkWidget* w, gpointer) {
  AW_CallBack(w, AW_DESTROY);
  LiveWindows.erase(w);
}

void InstallPlatformOnce() {
  static bool done = false;
  if (done) return;
  AwPlatform p = {};
  p.SetOpacity = SetOpacity;
  p.SetLayered = SetLayered;
  p.IsForeground = IsForeground;
  p.TimerStart = TimerStart;
  p.TimerStop = TimerStop;
  p.Sleep = SleepDrawing;
  AW_SetPlatform(&p);
  TraceOpacity = getenv("LUMETTA_DEBUG_WINDOW") != nullptr;
  done = true;
}

}  // namespace

void AwGtkInitWindow(GtkWidget* window) {
  InstallPlatformOnce();
  LiveWindows.insert(window);
  AW_InitAlphaWin(window);
  g_signal_connect(window, "map", G_CALLBACK(OnMap), nullptr);
  g_signal_connect(window, "notify::is-active", G_CALLBACK(OnActiveChanged), nullptr);
  g_signal_connect(window, "delete-event", G_CALLBACK(OnDelete), nullptr);
  g_signal_connect(window, "destroy", G_CALLBACK(OnDestroy), nullptr);
}
