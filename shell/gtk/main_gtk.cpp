// The windowed player's entry: a GTK main loop around TDlgMain.
#include <glib-unix.h>
#include <gtk/gtk.h>

#include <csignal>

#include "dlg_main.h"
#include "pl_ui.h"
#include "player_start.h"
#include "shell_state.h"

namespace {

void ShowMessage(void* owner, const char* text, const char* caption) {
  GtkWindow* parent = nullptr;
  if (owner && gtk_widget_get_visible(GTK_WIDGET(owner))) parent = GTK_WINDOW(owner);
  GtkWidget* box = gtk_message_dialog_new(parent, GTK_DIALOG_MODAL, GTK_MESSAGE_WARNING,
                                          GTK_BUTTONS_OK, "%s", text);
  gtk_window_set_title(GTK_WINDOW(box), caption);
  gtk_dialog_run(GTK_DIALOG(box));
  gtk_widget_destroy(box);
}

// A stop request from outside closes the window like the user would, so the
// server stops and the port is freed.
gboolean CloseOnSignal(gpointer) {
  if (DlgMain && MainWindowHandle) gtk_widget_destroy(DlgMain->Window);
  return G_SOURCE_REMOVE;
}

void RunWindow(void* haveDisplay) {
  if (!*static_cast<bool*>(haveDisplay)) {
    Error("Unable to open the display for the player's window.");
    return;
  }
  DlgMain = new TDlgMain;  // the whole start of the player happens here
  DlgMain->Show();
  g_unix_signal_add(SIGINT, CloseOnSignal, nullptr);
  g_unix_signal_add(SIGTERM, CloseOnSignal, nullptr);
  gtk_main();
}

}  // namespace

int main(int argc, char** argv) {
  bool haveDisplay = gtk_init_check(&argc, &argv);
  if (haveDisplay) PlUiSetMessageBox(ShowMessage);
  int code = PlayerMain(argv + 1, argc - 1, RunWindow, &haveDisplay);
  delete DlgMain;
  return code;
}
