// The formatting engine. It builds each conversion in a fixed work area (the
// width and precision caps keep every conversion inside it) and hands the
// text to an output function; QsIntPrintf's output function appends to a
// buffer that grows on the heap.
#include "cprintf.h"

#include <cmath>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "cstr.h"

namespace {

const int kMaxWidth = 990;
const int kMaxPrecision = 960;
const int kMaxFloatPrecision = 990;
// Largest conversion: a width of 990, or a fixed-point number of at most 970
// digits plus sign, point and exponent. Leaves a safety margin.
const int kWorkSize = 1100;
// Escaped %q/%Q text up to this size is built on the stack.
const int kEscapeStackSize = 1000;
// A double holds about 16 meaningful decimal digits; beyond them the engine
// writes zeros instead of binary noise.
const int kSignificantDigits = 16;
const int kExponentLimit = 350;
// Beyond this many digits fixed-point text would overflow the work area.
const int kFixedDigitLimit = 970;

enum Kind : unsigned char {
  KIND_CSTR,       // const CStr*
  KIND_INTEGER,
  KIND_STRING,
  KIND_HEAPSTRING, // string released after output
  KIND_SQLESCAPE,  // quotes doubled
  KIND_SQLQUOTE,   // quotes doubled, enclosed in quotes
  KIND_CHAR,
  KIND_FIXED,
  KIND_EXPONENT,
  KIND_GENERAL,
  KIND_COUNT,      // %n
  KIND_PERCENT,
  KIND_POINTER,
};

const unsigned char CONV_SIGNED = 1;
const unsigned char CONV_INTERNAL = 2;
const unsigned char CONV_STRING = 4;  // precision is a length, not capped

// Digits and letters are picked by an offset into this string: upper-case
// digits at 0, lower-case at 16; the exponent letter is the entry at the
// row's offset ('E' at 14, 'e' at 30).
const char kDigitChars[] = "0123456789ABCDEF0123456789abcdef";
// '#' prefixes by offset: 0 none, 1 "0", 3 "0x", 6 "0X".
const char kPrefixChars[] = "\0" "0\0" "0x\0" "0X";

struct Conversion {
  char letter;
  unsigned char radix;
  unsigned char flags;
  Kind kind;
  unsigned char charOffset;
  unsigned char prefixOffset;
};

const Conversion kConversions[] = {
    {'a', 0, CONV_STRING, KIND_CSTR, 0, 0},
    {'d', 10, CONV_SIGNED, KIND_INTEGER, 0, 0},
    {'s', 0, CONV_STRING, KIND_STRING, 0, 0},
    {'S', 0, CONV_STRING, KIND_STRING, 0, 0},
    {'z', 0, CONV_STRING | CONV_INTERNAL, KIND_HEAPSTRING, 0, 0},
    {'q', 0, CONV_STRING, KIND_SQLESCAPE, 0, 0},
    {'Q', 0, CONV_STRING, KIND_SQLQUOTE, 0, 0},
    {'c', 0, 0, KIND_CHAR, 0, 0},
    {'o', 8, 0, KIND_INTEGER, 0, 1},
    {'u', 10, 0, KIND_INTEGER, 0, 0},
    {'x', 16, 0, KIND_INTEGER, 16, 3},
    {'X', 16, 0, KIND_INTEGER, 0, 6},
    {'f', 0, CONV_SIGNED, KIND_FIXED, 30, 0},  // 'e' when too long for fixed form
    {'e', 0, CONV_SIGNED, KIND_EXPONENT, 30, 0},
    {'E', 0, CONV_SIGNED, KIND_EXPONENT, 14, 0},
    {'g', 0, CONV_SIGNED, KIND_GENERAL, 30, 0},
    {'G', 0, CONV_SIGNED, KIND_GENERAL, 14, 0},
    {'i', 10, CONV_SIGNED, KIND_INTEGER, 0, 0},
    {'n', 0, 0, KIND_COUNT, 0, 0},
    {'%', 0, 0, KIND_PERCENT, 0, 0},
    {'p', 16, 0, KIND_POINTER, 16, 3},
};

const Conversion* FindConversion(char letter, bool internal) {
  for (const Conversion& c : kConversions) {
    if (c.letter != letter) continue;
    if ((c.flags & CONV_INTERNAL) && !internal) return nullptr;
    return &c;
  }
  return nullptr;
}

// Flags, width, precision and length of one conversion.
struct Directive {
  bool left = false, plus = false, blank = false, alternate = false, zeroPad = false;
  int width = 0;
  int precision = -1;  // -1: none given
  int longness = 0;    // 0 int, 1 long, 2 long long
};

class Formatter {
 public:
  Formatter(QS_OUTPUT out, void* sink, bool internal, va_list ap)
      : out_(out), sink_(sink), internal_(internal) {
    va_copy(args_, ap);
  }
  ~Formatter() { va_end(args_); }
  Formatter(const Formatter&) = delete;
  Formatter& operator=(const Formatter&) = delete;

