// TDlgMain: the player's window on GTK 3: a web view above a plain status
// strip, with a header bar for the caption and its buttons.
#ifndef LUMETTA_SHELL_DLG_MAIN_H
#define LUMETTA_SHELL_DLG_MAIN_H

#include <gtk/gtk.h>

#include "player_start.h"

class TDlgMain : public PlayerWindow {
 public:
  // Builds the window and runs the whole start of the player; throws int 0
  // (after telling the user) when the server cannot accept connections.
  TDlgMain();
  TDlgMain(const TDlgMain&) = delete;
  TDlgMain& operator=(const TDlgMain&) = delete;
  void Show();

  GtkWidget* Window;
  GtkWidget* HeaderBar;   // null when the window has no border
  GtkWidget* CWB_Browser;
  GtkWidget* SB_Status;

  void SetCaption(const char* title) override;
  void SetCentered() override;
  void SetTop(int top) override;
  void SetLeft(int left) override;
  void ShowStatusBar(bool show) override;
  void SetSizeable(bool sizeable) override;
  void SetBorderless() override;
  void SetClientWidth(int width) override;
  void SetBrowserHeight(int height) override;
  void SetStayOnTop(bool on) override;
  bool LoadIcon(const char* path) override;
  void SetCaptionButtons(bool sysmenu, bool minimize, bool maximize) override;
  void Navigate(const char* url) override;
  void SuppressContextMenu() override;
  void MakeTranslucent() override;

 private:
  bool StatusVisible = true;
  bool Sizeable = true;
  bool Centered = false;
  bool KeepAbove = false;
  int Top = 0, Left = 0;
  int BrowserWidth = 688, BrowserHeight = 529 - 19;

  void BuildWidgets();
  void FitIntoWorkArea();
  void ReportGeometry();
  static gboolean DrawBarEvent(GtkWidget* bar, cairo_t* cr, gpointer self);
  static void FormDestroy(GtkWidget* window, gpointer self);
  static void OnBrowserAllocated(GtkWidget* browser, GdkRectangle* area, gpointer self);
};

extern TDlgMain* DlgMain;

#endif
