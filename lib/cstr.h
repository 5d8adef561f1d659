// CStr: the owning 8-bit string of the whole system, with exact-fit storage
// (no spare capacity: a length change reallocates). CStrs adds an object
// pointer; CStrList is the doubly linked list of CStrs with a cached cursor.
#ifndef LUMETTA_CSTR_H
#define LUMETTA_CSTR_H

#include <cstdarg>
#include <cstddef>

class CCharVect;

class CStr {
 public:
  char* Str;  // new[] block of exactly Len + 1 bytes, or NULL when empty
  int Len;    // bytes before the terminator (a decoded %00 may stand inside)

  CStr();
  CStr(const char* s);
  CStr(const char* s, int n);  // exactly n bytes (binary-safe)
  explicit CStr(int v);
  CStr(const CStr& s);
  CStr(CStr&& s) noexcept;
  ~CStr();

  CStr& operator=(const CStr& s);
  CStr& operator=(CStr&& s) noexcept;
  CStr& operator=(const char* s);
  CStr& operator=(int v);
  CStr& operator+=(const CStr& s);
  CStr& operator+=(const char* s);
  CStr& operator+=(char c);
  CStr& operator+=(int v);
  CStr operator+(const CStr& s) const;
  CStr operator+(const char* s) const;
  CStr operator+(int v) const;
  bool operator==(const char* s) const { return Compare(s) == 0; }
  bool operator==(const CStr& s) const { return Compare(s.Str) == 0; }
  bool operator!=(const char* s) const { return Compare(s) != 0; }
  bool operator!=(const CStr& s) const { return Compare(s.Str) != 0; }
  bool operator<(const char* s) const { return Compare(s) < 0; }
  bool operator<(const CStr& s) const { return Compare(s.Str) < 0; }
  bool operator>(const char* s) const { return Compare(s) > 0; }
  bool operator>(const CStr& s) const { return Compare(s.Str) > 0; }
  char& operator[](int i) { return Str[i]; }
  char operator[](int i) const { return Str[i]; }

  // Access.
  char* Data() const { return Str; }
  int Length() const { return Len; }
  char First() const { return Str ? Str[0] : 0; }
  char Last() const { return (Str && Len > 0) ? Str[Len - 1] : 0; }
  bool IsEmpty() const { return !Str || !Str[0]; }
  // True when a NUL stands inside the first Len bytes (e.g. UrlDecode of
  // "%00"): C-string users then see a shorter text than Len says.
  bool HasNul() const;
  // Text or "" (never NULL): for printf-style callers.
  const char* c_str() const { return Str ? Str : ""; }
  void Empty();

  // Setting and appending.
  void Set(const char* s);
  void Set(const void* p, int n);
  void Set(const CStr& s) { Set(s.Str, s.Len); }
  void SetInt(int v);
  void CatInt(int v);
  void SetFloat(float v);
  void CatFloat(float v);
  void Cat(const char* s);
  void Cat(const CStr& s);
  void Cat(const void* p, int n);  // binary-safe append
  void CatChar(char c);
  bool SetLen(int n);
  void Fill(char c, int n);
  void Printf(const char* fmt, ...);
  void VPrintf(const char* fmt, va_list ap);
  static CStr FormatFloat(const char* fmt, float v);

  // Comparison: results of the runtime routines; 1 when this or s is empty.
  int Compare(const char* s) const;
  int CompareIC(const char* s) const;
  int Compare(const char* s, int n) const;
  int CompareIC(const char* s, int n) const;
  int Ncompare(const char* s, int n) const;
  int NcompareIC(const char* s, int n) const;

  // Searching: 0-based positions, -1 when not found.
  int Find(const char* s) const;
  int FindIC(const char* s) const;
  int FindChar(char c, int from = 0) const;
  int FindCharEnd(char c, int from = 0) const;
  bool Match(const char* pattern, int n = 0, bool ic = false) const;
  bool MatchIC(const char* pattern, int n = 0) const { return Match(pattern, n, true); }
  CStr Word(int i) const;
  int Words() const;

  // Substrings.
  CStr SubStr(int start, int count) const;
  CStr Right(int start) const;  // from position start to the end
  CStr Left(int n) const;
  CStr LowerStr() const;
  CStr UpperStr() const;

