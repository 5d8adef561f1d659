// Error, the player's one way of telling the user that something failed:
// a message box owned by the main window, echoed on standard error.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "pl_ui.h"
#include "shell_state.h"

void Error(const char* format, ...) {
  char text[512];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  size_t n = strlen(text);
  fputs(text, stderr);
  if (n == 0 || text[n - 1] != '\n') fputc('\n', stderr);
  fflush(stderr);
  PlMessageBox(MainWindowHandle, text, "Lumetta");
}
