// CArg: splits a line into fields at separator characters, honouring quotes,
// and reads the fields back as text or numbers.
#include "carg.h"

#include <cstdlib>
#include <cstring>

namespace {
const int kArgsStep = 64;

// strchr would report the terminator itself as a member of every set.
bool InSet(const CStr& set, char c) {
  return c != 0 && set.Str && strchr(set.Str, c) != nullptr;
}
}  // namespace

CArg::CArg()
    : Args(new char*[kArgsStep]),
      Buf(nullptr),
      SaveBuf(nullptr),
      FieldSep(" \t\n\r"),
      ArgsSize(kArgsStep),
      BufSize(0),
      NumArgs(0) {
  Args[0] = nullptr;
}

CArg::~CArg() {
  delete[] Args;
  delete[] Buf;
}

bool CArg::IsSeparator(char c) const { return InSet(FieldSep, c); }
bool CArg::IsQuote(char c) const { return InSet(Quotes, c); }

void CArg::SetQuotes(char const* quotes) {
  if (quotes && *quotes) Quotes = quotes;
  else Quotes.Empty();
}

void CArg::StripQuotes(char** arg) {
  char* s = *arg;
  if (!s || !IsQuote(s[0])) return;
  char quote = s[0];
  s++;
  size_t n = strlen(s);
  if (n > 0 && s[n - 1] == quote) s[n - 1] = 0;
  *arg = s;
}

void CArg::GrowArgs() {
  int size = ArgsSize + kArgsStep;
  char** grown = new char*[size];
  memcpy(grown, Args, sizeof(char*) * (size_t)NumArgs);
  delete[] Args;
  Args = grown;
  ArgsSize = size;
}

int CArg::Parse(char const* text) {
  if (!text || !*text) return 0;
  NumArgs = 0;
  size_t needed = strlen(text) + 1;
  if (needed > (size_t)BufSize) {
    delete[] Buf;
    Buf = new char[needed];
    BufSize = (int)needed;
  }
  memcpy(Buf, text, needed);
  SaveBuf = Buf;

  Args[0] = Tokenize();
  if (!Args[0]) return 0;
  NumArgs = 1;
  // The closing NULL needs a slot too, so the array grows as soon as it is
  // full, even when no further argument follows.
  for (;;) {
    if (NumArgs >= ArgsSize) GrowArgs();
    Args[NumArgs] = Tokenize();
    if (!Args[NumArgs]) break;
    NumArgs++;
  }
  return NumArgs;
}

char* CArg::Tokenize() {
  if (!SaveBuf) return nullptr;
  char* p = SaveBuf;
  while (IsSeparator(*p)) p++;
  if (!*p) {
    SaveBuf = p;
    return nullptr;
  }
  char* arg = p;
  bool quoting = !Quotes.IsEmpty();
  char open = 0;  // quote character of the open stretch, 0 when none
  for (; *p; p++) {
    if (quoting && IsQuote(*p)) {
      if (!open) open = *p;
      else if (*p == open) open = 0;
    }
    if (!open && IsSeparator(*p)) {
      *p = 0;
      SaveBuf = p + 1;
      if (quoting) StripQuotes(&arg);
      return arg;
    }
  }
  SaveBuf = p;
  if (quoting) StripQuotes(&arg);
  return arg;
}

char* CArg::GetChar(int i) {
  if (i < 0 || i >= NumArgs) return nullptr;
  return Args[i];
}

int CArg::GetInt(int i) {
  char* s = GetChar(i);
  return s ? atoi(s) : 0;
}

float CArg::GetFloat(int i) {
  return (float)GetDouble(i);
}

double CArg::GetDouble(int i) {
  char* s = GetChar(i);
  return s ? atof(s) : 0.0;
}
