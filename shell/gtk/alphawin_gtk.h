// The fading unit on GTK: opacity of top-level widgets, main-loop timers,
// and the window signals that stand for show, activation, close and destroy.
#ifndef LUMETTA_SHELL_ALPHAWIN_GTK_H
#define LUMETTA_SHELL_ALPHAWIN_GTK_H

#include <gtk/gtk.h>

// Takes a top-level window under the fading unit's management.
void AwGtkInitWindow(GtkWidget* window);

#endif
