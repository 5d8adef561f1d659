// The formatting engine: conversions, flags, floating point, SQL quoting and
// the growing result buffer.
#include <gtest/gtest.h>

#include <climits>
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

TEST(QsPrintf, IntegersWidthsAndFlags) {
  EXPECT_EQ(Fmt("%d|%i|%u", -42, 17, 4000000000u), "-42|17|4000000000");
  EXPECT_EQ(Fmt("%d|%lld", INT_MIN, LLONG_MIN), "-2147483648|-9223372036854775808");
  // %ld and %lu take the platform's long, whatever its width.
  EXPECT_EQ(Fmt("%ld|%lu", LONG_MIN, ULONG_MAX), std::to_string(LONG_MIN) + "|" + std::to_string(ULONG_MAX));
  EXPECT_EQ(Fmt("%x %X %o", 0xbeef, 0xbeef, 8), "beef BEEF 10");
  EXPECT_EQ(Fmt("%-5d|%5d|%05d|%.3d", 42, 42, -42, 7), "42   |   42|-0042|007");
  EXPECT_EQ(Fmt("%+d %+d % d", 5, -5, 5), "+5 -5  5");
  EXPECT_EQ(Fmt("%*d|%-*d|%*d", 4, 1, 3, 2, -3, 3), "   1|2  |3  ");
  EXPECT_EQ(Fmt("%#x|%#x|%#o|%#.3o|%#8x|", 255, 0, 8, 8, 255), "0xff|0|010|010|    0xff|");
}

TEST(QsPrintf, FloatingPoint) {
  EXPECT_EQ(Fmt("%5.2f|%.0f|%#.0f", 3.14159, 2.5, 2.5), " 3.14|3|3.");
  EXPECT_EQ(Fmt("%.3f|%.4f", -0.0005, 0.00123), "-0.001|0.0012");
  EXPECT_EQ(Fmt("%010.3f|%-9.1f|%+.1f", -3.14159, 2.0, 2.0), "-00003.142|2.0      |+2.0");
  // Only 16 significant digits come out; after them zeros.
  EXPECT_EQ(Fmt("%.20f", 0.1), "0.10000000000000000000");
  EXPECT_EQ(Fmt("%.0f", 12345678901234567890.0), "12345678901234560000");
  EXPECT_EQ(Fmt("%e|%.2E|%.2e", 12345.678, 0.000123, 9.999), "1.234568e+04|1.23E-04|1.00e+01");
  EXPECT_EQ(Fmt("%e|%G|%.2e", 1e300, 1e-300, 1e-320), "1.000000e+300|1E-300|1.00e-320");
  EXPECT_EQ(Fmt("%g|%g|%g", 100000.0, 1000000.0, 1e-5), "100000|1e+06|1e-05");
  EXPECT_EQ(Fmt("%g|%g|%G|%#g", 1.5, 0.0, 123456789.0, 1.5), "1.5|0|1.23457E+08|1.50000");
  EXPECT_EQ(Fmt("%.3g|%010.2e", 0.0001234567, -1.5), "0.000123|-01.50e+00");
  double inf = 1e308 * 10.0;
  EXPECT_EQ(Fmt("%f|%e|%g", inf, -inf, inf - inf), "NaN|NaN|NaN");
}

TEST(QsPrintf, StringsCharactersAndCStr) {
  EXPECT_EQ(Fmt("[%s][%S][%s]", "abc", "def", (char*)nullptr), "[abc][def][]");
  EXPECT_EQ(Fmt("[%5s][%-5s][%.2s][%5.1s]", "ab", "cd", "xyz", "xyz"), "[   ab][cd   ][xy][    x]");
  char raw[3] = {'a', 'b', 'c'};  // precision bounds the read
  EXPECT_EQ(Fmt("%.3s", raw), "abc");
  EXPECT_EQ(Fmt("[%.4c][%.0c][%3c] 100%%", 'x', 'y', 'z'), "[xxxx][][  z] 100%");
  CStr name("lumetta"), empty;
  EXPECT_EQ(Fmt("<%a><%9a><%-9a><%.3a>", &name, &name, &name, &name), "<lumetta><  lumetta><lumetta  ><lum>");
  EXPECT_EQ(Fmt("<%a><%a>", &empty, (CStr*)nullptr), "<><>");
  CStr binary("a\0b", 3);  // the length counts, not the terminator
  std::string out;
  EXPECT_EQ(Count(&out, "%a", &binary), 3);
  EXPECT_EQ(out, std::string("a\0b", 3));
}

TEST(QsPrintf, SqlQuoting) {
  EXPECT_EQ(Fmt("%q|%Q", "it's", "it's"), "it''s|'it''s'");
  EXPECT_EQ(Fmt("%q|%Q", (char*)nullptr, (char*)nullptr), "(NULL)|NULL");
  std::string quotes(3000, '\'');  // escaped text beyond the stack buffer
  EXPECT_EQ(Fmt("%Q", quotes.c_str()), "'" + std::string(6000, '\'') + "'");
}

TEST(QsPrintf, MalformedFormatsAndCaps) {
  EXPECT_EQ(Fmt("%y|%k|%z|%", "x"), "%y|%k|%z|%");  // unknown, and %z outside internal mode
  std::string out;
  EXPECT_EQ(Count(&out, "abc%"), -1);
  EXPECT_EQ(out, "abc%");
  EXPECT_EQ(Count(&out, "x%-5"), -1);  // ends inside a conversion
  out.clear();
  EXPECT_EQ(Count(&out, "[%z][%z]", strdup("heap"), (char*)nullptr), 8);  // %z frees its text
  EXPECT_EQ(out, "[heap][]");

  EXPECT_EQ(Fmt("%2000d", 1).size(), 990u);
  EXPECT_EQ(Fmt("%.2000d", 1).size(), 960u);
  EXPECT_EQ(Fmt("%.2000f", 1.0).size(), 962u);
  std::string big(5000, 'q');  // strings are not capped
  EXPECT_EQ(Fmt("%.4000s", big.c_str()).size(), 4000u);
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

TEST(QsIntPrintf, GrowsPastTheFirstBufferAndShrinksSpareRoom) {
  char initial[16];
  struct {
    int size;
    std::string arg, expect;
    std::vector<size_t> requests;
  } cases[] = {
      {16, "short", "short", {6}},                                            // copied out exactly
      {16, std::string(20, 'x'), std::string(20, 'x'), {41, 21}},             // doubled, then shrunk
      {4, "abcdefghij", "abcdefghij", {21}},                                  // little spare: kept
      {16, std::string(70000, 'b'), std::string(70000, 'b'), {140001, 70001}},
  };
  for (auto& c : cases) {
    char* r = Grow(initial, c.size, "%s", c.arg.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_NE(r, initial);
    EXPECT_EQ(std::string(r), c.expect);
    EXPECT_EQ(g_requests, c.requests) << c.arg.size();
    free(r);
  }
  g_failAfter = 1;  // the first growth works, the second fails
  std::string text(100, 'y');
  EXPECT_EQ(Grow(initial, 8, "%s%s%s", text.c_str(), text.c_str(), text.c_str()), nullptr);
  g_failAfter = -1;
}

TEST(QsSnPrintf, Truncates) {
  char buf[8];
  memset(buf, '#', sizeof buf);
  EXPECT_EQ(QsSnPrintf(4, buf, "abcdef"), buf);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(buf[4], '#');
}

}  // namespace
