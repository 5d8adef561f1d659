// CStr and CStrList. Helpers first, then CStr by kind of operation
// (construction, setting, comparison, searching, substrings, editing, paths,
// files, numbers), and CStrList last.
#include "cstr.h"
#include "clistcore.h"
#include "cfileio.h"

#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cctype>
#include <new>
#include <string>
#include <utility>

#include "cmem.h"
#include "cprintf.h"
#include "pl_fs.h"

namespace {

// Blocks come from new[] without throwing: a string that cannot grow stays
// as it was, and the operation returns quietly.
char* NewBlock(long long n) {
  if (n <= 0 || n > INT_MAX) return nullptr;
  return new (std::nothrow) char[(size_t)n];
}

// A length that a CStr can hold (plus its terminator).
bool FitsLen(long long n) { return n >= 0 && n < INT_MAX; }

// ASCII only, whatever locale the window's toolkit has set: the bytes
// compared are protocol names and file extensions, and a byte of a UTF-8
// sequence must never change.
int UpperByte(char c) { return c >= 'a' && c <= 'z' ? c - ('a' - 'A') : (unsigned char)c; }
int LowerByte(char c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : (unsigned char)c; }

bool IsSep(char c) { return c == '\\' || c == '/'; }
bool IsBlank(char c) { return c == ' ' || c == '\t'; }

bool NeedsHtmlEscape(char c) {
  unsigned char u = (unsigned char)c;
  return u >= 126 || c == '"' || c == '&' || c == '<' || c == '>';
}

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

int HexDigit(char c) { return c < 'A' ? c - '0' : (c & ~0x20) - 55; }

// Floating-point parsing that ignores the process locale (the GUI toolkit
// may switch LC_NUMERIC), with the leading blanks and '+' that atof takes.
template <class T>
T ParseFloat(const char* s, int len) {
  if (!s || len <= 0) return 0;
  const char* end = s + strnlen(s, (size_t)len);
  while (s < end && isspace((unsigned char)*s)) ++s;
  if (s < end && *s == '+' && !(s + 1 < end && s[1] == '-')) ++s;
  T v = 0;
  std::from_chars_result r = std::from_chars(s, end, v);
  if (r.ec == std::errc::result_out_of_range) return (T)strtod(s, nullptr);
  return r.ec == std::errc() ? v : 0;
}

}  // namespace

// ---- construction and assignment ----

CStr::CStr() : Str(nullptr), Len(0) {}
CStr::CStr(const char* s) : Str(nullptr), Len(0) { Set(s); }
CStr::CStr(const char* s, int n) : Str(nullptr), Len(0) { Set(s, n); }
CStr::CStr(int v) : Str(nullptr), Len(0) { SetInt(v); }
CStr::CStr(const CStr& s) : Str(nullptr), Len(0) { Set(s.Str, s.Len); }
CStr::CStr(CStr&& s) noexcept : Str(s.Str), Len(s.Len) {
  s.Str = nullptr;
  s.Len = 0;
}
CStr::~CStr() { delete[] Str; }

CStr& CStr::operator=(const CStr& s) {
  if (this != &s) Set(s.Str, s.Len);
  return *this;
}

CStr& CStr::operator=(CStr&& s) noexcept {
  if (this != &s) {
    delete[] Str;
    Str = s.Str;
    Len = s.Len;
    s.Str = nullptr;
    s.Len = 0;
  }
  return *this;
}

CStr& CStr::operator=(const char* s) {
  Set(s);
  return *this;
}
CStr& CStr::operator=(int v) {
  SetInt(v);
  return *this;
}
CStr& CStr::operator+=(const CStr& s) {
  Cat(s);
  return *this;
}
CStr& CStr::operator+=(const char* s) {
  Cat(s);
  return *this;
}
CStr& CStr::operator+=(char c) {
  CatChar(c);
  return *this;
}
CStr& CStr::operator+=(int v) {
  CatInt(v);
  return *this;
}

CStr CStr::operator+(const CStr& s) const {
  CStr r(*this);
  r.Cat(s);
  return r;
}
CStr CStr::operator+(const char* s) const {
  CStr r(*this);
  r.Cat(s);
  return r;
}
CStr CStr::operator+(int v) const {
  CStr r(*this);
  r.CatInt(v);
  return r;
}

