// The command line: splitting it into words by the Windows rules, and
// reading /INI, /START and /TITLE from them.
#include "cmdline.h"

#include <cstdlib>
#include <cstring>

#include "cstr.h"

namespace {

bool IsSeparator(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

CmdWordBlock SplitCommandLine(const char* line) {
  CmdWordBlock r = {nullptr, nullptr, 0};
  size_t len = strlen(line);
  // A word needs at least one character and one separator (or two quotes),
  // so (len + 2) / 2 slots plus the closing null pointer always suffice.
  size_t slots = ((len + 2) & ~size_t(1)) / 2 + 1;
  size_t textSize = len + 2;
  r.Block = calloc(1, slots * sizeof(char*) + textSize);
  if (!r.Block) return r;
  r.Words = static_cast<char**>(r.Block);
  char* out = reinterpret_cast<char*>(r.Words + slots);

  bool atWordStart = true, inWord = false, inQuotes = false;
  for (const char* p = line; *p; p++) {
    char c = *p;
    if (inQuotes) {
      if (c == '"') inQuotes = false;
      else *out++ = c;
    } else if (c == '"') {
      inQuotes = true;
      if (atWordStart) r.Words[r.Count++] = out;
      atWordStart = false;
      inWord = true;
    } else if (IsSeparator(c)) {
      atWordStart = true;
      if (inWord) *out++ = 0;
      inWord = false;
    } else {
      if (atWordStart) r.Words[r.Count++] = out;
      *out++ = c;
      inWord = true;
      atWordStart = false;
    }
  }
  *out = 0;
  r.Words[r.Count] = nullptr;
  return r;
}

void FreeCmdWords(CmdWordBlock* b) {
  free(b->Block);
  b->Block = nullptr;
  b->Words = nullptr;
  b->Count = 0;
}

// Takes the value after an option matched at *cursor and leaves the cursor on it.
static bool TakeValue(char* const* words, int count, int* cursor, const char** value) {
  if (*cursor + 1 >= count) return false;
  *cursor += 1;
  *value = words[*cursor];
  return true;
}

CmdResult ReadCmdOptions(char* const* words, int count, CmdOptions* out,
                         bool (*fileExists)(const char* path)) {
  for (int i = 0; i < count; i++) {
    if (StrCompareIC(words[i], "/INI") == 0) {
      if (!TakeValue(words, count, &i, &out->Ini)) return CMD_MISSING_ARGUMENT;
      if (!fileExists(out->Ini)) return CMD_INI_NOT_FOUND;
    }
    if (StrCompareIC(words[i], "/START") == 0 && !TakeValue(words, count, &i, &out->Start))
      return CMD_MISSING_ARGUMENT;
    if (StrCompareIC(words[i], "/TITLE") == 0 && !TakeValue(words, count, &i, &out->Title))
      return CMD_MISSING_ARGUMENT;
  }
  return CMD_OK;
}

const char* CmdResultText(CmdResult r) {
  switch (r) {
    case CMD_MISSING_ARGUMENT: return "Missing argument";
    case CMD_INI_NOT_FOUND: return "Initialization file not found";
    default: return "";
  }
}