  // In-place editing.
  void Lower();
  void Upper();
  int Substc(char a, char b);
  bool Subst(const char* find, const char* repl);
  // Each pass searches from the start again, so a replacement that contains
  // find never ends: callers must not do that.
  int SubstAll(const char* find, const char* repl);
  bool SubstClr(const char* find) { return Subst(find, ""); }
  int SubstClrAll(const char* find) { return SubstAll(find, ""); }
  int StripChr(int c);
  int StripCr();
  int AddCrLf();
  int StripSpc();  // removes blanks and tabs; returns how many
  void Trim(const char* set, int mode);
  void Trim(const char* set = " \t\r\n") { Trim(set, 3); }
  void TrimLeft(const char* set = " \t\r\n") { Trim(set, 1); }
  void TrimRight(const char* set = " \t\r\n") { Trim(set, 2); }
  void HtmlEncode();
  // '+' to blank, "%xy" to its byte. A '%' among the last two characters is
  // kept as it is. Len counts every decoded byte, a %00 included (see HasNul).
  void UrlDecode();
  void Base64Encode();
  void Base64Decode();
  static char x2c(const char* p);

  // Paths and files. FileName/FilePath/FileExt treat '\\' and '/' as separators.
  CStr FileName() const;
  void FilePath();
  CStr FileExt() const;
  void ChangeExt(const char* ext);
  void ChangeExt(const CStr& ext) { ChangeExt(ext.Str); }
  bool PathSimplify(char sep = 0);  // sep 0 means '\\'
  void WinPath();     // '/' -> '\\'
  void UnixPath();    // '\\' -> '/'
  void UrlPath();     // '\\' -> '/' (a path as it stands in a URL)
  void NativePath();  // '/' -> the platform's separator (no change on POSIX)
  void DirFixSep(bool add);  // the platform's separator
  bool DirCreate() const;
  bool DirDelete() const;
  bool DirSetCurrent() const;
  bool DirExist() const;
  bool DirGetCurrent(bool sep);
  bool DirGetTemp(bool sep);
  bool FileDelete() const;
  bool FileMove(const char* to) const;
  bool FileExist() const;
  long long FileSize() const;
  bool LoadFromFile(const char* name);
  bool SaveToFile(const char* name) const;

  // Number conversions: 0 for an empty string.
  int ToInt() const;
  float ToFloat() const;
  double ToDouble() const;

  // Frees the old block and takes over block, a new[] block of at least
  // len + 1 bytes with a 0 at block[len]: a large text changes hands
  // without a copy.
  void Adopt(char* block, int len);
};

// A string with an attached object (not owned).
class CStrs : public CStr {
 public:
  void* Object = nullptr;
  CStrs() {}
  CStrs(const char* s, void* obj = nullptr) : CStr(s), Object(obj) {}
};

struct __cstr_list {
  __cstr_list* Next;
  __cstr_list* Prev;
  CStrs Str;
};

class CStrList {
 public:
  __cstr_list* Beg;
  __cstr_list* IndexPtr;
  __cstr_list* Last;
  int Index;
  int Num;

  CStrList();
  ~CStrList();
  CStrList(const CStrList&) = delete;
  CStrList& operator=(const CStrList&) = delete;

  int Add(const char* s);
  int Add(const CStr& s);
  int AddObject(const char* s, void* obj);
  int Count() const { return Num; }
  CStrs* operator[](int i);  // NULL when out of range
  void Clear();
  __cstr_list** CreateTable() const;  // caller frees with delete[]
  // cmp receives pointers to node pointers (const __cstr_list* const*).
  bool Sort(int (*cmp)(const void*, const void*));
  // Every string and its NUL, then one more NUL; NULL for an empty list.
  // The caller frees it with delete[]. An empty string ends the block early
  // for readers that stop at the first double NUL.
  char* ToCharNull() const;
  // One slot per string (an empty string gets "" so the vector stays whole);
  // the caller deletes it.
  CCharVect* ToCharVect() const;

 private:
  void Clr();
  void Reset();
  void LinkAtEnd(__cstr_list* node);
};

// Case-blind byte comparison (each byte lower-cased), at most n bytes when
// n >= 0. Unlike CStr::CompareIC, an empty text compares like any other.
int StrCompareIC(const char* a, const char* b, long long n = -1);
// True when the len bytes at text begin with prefix, case-blind.
bool StrStartsWithIC(const char* text, size_t len, const char* prefix);

#endif