void CStr::Adopt(char* block, int len) {
  delete[] Str;
  Str = block;
  Len = block ? len : 0;
}

void CStr::Empty() { Adopt(nullptr, 0); }

bool CStr::HasNul() const { return Str && (int)strnlen(Str, (size_t)Len) < Len; }

// ---- setting and appending ----

void CStr::Set(const char* s) { Set(s, s ? (int)strlen(s) : 0); }

// The new block is filled before the old one goes, so s may point into
// this string's own text.
void CStr::Set(const void* p, int n) {
  if (!p || n <= 0) {
    Empty();
    return;
  }
  char* block = NewBlock((long long)n + 1);
  if (!block) {
    Empty();
    return;
  }
  memcpy(block, p, (size_t)n);
  block[n] = 0;
  Adopt(block, n);
}

void CStr::SetInt(int v) {
  char buf[16];
  snprintf(buf, sizeof buf, "%d", v);
  Set(buf);
}

void CStr::CatInt(int v) {
  char buf[16];
  snprintf(buf, sizeof buf, "%d", v);
  Cat(buf);
}

void CStr::SetFloat(float v) {
  char buf[32];
  QsSnPrintf(sizeof buf, buf, "%f", (double)v);
  Set(buf);
}

void CStr::CatFloat(float v) {
  char buf[34];
  QsSnPrintf(sizeof buf, buf, "%f", (double)v);
  Cat(buf);
}

void CStr::Cat(const char* s) {
  if (s && *s) Cat(s, (int)strlen(s));
}

void CStr::Cat(const CStr& s) { Cat(s.Str, s.Len); }

void CStr::Cat(const void* p, int n) {
  if (!p || n <= 0) return;
  if (!Str) {
    Set(p, n);
    return;
  }
  long long total = (long long)Len + n;
  if (!FitsLen(total)) return;
  char* block = NewBlock(total + 1);
  if (!block) return;
  memcpy(block, Str, (size_t)Len);
  memcpy(block + Len, p, (size_t)n);
  block[total] = 0;
  Adopt(block, (int)total);
}

void CStr::CatChar(char c) { Cat(&c, 1); }

// The bytes past the old text are zeroed rather than left undefined, so a
// caller that fills less than it asked for never exposes stale memory.
bool CStr::SetLen(int n) {
  if (n < 0) return false;
  char* block = NewBlock((long long)n + 1);
  if (!block) return false;
  memset(block, 0, (size_t)n + 1);
  if (Str) memcpy(block, Str, (size_t)(n < Len ? n : Len));
  Adopt(block, n);
  return true;
}

void CStr::Fill(char c, int n) {
  Empty();
  if (n <= 0) return;
  char* block = NewBlock((long long)n + 1);
  if (!block) return;
  memset(block, c, (size_t)n);
  block[n] = 0;
  Adopt(block, n);
}

void CStr::Printf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  VPrintf(fmt, ap);
  va_end(ap);
}

void CStr::VPrintf(const char* fmt, va_list ap) {
  if (!fmt) {
    Empty();
    return;
  }
  char* text = QsVmPrintf(fmt, ap);
  Set(text);
  free(text);
}

CStr CStr::FormatFloat(const char* fmt, float v) {
  CStr r;
  if (!fmt || !*fmt) return r;
  char buf[32];
  QsSnPrintf(sizeof buf, buf, fmt, (double)v);
  r.Set(buf);
  return r;
}

// ---- comparison ----

int CStr::Compare(const char* s) const {
  if (IsEmpty() || !s || !*s) return 1;
  return strcmp(Str, s);
}

int CStr::CompareIC(const char* s) const {
  if (IsEmpty() || !s || !*s) return 1;
  return StrCompareIC(Str, s);
}

int CStr::Compare(const char* s, int n) const {
  if (IsEmpty() || !s || !*s) return 1;
  return n <= 0 ? 0 : strncmp(Str, s, (size_t)n);
}

int CStr::CompareIC(const char* s, int n) const {
  if (IsEmpty() || !s || !*s) return 1;
  return n <= 0 ? 0 : StrCompareIC(Str, s, n);
}

