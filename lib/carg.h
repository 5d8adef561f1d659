// CArg: cuts a text into words wherever a separator stands, can keep
// quoted runs in one word, and gives the words back by position.
// The arguments point into a working copy of the text that is reused between
// calls, so nothing is copied per argument.
#ifndef LUMETTA_CARG_H
#define LUMETTA_CARG_H

#include "cstr.h"

class CArg {
 public:
  char** Args;     // NumArgs arguments, then a NULL; each points into Buf
  char* Buf;       // working copy; separators ending arguments become NULs
  char* SaveBuf;   // where Tokenize goes on
  CStr FieldSep;   // separator characters (blank, tab, LF, CR at first)
  CStr Quotes;     // quote characters; empty: no quoting
  int ArgsSize;    // capacity of Args in pointers
  int BufSize;     // capacity of Buf in characters
  int NumArgs;

  CArg();
  ~CArg();
  CArg(const CArg&) = delete;
  CArg& operator=(const CArg&) = delete;

  // Splits text; returns NumArgs. A NULL or empty text returns 0 and leaves
  // the previous arguments readable (NumArgs unchanged).
  int Parse(char const* text);
  // Next argument from SaveBuf on, or NULL when none is left.
  char* Tokenize();
  // A NULL or empty set switches quoting off.
  void SetQuotes(char const* quotes);
  // Drops a leading quote character and, when the argument ends with the
  // same character, that one too.
  void StripQuotes(char** arg);

  // Out of range (i < 0 or i >= NumArgs): NULL or 0.
  char* GetChar(int i);
  int GetInt(int i);
  float GetFloat(int i);
  double GetDouble(int i);

 private:
  bool IsSeparator(char c) const;
  bool IsQuote(char c) const;
  void GrowArgs();
};

#endif