  int Run(const char* fmt);

 private:
  void Emit(const char* text, int n) {
    if (n <= 0) return;
    out_(sink_, text, n);
    count_ = count_ > INT_MAX - n ? INT_MAX : count_ + n;  // saturate, never wrap
  }
  void EmitBlanks(int n);
  void EmitPadded(const Directive& d, const char* text, int n);

  // Parses flags to length after a '%'; false when the format ends first.
  bool ParseDirective(const char*& fmt, Directive& d);
  int ReadStarArgument() { return va_arg(args_, int); }

  void FormatInteger(const Directive& d, const Conversion& c);
  void FormatFloat(const Directive& d, const Conversion& c);
  void FormatString(const Directive& d, const Conversion& c);
  void FormatCStr(const Directive& d);
  void FormatChar(const Directive& d);
  // False when the escape buffer can't be allocated (the call fails).
  bool FormatSql(const Directive& d, const Conversion& c);

  QS_OUTPUT out_;
  void* sink_;
  bool internal_;
  va_list args_;
  int count_ = 0;
};

void Formatter::EmitBlanks(int n) {
  static const char kBlanks[] = "                                ";
  const int chunk = (int)sizeof(kBlanks) - 1;
  while (n > 0) {
    int k = n < chunk ? n : chunk;
    Emit(kBlanks, k);
    n -= k;
  }
}

void Formatter::EmitPadded(const Directive& d, const char* text, int n) {
  int pad = d.width - n;
  if (pad > 0 && !d.left) EmitBlanks(pad);
  Emit(text, n);
  if (pad > 0 && d.left) EmitBlanks(pad);
}

bool Formatter::ParseDirective(const char*& fmt, Directive& d) {
  for (;; fmt++) {
    char ch = *fmt;
    if (ch == '-') d.left = true;
    else if (ch == '+') d.plus = true;
    else if (ch == ' ') d.blank = true;
    else if (ch == '#') d.alternate = true;
    else if (ch == '0') d.zeroPad = true;
    else break;
  }

  if (*fmt == '*') {
    long long w = ReadStarArgument();
    if (w < 0) {
      d.left = true;
      w = -w;
    }
    d.width = w > kMaxWidth ? kMaxWidth : (int)w;
    fmt++;
  } else {
    int w = 0;
    for (; *fmt >= '0' && *fmt <= '9'; fmt++) {
      if (w <= kMaxWidth) w = w * 10 + (*fmt - '0');
    }
    d.width = w > kMaxWidth ? kMaxWidth : w;
  }

  if (*fmt == '.') {
    fmt++;
    long long p = 0;
    if (*fmt == '*') {
      p = ReadStarArgument();
      if (p < 0) p = -p;
      fmt++;
    } else {
      for (; *fmt >= '0' && *fmt <= '9'; fmt++) {
        if (p <= INT_MAX / 10) p = p * 10 + (*fmt - '0');
      }
    }
    d.precision = p > INT_MAX ? INT_MAX : (int)p;
  }

  // 'l' means the platform's long, as the caller's own printf would read it:
  // 64 bits on Linux, 32 on Windows. Reading a fixed 32 bits instead would
  // misread every long passed here on Linux.
  if (*fmt == 'l') {
    d.longness = 1;
    fmt++;
    if (*fmt == 'l') {
      d.longness = 2;
      fmt++;
    }
  } else if (*fmt == 'L') {
    d.longness = 2;
    fmt++;
  }
  return *fmt != 0;
}

int Formatter::Run(const char* fmt) {
  if (!fmt) return 0;
  while (*fmt) {
    const char* literal = fmt;
    while (*fmt && *fmt != '%') fmt++;
    Emit(literal, (int)(fmt - literal));
    if (!*fmt) break;

    fmt++;  // the '%'
    Directive d;
    if (!ParseDirective(fmt, d)) {
      // The format ended inside a conversion: show the '%' and flag the
      // format as broken.
      Emit("%", 1);
      return -1;
    }
    char letter = *fmt++;
    const Conversion* c = FindConversion(letter, internal_);
    if (!c) {
      char unknown[2] = {'%', letter};
      Emit(unknown, 2);
      continue;
    }
    if (!(c->flags & CONV_STRING) && d.precision > kMaxPrecision) d.precision = kMaxPrecision;

    switch (c->kind) {
      case KIND_INTEGER:
      case KIND_POINTER:
        FormatInteger(d, *c);
        break;
      case KIND_FIXED:
      case KIND_EXPONENT:
      case KIND_GENERAL:
        FormatFloat(d, *c);
        break;
      case KIND_STRING:
      case KIND_HEAPSTRING:
        FormatString(d, *c);
        break;
      case KIND_CSTR:
        FormatCStr(d);
        break;
      case KIND_CHAR:
        FormatChar(d);
        break;
      case KIND_SQLESCAPE:
      case KIND_SQLQUOTE:
        if (!FormatSql(d, *c)) return -1;
        break;
      case KIND_COUNT: {
        int* where = va_arg(args_, int*);
        if (where) *where = count_;
        break;
      }
      case KIND_PERCENT:
        EmitPadded(d, "%", 1);
        break;
    }
  }
  return count_;
}

void Formatter::FormatInteger(const Directive& d, const Conversion& c) {
  bool isSigned = (c.flags & CONV_SIGNED) != 0;
  uint64_t magnitude;
  char sign = 0;
  if (c.kind == KIND_POINTER) {
    magnitude = (uint64_t)(uintptr_t)va_arg(args_, void*);
  } else if (isSigned) {
    long long v;
    if (d.longness == 2) v = va_arg(args_, long long);
    else if (d.longness == 1) v = va_arg(args_, long);
    else v = va_arg(args_, int);
    // Negating through unsigned arithmetic keeps the most negative value
    // well defined.
    if (v < 0) {
      magnitude = 0 - (uint64_t)v;
      sign = '-';
    } else {
      magnitude = (uint64_t)v;
      if (d.plus) sign = '+';
      else if (d.blank) sign = ' ';
    }
  } else {
    if (d.longness == 2) magnitude = va_arg(args_, unsigned long long);
    else if (d.longness == 1) magnitude = va_arg(args_, unsigned long);
    else magnitude = va_arg(args_, unsigned int);
  }

  bool alternate = d.alternate && magnitude != 0;
  int precision = d.precision;
  if (d.zeroPad && !d.left) {
    int wanted = d.width - (sign ? 1 : 0);
    if (precision < wanted) precision = wanted;
  }

  // Built backwards from the end of the work area.
  char work[kWorkSize];
  char* end = work + kWorkSize;
  char* p = end;
  const char* digits = kDigitChars + c.charOffset;
  do {
    *--p = digits[magnitude % c.radix];
    magnitude /= c.radix;
  } while (magnitude);
  while (end - p < precision) *--p = '0';
  if (sign) *--p = sign;
  if (alternate && c.prefixOffset) {
    const char* prefix = kPrefixChars + c.prefixOffset;
    // An octal number already starting with 0 needs no second one.
    if (*p != prefix[0]) {
      size_t n = strlen(prefix);
      p -= n;
      memcpy(p, prefix, n);
    }
  }
  EmitPadded(d, p, (int)(end - p));
}

// Hands out the leading digit of *value (kept in [0, 10)) and moves the next
// one into the units place; past the budget of significant digits only zeros
// come out.
char NextDigit(double* value, int* budget) {
  if (*budget <= 0) return '0';
  (*budget)--;
  int digit = (int)*value;
  if (digit < 0) digit = 0;
  if (digit > 9) digit = 9;
  *value = (*value - digit) * 10.0;
  return (char)('0' + digit);
}

// Scales a positive value into [1, 10); false when its decimal exponent lies
// beyond the supported range (this includes infinity).
bool Normalise(double* value, int* exponent) {
  double v = *value;
  int e = 0;
  while (v >= 1e8 && e <= kExponentLimit) { v *= 1e-8; e += 8; }
  while (v >= 10.0 && e <= kExponentLimit) { v *= 0.1; e++; }
  while (v < 1e-8 && e >= -kExponentLimit) { v *= 1e8; e -= 8; }
  while (v < 1.0 && e >= -kExponentLimit) { v *= 10.0; e--; }
  *value = v;
  *exponent = e;
  return e <= kExponentLimit && e >= -kExponentLimit;
}

void Formatter::FormatFloat(const Directive& d, const Conversion& c) {
  double value = va_arg(args_, double);
  int precision = d.precision < 0 ? 6 : d.precision;
  if (precision > kMaxFloatPrecision) precision = kMaxFloatPrecision;

  char sign = 0;
  if (value < 0) {
    value = -value;
    sign = '-';
  } else if (d.plus) {
    sign = '+';
  } else if (d.blank) {
    sign = ' ';
  }
  if (std::isnan(value)) {
    EmitPadded(d, "NaN", 3);
    return;
  }

  Kind kind = c.kind;
  if (kind == KIND_GENERAL && precision > 0) precision--;  // counts digits after the first
  double rounder = 0.5;
  for (int i = precision; i > 0; i--) rounder *= 0.1;

  // Fixed form rounds at a decimal place, the others at a significant digit.
  if (kind == KIND_FIXED) value += rounder;
  int exponent = 0;
  if (value > 0.0 && !Normalise(&value, &exponent)) {
    EmitPadded(d, "NaN", 3);
    return;
  }
  if (kind != KIND_FIXED) {
    value += rounder;
    if (value >= 10.0) {
      value *= 0.1;
      exponent++;
    }
  }

  bool trimZeros = false;
  if (kind == KIND_GENERAL) {
    trimZeros = !d.alternate;
    if (exponent < -4 || exponent > precision) {
      kind = KIND_EXPONENT;
    } else {
      precision -= exponent;
      kind = KIND_FIXED;
    }
  }
  if (kind == KIND_FIXED && exponent + precision >= kFixedDigitLimit) kind = KIND_EXPONENT;

  char work[kWorkSize];
  char* p = work;
  if (sign) *p++ = sign;
  int budget = kSignificantDigits;
  bool point = precision > 0 || d.alternate;
  if (kind == KIND_FIXED) {
    if (exponent < 0) {
      *p++ = '0';
    } else {
      for (int e = exponent; e >= 0; e--) *p++ = NextDigit(&value, &budget);
    }
    if (point) *p++ = '.';
    // Zeros between the point and the first significant digit.
    for (int e = exponent + 1; e < 0 && precision > 0; e++, precision--) *p++ = '0';
    while (precision-- > 0) *p++ = NextDigit(&value, &budget);
  } else {
    *p++ = NextDigit(&value, &budget);
    if (point) *p++ = '.';
    while (precision-- > 0) *p++ = NextDigit(&value, &budget);
  }
  if (trimZeros && point) {
    while (p[-1] == '0') p--;
    if (p[-1] == '.') p--;
  }
  if (kind == KIND_EXPONENT) {
    *p++ = kDigitChars[c.charOffset];
    int e = exponent;
    if (e < 0) {
      *p++ = '-';
      e = -e;
    } else {
      *p++ = '+';
    }
    if (e >= 100) {
      *p++ = (char)('0' + e / 100);
      e %= 100;
    }
    *p++ = (char)('0' + e / 10);
    *p++ = (char)('0' + e % 10);
  }

  int length = (int)(p - work);
  if (d.zeroPad && !d.left && length < d.width) {
    // Zeros go between the sign and the digits.
    int signLength = sign ? 1 : 0;
    int shift = d.width - length;
    memmove(work + signLength + shift, work + signLength, (size_t)(length - signLength));
    memset(work + signLength, '0', (size_t)shift);
    length = d.width;
  }
  EmitPadded(d, work, length);
}

// Length of s, looking at no more than limit characters (limit < 0: none).
int BoundedLength(const char* s, int limit) {
  if (limit < 0) return (int)strlen(s);
  const void* nul = memchr(s, 0, (size_t)limit);
  return nul ? (int)((const char*)nul - s) : limit;
}

// Converts a wide string to the multibyte encoding of the current locale.
// Characters the locale cannot express become '?' rather than failing the
// whole string. Returns a heap block (NULL when out of memory).
char* WideToMultibyte(const wchar_t* ws) {
  size_t n = wcslen(ws);
  size_t room = n * MB_CUR_MAX + 1;
  char* out = static_cast<char*>(malloc(room));
  if (!out) return nullptr;
  if (wcstombs(out, ws, room) != (size_t)-1) return out;

  char* p = out;
  mbstate_t state;
  memset(&state, 0, sizeof state);
  for (size_t i = 0; i < n; i++) {
    size_t k = wcrtomb(p, ws[i], &state);
    if (k == (size_t)-1) {
      memset(&state, 0, sizeof state);
      *p++ = '?';
    } else {
      p += k;
    }
  }
  *p = 0;
  return out;
}

void Formatter::FormatString(const Directive& d, const Conversion& c) {
  char* converted = nullptr;
  const char* text;
  if (d.longness && c.kind == KIND_STRING) {
    const wchar_t* ws = va_arg(args_, const wchar_t*);
    if (ws) converted = WideToMultibyte(ws);
    text = converted;
  } else {
    text = va_arg(args_, const char*);
  }
  if (text) {
    EmitPadded(d, text, BoundedLength(text, d.precision));
  } else {
    EmitPadded(d, "", 0);
  }
  free(converted);
  if (c.kind == KIND_HEAPSTRING) free(const_cast<char*>(text));
}

void Formatter::FormatCStr(const Directive& d) {
  const CStr* s = va_arg(args_, const CStr*);
  int n = (s && s->Str) ? s->Len : 0;
  if (d.precision >= 0 && n > d.precision) n = d.precision;
  EmitPadded(d, n > 0 ? s->Str : "", n);
}

void Formatter::FormatChar(const Directive& d) {
  char work[kWorkSize];
  char ch = (char)va_arg(args_, int);
  int n = d.precision >= 0 ? d.precision : 1;
  memset(work, ch, (size_t)n);
  EmitPadded(d, work, n);
}

bool Formatter::FormatSql(const Directive& d, const Conversion& c) {
  const char* text = va_arg(args_, const char*);
  bool quoted = c.kind == KIND_SQLQUOTE;
  if (!text) {
    const char* shown = quoted ? "NULL" : "(NULL)";
    EmitPadded(d, shown, (int)strlen(shown));
    return true;
  }
  size_t length = strlen(text);
  size_t quotes = 0;
  for (size_t i = 0; i < length; i++) quotes += text[i] == '\'';
  size_t needed = length + quotes + 3;  // both enclosing quotes and a NUL

  char stackBuf[kEscapeStackSize];
  stackBuf[0] = 0;  // quiets a false "uninitialised" warning for empty text
  char* buf = stackBuf;
  if (needed > sizeof stackBuf) {
    if (needed > (size_t)INT_MAX) return false;
    buf = static_cast<char*>(malloc(needed));
    if (!buf) return false;
  }
  char* p = buf;
  if (quoted) *p++ = '\'';
  for (size_t i = 0; i < length; i++) {
    *p++ = text[i];
    if (text[i] == '\'') *p++ = '\'';
  }
  if (quoted) *p++ = '\'';
  EmitPadded(d, buf, (int)(p - buf));
  if (buf != stackBuf) free(buf);
  return true;
}

// State of QsIntPrintf's output: the caller's buffer until the text outgrows
// it, a heap block after that.
struct Accumulator {
  char* initial;
  char* buf;
  int count;
  int size;
  QS_REALLOC grow;
  bool failed;  // growing failed: buf is NULL and output stops
};

bool Grow(Accumulator* a, int n) {
  long long newSize = (long long)a->count + 2LL * n + 1;
  if (newSize > INT_MAX) newSize = (long long)a->count + n + 1;
  char* fresh = nullptr;
  if (newSize <= INT_MAX) {
    if (a->buf == a->initial) {
      fresh = static_cast<char*>(a->grow(nullptr, (size_t)newSize));
      if (fresh && a->count > 0) memcpy(fresh, a->buf, (size_t)a->count);
    } else {
      fresh = static_cast<char*>(a->grow(a->buf, (size_t)newSize));
    }
  }
  if (!fresh) {
    if (a->buf != a->initial) free(a->buf);
    a->buf = nullptr;
    a->failed = true;
    return false;
  }
  a->buf = fresh;
  a->size = (int)newSize;
  return true;
}

void AccumulatorAppend(void* sink, const char* text, int n) {
  Accumulator* a = static_cast<Accumulator*>(sink);
  if (a->failed || n <= 0) return;
  if ((long long)a->count + n + 1 > a->size) {
    if (a->grow) {
      if (!Grow(a, n)) return;
    } else {
      n = a->size - a->count - 1;
      if (n <= 0) return;
    }
  }
  memcpy(a->buf + a->count, text, (size_t)n);
  a->count += n;
  a->buf[a->count] = 0;
}

}  // namespace