int CStr::Ncompare(const char* s, int n) const { return Compare(s, n); }
int CStr::NcompareIC(const char* s, int n) const { return CompareIC(s, n); }

// ---- searching ----

int CStr::Find(const char* s) const {
  if (IsEmpty() || !s || !*s) return -1;
  const char* hit = strstr(Str, s);
  return hit ? (int)(hit - Str) : -1;
}

int CStr::FindIC(const char* s) const {
  if (IsEmpty() || !s || !*s) return -1;
  for (const char* p = Str; *p; ++p) {
    int k = 0;
    while (s[k] && p[k] && UpperByte(p[k]) == UpperByte(s[k])) ++k;
    if (!s[k]) return (int)(p - Str);
    if (!p[k]) break;  // the rest of the text is shorter than s
  }
  return -1;
}

int CStr::FindChar(char c, int from) const {
  if (from < 0 || from >= Len) return -1;
  for (int i = from; i < Len; ++i)
    if (Str[i] == c) return i;
  return -1;
}

int CStr::FindCharEnd(char c, int from) const {
  if (from < 0 || from >= Len) return -1;
  for (int i = Len - 1; i > from; --i)
    if (Str[i] == c) return i;
  return -1;
}

// Wildcard match with one backtrack point: after a '*' a mismatch restarts
// the rest of the pattern one subject character further on.
bool CStr::Match(const char* pattern, int n, bool ic) const {
  if (IsEmpty() || !pattern) return false;
  int limit = (n > 0 && n < Len) ? n : Len;
  int end = (int)strnlen(Str, (size_t)limit);
  auto same = [ic](char a, char b) { return ic ? UpperByte(a) == UpperByte(b) : a == b; };

  const char* p = pattern;
  int si = 0;
  // A pattern character of NUL never equals a subject byte here (the
  // subject ends before its first NUL), so a short pattern fails naturally.
  while (si < end && *p != '*') {
    if (*p != '?' && !same(*p, Str[si])) return false;
    ++p;
    ++si;
  }
  const char* retryPattern = nullptr;
  int retrySubject = 0;
  while (si < end) {
    if (*p == '*') {
      if (!*++p) return true;
      retryPattern = p;
      retrySubject = si + 1;
    } else if (*p && (*p == '?' || same(*p, Str[si]))) {
      ++p;
      ++si;
    } else {
      p = retryPattern;
      si = retrySubject++;
    }
  }
  while (*p == '*') ++p;
  return !*p;
}

CStr CStr::Word(int i) const {
  if (i < 0 || IsEmpty()) return CStr();
  int pos = 0;
  for (int k = 0;; ++k) {
    while (pos < Len && IsBlank(Str[pos])) ++pos;
    if (pos >= Len) return CStr();
    int start = pos;
    while (pos < Len && !IsBlank(Str[pos])) ++pos;
    if (k == i) return CStr(Str + start, pos - start);
  }
}

int CStr::Words() const {
  int count = 0;
  for (int pos = 0; pos < Len;) {
    while (pos < Len && IsBlank(Str[pos])) ++pos;
    if (pos >= Len) break;
    ++count;
    while (pos < Len && !IsBlank(Str[pos])) ++pos;
  }
  return count;
}

// ---- substrings ----

CStr CStr::SubStr(int start, int count) const {
  if (count <= 0 || start < 0 || start >= Len) return CStr();
  if (count > Len - start) count = Len - start;
  return CStr(Str + start, count);
}

CStr CStr::Right(int start) const {
  if (start < 0 || start >= Len) return CStr();
  return CStr(Str + start, Len - start);
}

CStr CStr::Left(int n) const {
  if (n <= 0 || !Str) return CStr();
  return CStr(Str, n < Len ? n : Len);
}

CStr CStr::LowerStr() const {
  CStr r(*this);
  r.Lower();
  return r;
}

CStr CStr::UpperStr() const {
  CStr r(*this);
  r.Upper();
  return r;
}

// ---- in-place editing ----

void CStr::Lower() {
  for (int i = 0; i < Len; ++i) Str[i] = (char)LowerByte(Str[i]);
}

