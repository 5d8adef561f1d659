// The formatting engine: conversions, flags, floating point, SQL quoting and
// the growing result buffer.
#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cprintf.h"
#include "cstr.h"

namespace {

std::string Fmt(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char* s = QsVmPrintf(fmt, ap);
  va_end(ap);
  EXPECT_NE(s, nullptr);
  std::string r = s ? s : "";
  free(s);
  return r;
}

void Append(void* sink, const char* text, int n) { static_cast<std::string*>(sink)->append(text, (size_t)n); }

// The formatter's count, its output collected in *out; internal mode on.
int Count(std::string* out, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = QsVxPrintf(Append, out, 1, fmt, ap);
  va_end(ap);
  return n;
}

TEST(QsPrintf, Integers) {
  EXPECT_EQ(Fmt("%d|%i|%u", -42, 17, 4000000000u), "-42|17|4000000000");
  EXPECT_EQ(Fmt("%d", INT_MIN), "-2147483648");
  EXPECT_EQ(Fmt("%lld", LLONG_MIN), "-9223372036854775808");
  EXPECT_EQ(Fmt("%llu %Lx", ULLONG_MAX, 0x123456789abcdefLL), "18446744073709551615 123456789abcdef");
  EXPECT_EQ(Fmt("%x %X %o", 0xbeef, 0xbeef, 8), "beef BEEF 10");
  EXPECT_EQ(Fmt("%-5d|%5d|%05d|%.3d", 42, 42, -42, 7), "42   |   42|-0042|007");
  EXPECT_EQ(Fmt("%+d %+d % d", 5, -5, 5), "+5 -5  5");
  EXPECT_EQ(Fmt("%*d|%-*d|%*d", 4, 1, 3, 2, -3, 3), "   1|2  |3  ");
  EXPECT_EQ(Fmt("%#x", 255), "0xff");
  EXPECT_EQ(Fmt("%#x", 0), "0");  // zero switches '#' off
  EXPECT_EQ(Fmt("%#o", 8), "010");
  EXPECT_EQ(Fmt("%#.3o", 8), "010");  // already starts with 0: not doubled
  EXPECT_EQ(Fmt("%#8x|", 255), "    0xff|");
}

TEST(QsPrintf, FixedPoint) {
  EXPECT_EQ(Fmt("%5.2f", 3.14159), " 3.14");
  EXPECT_EQ(Fmt("%.0f|%#.0f", 2.5, 2.5), "3|3.");
  EXPECT_EQ(Fmt("%.3f", -0.0005), "-0.001");
  EXPECT_EQ(Fmt("%.4f", 0.00123), "0.0012");
  EXPECT_EQ(Fmt("%010.3f|%-9.1f|%+.1f", -3.14159, 2.0, 2.0), "-00003.142|2.0      |+2.0");
  EXPECT_EQ(Fmt("%.1f", 1e15), "1000000000000000.0");
  // Only 16 significant digits come out; after them zeros.
  EXPECT_EQ(Fmt("%.20f", 0.1), "0.10000000000000000000");
  EXPECT_EQ(Fmt("%.0f", 12345678901234567890.0), "12345678901234560000");
}

TEST(QsPrintf, ExponentAndGeneral) {
  EXPECT_EQ(Fmt("%e", 12345.678), "1.234568e+04");
  EXPECT_EQ(Fmt("%.2E", 0.000123), "1.23E-04");
  EXPECT_EQ(Fmt("%.2e", 9.999), "1.00e+01");  // rounding carries into the exponent
  EXPECT_EQ(Fmt("%e|%G", 1e300, 1e-300), "1.000000e+300|1E-300");
  EXPECT_EQ(Fmt("%g", 100000.0), "100000");
  EXPECT_EQ(Fmt("%g", 1000000.0), "1e+06");
  EXPECT_EQ(Fmt("%g", 1e-5), "1e-05");
  EXPECT_EQ(Fmt("%g|%g|%G", 1.5, 0.0, 123456789.0), "1.5|0|1.23457E+08");
  EXPECT_EQ(Fmt("%#g", 1.5), "1.50000");
  EXPECT_EQ(Fmt("%.3g", 0.0001234567), "0.000123");
  EXPECT_EQ(Fmt("%010.2e", -1.5), "-01.50e+00");
}

TEST(QsPrintf, OutOfRangeValuesPrintNaN) {
  double inf = 1e308 * 10.0;
  EXPECT_EQ(Fmt("%f|%e|%g", inf, -inf, inf - inf), "NaN|NaN|NaN");
  // Subnormals still lie within the exponent range.
  EXPECT_EQ(Fmt("%.2e", 1e-320), "1.00e-320");
}

TEST(QsPrintf, StringsAndCharacters) {
  EXPECT_EQ(Fmt("[%s][%S]", "abc", "def"), "[abc][def]");
  EXPECT_EQ(Fmt("[%s]", (char*)nullptr), "[]");
  EXPECT_EQ(Fmt("[%5s][%-5s][%.2s][%5.1s]", "ab", "cd", "xyz", "xyz"), "[   ab][cd   ][xy][    x]");
  // Precision bounds the read: an unterminated array is fine.
  char raw[3] = {'a', 'b', 'c'};
  EXPECT_EQ(Fmt("%.3s", raw), "abc");
  EXPECT_EQ(Fmt("[%.4c][%.0c][%3c]", 'x', 'y', 'z'), "[xxxx][][  z]");
  EXPECT_EQ(Fmt("100%%"), "100%");
}

TEST(QsPrintf, CStrArgument) {
  CStr name("lumetta"), empty;
  EXPECT_EQ(Fmt("<%a><%9a><%-9a><%.3a>", &name, &name, &name, &name), "<lumetta><  lumetta><lumetta  ><lum>");
  EXPECT_EQ(Fmt("<%a><%a>", &empty, (CStr*)nullptr), "<><>");
  CStr binary("a\0b", 3);  // the length counts, not the terminator
  std::string out;
  EXPECT_EQ(Count(&out, "%a", &binary), 3);
  EXPECT_EQ(out, std::string("a\0b", 3));
}

TEST(QsPrintf, SqlQuoting) {
  EXPECT_EQ(Fmt("%q", "it's"), "it''s");
  EXPECT_EQ(Fmt("%Q", "it's"), "'it''s'");
  EXPECT_EQ(Fmt("%q|%Q", (char*)nullptr, (char*)nullptr), "(NULL)|NULL");
  // Escaped text beyond the stack buffer goes through the heap.
  std::string quotes(3000, '\'');
  EXPECT_EQ(Fmt("%Q", quotes.c_str()), "'" + std::string(6000, '\'') + "'");
}

TEST(QsPrintf, CountPointerAndWideStrings) {
  int n1 = -1, n2 = -1;
  EXPECT_EQ(Fmt("ab%ncdef%n!", &n1, &n2), "abcdef!");
  EXPECT_EQ(n1, 2);
  EXPECT_EQ(n2, 6);
  EXPECT_EQ(Fmt("%p|%#p", (void*)0x1234abcd, (void*)0xff), "1234abcd|0xff");
  void* high = reinterpret_cast<void*>(~(uintptr_t)0);
  EXPECT_EQ(Fmt("%p", high), std::string(sizeof(void*) * 2, 'f'));

  EXPECT_EQ(Fmt("%ls|%.2ls|%ls", L"wide", L"wide", (wchar_t*)nullptr), "wide|wi|");
  // Tests run in the "C" locale, which can't express the accent: '?' instead.
  EXPECT_EQ(Fmt("%ls", L"h\u00e9!"), "h?!");
  if (setlocale(LC_CTYPE, "C.UTF-8")) {
    EXPECT_EQ(Fmt("%ls", L"h\u00e9"), "h\xc3\xa9");
    setlocale(LC_CTYPE, "C");
  }
}

TEST(QsPrintf, MalformedFormats) {
  EXPECT_EQ(Fmt("%y|%k"), "%y|%k");  // unknown conversions are copied
  EXPECT_EQ(Fmt("%z", "x"), "%z");   // %z needs internal mode
  EXPECT_EQ(Fmt("abc%"), "abc%");

  std::string out;
  EXPECT_EQ(Count(&out, "abc%"), -1);
  EXPECT_EQ(out, "abc%");
  EXPECT_EQ(Count(&out, "x%-5"), -1);  // ends inside a conversion
  EXPECT_EQ(Count(&out, "%d%s", 123, "45"), 5);
  // Internal mode: %z prints and frees (the leak checker sees to the latter).
  out.clear();
  Count(&out, "[%z][%z]", strdup("heap"), (char*)nullptr);
  EXPECT_EQ(out, "[heap][]");
}

TEST(QsPrintf, WidthAndPrecisionCaps) {
  EXPECT_EQ(Fmt("%2000d", 1).size(), 990u);
  EXPECT_EQ(Fmt("%.2000d", 1).size(), 960u);
  EXPECT_EQ(Fmt("%.2000c", 'a'), std::string(960, 'a'));
  EXPECT_EQ(Fmt("%.2000f", 1.0).size(), 962u);  // "1." and 960 digits
  // Strings are not capped.
  std::string big(5000, 'q');
  EXPECT_EQ(Fmt("%.4000s", big.c_str()).size(), 4000u);
  // Too many digits for fixed form: exponent form instead.
  std::string huge = Fmt("%.960f", 1e200);
  EXPECT_EQ(huge.substr(0, 4), "1.00");
  EXPECT_EQ(huge.substr(huge.size() - 5), "e+200");
}

// Records what the engine asks of its growth function.
std::vector<size_t> g_requests;
int g_failAfter = -1;

void* TrackingRealloc(void* p, size_t n) {
  if (g_failAfter >= 0 && (int)g_requests.size() >= g_failAfter) return nullptr;
  g_requests.push_back(n);
  return realloc(p, n);
}

char* Grow(char* initial, int size, const char* fmt, ...) {
  g_requests.clear();
  va_list ap;
  va_start(ap, fmt);
  char* r = QsIntPrintf(TrackingRealloc, 0, initial, size, fmt, ap);
  va_end(ap);
  return r;
}

TEST(QsIntPrintf, GrowthRule) {
  char initial[16];
  // Fits: copied out to a block of exactly count + 1.
  char* r = Grow(initial, sizeof initial, "short");
  ASSERT_NE(r, initial);
  EXPECT_STREQ(r, "short");
  EXPECT_EQ(g_requests, (std::vector<size_t>{6}));
  free(r);

  // "abc" then 20 characters: 3 + 2*20 + 1 = 44; then shrunk to 24 as 20
  // bytes would be spare.
  std::string twenty(20, 'x');
  r = Grow(initial, sizeof initial, "abc%s", twenty.c_str());
  EXPECT_EQ(std::string(r), "abc" + twenty);
  EXPECT_EQ(g_requests, (std::vector<size_t>{44, 24}));
  free(r);

  // Little spare: the heap block is kept as it is.
  r = Grow(initial, 4, "%s", "abcdefghij");  // 0 + 20 + 1 = 21, 10 spare
  EXPECT_STREQ(r, "abcdefghij");
  EXPECT_EQ(g_requests, (std::vector<size_t>{21}));
  free(r);

  // No initial buffer at all.
  r = Grow(nullptr, 0, "");
  EXPECT_STREQ(r, "");
  free(r);
}

TEST(QsIntPrintf, GrowthFailureGivesNull) {
  char initial[8];
  g_failAfter = 1;  // the first growth works, the second fails
  std::string text(100, 'y');
  char* r = Grow(initial, sizeof initial, "%s%s%s", text.c_str(), text.c_str(), text.c_str());
  g_failAfter = -1;
  EXPECT_EQ(r, nullptr);
}

TEST(QsPrintf, LongResults) {
  std::string a(300, 'a'), b(70000, 'b');
  EXPECT_EQ(Fmt("%s-%d-%s", a.c_str(), 7, b.c_str()), a + "-7-" + b);
  // Many pieces of literal text and conversions mixed.
  std::string fmt, expect;
  for (int i = 0; i < 3000; i++) fmt += "ab%%";
  for (int i = 0; i < 3000; i++) expect += "ab%";
  EXPECT_EQ(Fmt((fmt + "%d").c_str(), 5), expect + "5");
}

TEST(QsSnPrintf, Truncates) {
  char buf[8];
  memset(buf, '#', sizeof buf);
  EXPECT_EQ(QsSnPrintf(4, buf, "abcdef"), buf);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(buf[4], '#');
  QsSnPrintf(1, buf, "zzz");
  EXPECT_STREQ(buf, "");
  QsSnPrintf(sizeof buf, buf, "%s%s%s", "1234", "5678", "9");
  EXPECT_STREQ(buf, "1234567");
}

}  // namespace