int QsVxPrintf(QS_OUTPUT out, void* sink, int internal, const char* fmt, va_list ap) {
  Formatter f(out, sink, internal != 0, ap);
  return f.Run(fmt);
}

char* QsIntPrintf(QS_REALLOC realloc_fn, int internal, char* buf, int bufsize, const char* fmt, va_list ap) {
  if (bufsize < 0 || !buf) bufsize = 0;
  Accumulator a;
  a.initial = buf;
  a.buf = buf;
  a.count = 0;
  a.size = bufsize;
  a.grow = realloc_fn;
  a.failed = false;
  if (buf && bufsize > 0) buf[0] = 0;

  QsVxPrintf(AccumulatorAppend, &a, internal, fmt, ap);
  if (!realloc_fn) return buf;
  if (a.failed) return nullptr;

  if (a.buf == a.initial) {
    // The text fitted the caller's buffer, which the caller can't free.
    char* exact = static_cast<char*>(realloc_fn(nullptr, (size_t)a.count + 1));
    if (!exact) return nullptr;
    if (a.count > 0) memcpy(exact, a.buf, (size_t)a.count);
    exact[a.count] = 0;
    return exact;
  }
  if (a.size - (a.count + 1) > 10) {
    char* shrunk = static_cast<char*>(realloc_fn(a.buf, (size_t)a.count + 1));
    if (shrunk) a.buf = shrunk;
  }
  return a.buf;
}

char* QsVmPrintf(const char* fmt, va_list ap) {
  char local[256];
  return QsIntPrintf(realloc, 0, local, (int)sizeof local, fmt, ap);
}

char* QsMPrintf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char* r = QsVmPrintf(fmt, ap);
  va_end(ap);
  return r;
}

char* QsSnPrintf(int size, char* buf, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  QsIntPrintf(nullptr, 0, buf, size, fmt, ap);
  va_end(ap);
  return buf;
}