void CStr::Upper() {
  for (int i = 0; i < Len; ++i) Str[i] = (char)UpperByte(Str[i]);
}

int CStr::Substc(char a, char b) {
  int count = 0;
  for (int i = 0; i < Len; ++i)
    if (Str[i] == a) {
      Str[i] = b;
      ++count;
    }
  return count;
}

bool CStr::Subst(const char* find, const char* repl) {
  int pos = Find(find);
  if (pos < 0) return false;
  if (!repl) repl = "";
  int findLen = (int)strlen(find), replLen = (int)strlen(repl);
  long long total = (long long)Len - findLen + replLen;
  if (!FitsLen(total)) return false;
  if (total == 0) {
    Empty();
    return true;
  }
  char* block = NewBlock(total + 1);
  if (!block) return false;
  memcpy(block, Str, (size_t)pos);
  memcpy(block + pos, repl, (size_t)replLen);
  memcpy(block + pos + replLen, Str + pos + findLen, (size_t)(Len - pos - findLen));
  block[total] = 0;
  Adopt(block, (int)total);
  return true;
}

int CStr::SubstAll(const char* find, const char* repl) {
  int count = 0;
  while (Subst(find, repl)) ++count;
  return count;
}

// Keeps the bytes for which drop() is false; returns how many went.
template <class Pred>
static int StripIf(CStr& s, Pred drop) {
  int removed = 0;
  for (int i = 0; i < s.Len; ++i)
    if (drop(s.Str[i])) ++removed;
  if (!removed) return 0;
  if (removed == s.Len) {
    s.Empty();
    return removed;
  }
  CStr kept;
  if (!kept.SetLen(s.Len - removed)) return 0;
  int o = 0;
  for (int i = 0; i < s.Len; ++i)
    if (!drop(s.Str[i])) kept.Str[o++] = s.Str[i];
  s = std::move(kept);
  return removed;
}

int CStr::StripChr(int c) {
  if (c < 1 || c > 255) return 0;
  char ch = (char)c;
  return StripIf(*this, [ch](char x) { return x == ch; });
}

int CStr::StripSpc() { return StripIf(*this, IsBlank); }

int CStr::StripCr() {
  int crs = 0, pairs = 0;
  for (int i = 0; i < Len; ++i)
    if (Str[i] == '\r') {
      ++crs;
      if (i + 1 < Len && Str[i + 1] == '\n') ++pairs;
    }
  if (!crs) return 0;
  // Lone CRs become LFs in place; the CR of each CR LF pair is dropped.
  int o = 0;
  for (int i = 0; i < Len; ++i) {
    if (Str[i] == '\r' && i + 1 < Len && Str[i + 1] == '\n') continue;
    Str[o++] = Str[i] == '\r' ? '\n' : Str[i];
  }
  if (pairs) Set(Str, o);
  return crs;
}

int CStr::AddCrLf() {
  StripCr();
  int lfs = 0;
  for (int i = 0; i < Len; ++i)
    if (Str[i] == '\n') ++lfs;
  if (!lfs) return 0;
  long long total = (long long)Len + lfs;
  if (!FitsLen(total)) return 0;
  char* block = NewBlock(total + 1);
  if (!block) return 0;
  int o = 0;
  for (int i = 0; i < Len; ++i) {
    if (Str[i] == '\n') block[o++] = '\r';
    block[o++] = Str[i];
  }
  block[o] = 0;
  Adopt(block, o);
  return lfs;
}

// The right pass never looks at the first kept character, so with the
// right bit alone a text made only of set characters keeps one of them.
void CStr::Trim(const char* set, int mode) {
  if (IsEmpty() || !set || !*set || !mode) return;
  auto inSet = [set](char c) { return c && strchr(set, c); };
  int begin = 0, end = Len;
  if (mode & 1)
    while (begin < end && inSet(Str[begin])) ++begin;
  if ((mode & 2) && begin < end) {
    int q = end - 1;
    while (q > begin && inSet(Str[q])) Str[q--] = 0;
    end = q + 1;
  }
  if (begin >= end)
    Empty();
  else if (begin > 0 || end < Len)
    Set(Str + begin, end - begin);
}

