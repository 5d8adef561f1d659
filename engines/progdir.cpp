// ExpandTokens: puts the program's directory where a settings value or a run
// request names it by token.
#include "progdir.h"

#include <cstring>

CStr ProgDir;

// Replaces all occurrences, scanning on after each inserted text, so a
// ProgDir that itself contains the token cannot make it loop.
static void ReplaceEvery(CStr& text, const char* token, const CStr& value) {
  if (text.IsEmpty()) return;
  int tokenLen = (int)strlen(token);
  int at = text.Find(token);
  if (at < 0) return;
  CStr out;
  int from = 0;
  while (at >= 0) {
    out.Cat(text.Str + from, at - from);
    out.Cat(value);
    from = at + tokenLen;
    const char* next = strstr(text.Str + from, token);
    at = next ? (int)(next - text.Str) : -1;
  }
  out.Cat(text.Str + from, text.Len - from);
  text = out;
}

void ExpandTokens(CStr& text) {
  ReplaceEvery(text, "%PROGDIR%", ProgDir);
  ReplaceEvery(text, "PROGDIR:", ProgDir);
}