void CStr::HtmlEncode() {
  int count = 0;
  for (int i = 0; i < Len; ++i)
    if (NeedsHtmlEscape(Str[i])) ++count;
  if (!count) return;
  long long total = (long long)Len + 5LL * count;
  if (!FitsLen(total)) return;
  char* block = NewBlock(total + 1);
  if (!block) return;
  static const char hex[] = "0123456789abcdef";
  int o = 0;
  for (int i = 0; i < Len; ++i) {
    unsigned char u = (unsigned char)Str[i];
    if (!NeedsHtmlEscape(Str[i])) {
      block[o++] = Str[i];
      continue;
    }
    memcpy(block + o, "&#x", 3);
    block[o + 3] = hex[u >> 4];
    block[o + 4] = hex[u & 15];
    block[o + 5] = ';';
    o += 6;
  }
  block[o] = 0;
  Adopt(block, o);
}

void CStr::UrlDecode() {
  if (!Str) return;
  Substc('+', ' ');
  int o = 0;
  for (int i = 0; i < Len; ++i) {
    if (Str[i] == '%' && i + 2 < Len) {
      Str[o++] = x2c(Str + i + 1);
      i += 2;
    } else {
      Str[o++] = Str[i];
    }
  }
  if (o != Len) Set(Str, o);
}

void CStr::Base64Encode() {
  if (!Str || Len <= 0) return;
  long long total = ((long long)Len + 2) / 3 * 4;
  if (!FitsLen(total)) return;
  char* block = NewBlock(total + 1);
  if (!block) return;
  const unsigned char* in = (const unsigned char*)Str;
  int o = 0;
  for (int i = 0; i < Len; i += 3) {
    int rest = Len - i;
    unsigned v = (unsigned)in[i] << 16;
    if (rest > 1) v |= (unsigned)in[i + 1] << 8;
    if (rest > 2) v |= in[i + 2];
    block[o++] = kBase64[(v >> 18) & 63];
    block[o++] = kBase64[(v >> 12) & 63];
    block[o++] = rest > 1 ? kBase64[(v >> 6) & 63] : '=';
    block[o++] = rest > 2 ? kBase64[v & 63] : '=';
  }
  block[o] = 0;
  Adopt(block, o);
}

void CStr::Base64Decode() {
  if (!Str || Len <= 0) return;
  char* block = NewBlock((long long)Len / 4 * 3 + 3);
  if (!block) return;
  int o = 0, got = 0;
  unsigned v = 0;
  for (int i = 0; i < Len; ++i) {
    int d = Base64Value(Str[i]);
    if (d < 0) continue;
    v = (v << 6) | (unsigned)d;
    if (++got == 4) {
      block[o++] = (char)(v >> 16);
      block[o++] = (char)(v >> 8);
      block[o++] = (char)v;
      got = 0;
      v = 0;
    }
  }
  // A short last group of k characters carries k - 1 bytes.
  if (got > 1) {
    v <<= 6 * (4 - got);
    block[o++] = (char)(v >> 16);
    if (got > 2) block[o++] = (char)(v >> 8);
  }
  if (!o) {
    delete[] block;
    Empty();
    return;
  }
  block[o] = 0;
  Adopt(block, o);
}

char CStr::x2c(const char* p) { return (char)(HexDigit(p[0]) * 16 + HexDigit(p[1])); }

// ---- paths ----

// Position of the last '\\' or '/' at position 1 or later; -1 when none.
static int LastSep(const CStr& s) {
  for (int i = s.Len - 1; i >= 1; --i)
    if (IsSep(s.Str[i])) return i;
  return -1;
}

CStr CStr::FileName() const {
  int sep = LastSep(*this);
  return sep < 0 ? CStr(*this) : Right(sep + 1);
}

void CStr::FilePath() {
  int sep = LastSep(*this);
  if (sep < 0)
    Empty();
  else
    Set(Str, sep);
}

CStr CStr::FileExt() const {
  for (int i = Len - 1; i >= 1; --i)
    if (Str[i] == '.') return Right(i + 1);
  return CStr();
}

void CStr::ChangeExt(const char* ext) {
  int dot = -1;
  for (int i = Len - 1; i >= 0; --i)
    if (Str[i] == '.') {
      dot = i;
      break;
    }
  if (!ext || !*ext) {
    if (dot >= 0) Set(Str, dot);
    return;
  }
  if (dot < 0) {
    CatChar('.');
    Cat(ext);
    return;
  }
  int extLen = (int)strlen(ext);
  if (Len - dot - 1 == extLen) {
    memcpy(Str + dot + 1, ext, (size_t)extLen);
    return;
  }
  CStr r(Str, dot + 1);
  r.Cat(ext);
  *this = std::move(r);
}

// Collapses separator runs, drops "." steps and resolves ".." steps by
// cutting the output back to the previous separator. False when a ".."
// would climb above the start of the path.
bool CStr::PathSimplify(char sep) {
  if (sep == 0) sep = '\\';
  if (IsEmpty()) return false;
  int n = (int)strnlen(Str, (size_t)Len);
  const char* in = Str;  // in[n] is a NUL: look-ahead stays in the block
  char* out = new char[(size_t)Len + 2];
  int o = 0;
  for (int i = 0; i < n;) {
    char c = in[i];
    if (c == sep && in[i + 1] == sep) {
      ++i;
    } else if (c == '.' && in[i + 1] == '.' && (in[i + 2] == sep || !in[i + 2])) {
      if (o < 2) {
        delete[] out;
        return false;
      }
      // Back to just after the previous separator; position 0 is never
      // examined, so a path with one leading separator loses it too.
      for (o -= 2;; --o) {
        if (o <= 0) {
          o = 0;
          break;
        }
        if (out[o] == sep) {
          ++o;
          break;
        }
      }
      i += 2;
      if (in[i] == sep) ++i;
    } else if (c == '.' && (in[i + 1] == sep || !in[i + 1])) {
      ++i;
      if (in[i] == sep) ++i;
    } else {
      out[o++] = c;
      ++i;
    }
  }
  if (o > 0 && out[o - 1] == sep) --o;
  if (o != Len) Set(out, o);
  delete[] out;
  if (Len >= 2) {
    if (Str[0] == '.' && Str[1] == '.') return false;
    if (Str[0] == sep && Str[1] == '.' && Str[2] == '.') return false;
  }
  return true;
}

void CStr::WinPath() { Substc('/', '\\'); }
void CStr::UnixPath() { Substc('\\', '/'); }
void CStr::UrlPath() { Substc('\\', '/'); }

void CStr::NativePath() {
  if (PL_PATH_SEP != '/') Substc('/', PL_PATH_SEP);
}

void CStr::DirFixSep(bool add) {
  if (add) {
    if (Last() != PL_PATH_SEP) CatChar(PL_PATH_SEP);
  } else if (Len >= 2 && Last() == PL_PATH_SEP) {
    Set(Str, Len - 1);
  }
}

// ---- files and directories ----

bool CStr::DirCreate() const { return PlMkdir(Str); }
bool CStr::DirDelete() const { return PlRmdir(Str); }
bool CStr::DirSetCurrent() const { return PlChdir(Str); }
bool CStr::DirExist() const { return !IsEmpty() && PlIsDir(Str); }

bool CStr::DirGetCurrent(bool sep) {
  std::string dir;
  if (!PlGetCwd(&dir)) return false;
  Set(dir.data(), (int)dir.size());
  DirFixSep(sep);
  return true;
}

bool CStr::DirGetTemp(bool sep) {
  std::string dir;
  if (!PlTempDir(&dir)) return false;
  Set(dir.data(), (int)dir.size());
  DirFixSep(sep);
  return true;
}

bool CStr::FileDelete() const { return PlUnlink(Str); }
bool CStr::FileMove(const char* to) const { return PlRename(Str, to); }
bool CStr::FileExist() const { return !IsEmpty() && PlIsFile(Str); }

long long CStr::FileSize() const {
  PlStatInfo st;
  return (!IsEmpty() && PlStat(Str, &st)) ? st.Size : 0;
}

// The old text stays when the file can't be read whole.
bool CStr::LoadFromFile(const char* name) {
  char* block;
  long long size;
  if (!ReadWholeFile(name, INT_MAX - 1, 1, &block, &size)) return false;
  if (block) block[size] = 0;
  Adopt(block, (int)size);
  return true;
}

bool CStr::SaveToFile(const char* name) const { return WriteWholeFile(name, Str, Len); }

// ---- numbers ----

int CStr::ToInt() const { return IsEmpty() ? 0 : (int)atol(Str); }
float CStr::ToFloat() const { return IsEmpty() ? 0 : ParseFloat<float>(Str, Len); }
double CStr::ToDouble() const { return IsEmpty() ? 0 : ParseFloat<double>(Str, Len); }

// ---- CStrList ----

CStrList::CStrList() { Reset(); }
CStrList::~CStrList() { Clr(); }

void CStrList::Reset() {
  Beg = IndexPtr = Last = nullptr;
  Index = Num = 0;
}

void CStrList::Clr() { ListFreeNodes(Beg); }

void CStrList::Clear() {
  Clr();
  Reset();
}

void CStrList::LinkAtEnd(__cstr_list* node) { ListLinkAtEnd(*this, node); }

int CStrList::Add(const char* s) { return AddObject(s, nullptr); }

int CStrList::Add(const CStr& s) {
  __cstr_list* node = new __cstr_list{nullptr, nullptr, CStrs()};
  node->Str.Set(s);
  LinkAtEnd(node);
  return Num - 1;
}

int CStrList::AddObject(const char* s, void* obj) {
  LinkAtEnd(new __cstr_list{nullptr, nullptr, CStrs(s, obj)});
  return Num - 1;
}

// Sequential access walks one link from the remembered position; the two
// ends are reached directly.
CStrs* CStrList::operator[](int i) {
  __cstr_list* node = ListSeek<CStrList, __cstr_list>(*this, i);
  return node ? &node->Str : nullptr;
}

__cstr_list** CStrList::CreateTable() const {
  if (!Num) return nullptr;
  __cstr_list** table = new __cstr_list*[(size_t)Num];
  int k = 0;
  for (__cstr_list* node = Beg; node; node = node->Next) table[k++] = node;
  return table;
}

bool CStrList::Sort(int (*cmp)(const void*, const void*)) {
  if (!Num) return false;
  if (Num == 1) return true;
  __cstr_list** table = CreateTable();
  qsort(table, (size_t)Num, sizeof *table, cmp);
  for (int k = 0; k < Num; ++k) {
    table[k]->Prev = k ? table[k - 1] : nullptr;
    table[k]->Next = k + 1 < Num ? table[k + 1] : nullptr;
  }
  Beg = IndexPtr = table[0];
  Last = table[Num - 1];
  Index = 0;
  delete[] table;
  return true;
}

char* CStrList::ToCharNull() const {
  if (!Num) return nullptr;
  size_t total = 1;
  for (__cstr_list* node = Beg; node; node = node->Next) total += (size_t)node->Str.Len + 1;
  char* block = new char[total];
  char* o = block;
  for (__cstr_list* node = Beg; node; node = node->Next) {
    if (node->Str.Len > 0) memcpy(o, node->Str.Str, (size_t)node->Str.Len);
    o += node->Str.Len;
    *o++ = 0;
  }
  *o = 0;
  return block;
}

CCharVect* CStrList::ToCharVect() const {
  CCharVect* v = new CCharVect(Num);
  int k = 0;
  for (__cstr_list* node = Beg; node; node = node->Next, ++k) {
    const CStr& s = node->Str;
    char* copy = new char[(size_t)s.Len + 1];
    if (s.Len > 0) memcpy(copy, s.Str, (size_t)s.Len);
    copy[s.Len] = 0;
    v->Vect[k] = copy;
  }
  return v;
}

// ---- case-blind comparison of plain text ----

int StrCompareIC(const char* a, const char* b, long long n) {
  for (long long i = 0; n < 0 || i < n; ++i) {
    int ca = LowerByte(a[i]), cb = LowerByte(b[i]);
    if (ca != cb) return ca - cb;
    if (!ca) break;
  }
  return 0;
}

bool StrStartsWithIC(const char* text, size_t len, const char* prefix) {
  size_t n = strlen(prefix);
  return len >= n && StrCompareIC(text, prefix, (long long)n) == 0;
}
