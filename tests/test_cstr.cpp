#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <string>

#include "cmem.h"
#include "cstr.h"
#include "pl_fs.h"

namespace fs = std::filesystem;

namespace {

std::string Text(const CStr& s) { return std::string(s.c_str(), s.Str ? (size_t)s.Len : 0); }

// A fresh directory under the system's temporary directory, removed with
// everything in it afterwards.
class TempDir : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    Dir = (fs::temp_directory_path() / ("lumetta_cstr_" + std::to_string(rd()))).string();
    ASSERT_TRUE(fs::create_directory(Dir));
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(Dir, ec);
  }
  std::string Path(const char* name) const { return Dir + "/" + name; }
  std::string Dir;
};

}  // namespace

// ---- setting and appending ----

TEST(CStrSet, NullAndEmptyGiveTheCanonicalEmptyString) {
  CStr a(""), b(nullptr), c("x");
  c.Set(nullptr);
  for (CStr* s : {&a, &b, &c}) {
    EXPECT_EQ(s->Str, nullptr);
    EXPECT_EQ(s->Len, 0);
  }
  a.Cat("x");
  EXPECT_EQ(Text(a), "x");
  b.CatChar('y');
  EXPECT_EQ(Text(b), "y");
  c.Set("abc", 0);
  EXPECT_EQ(c.Str, nullptr);
}

TEST(CStrSet, BinarySafeCopiesKeepEmbeddedNuls) {
  CStr s("a\0b", 3);
  EXPECT_EQ(s.Len, 3);
  EXPECT_TRUE(s.HasNul());
  CStr copy(s);
  EXPECT_EQ(copy.Len, 3);
  EXPECT_EQ(memcmp(copy.Str, "a\0b", 4), 0);
  copy.Cat("\0c", 2);
  EXPECT_EQ(copy.Len, 5);
  EXPECT_EQ(copy.Str[5], 0);
  EXPECT_FALSE(CStr("abc").HasNul());
}

TEST(CStrSet, OperationsOnTheirOwnTextAreSafe) {
  CStr s("abc");
  s.Cat(s.Str);
  EXPECT_EQ(Text(s), "abcabc");
  s.Set(s.Str + 3);
  EXPECT_EQ(Text(s), "abc");
  s = s;
  EXPECT_EQ(Text(s), "abc");
  s.Subst("b", s.Str);
  EXPECT_EQ(Text(s), "aabcc");
}

TEST(CStrSet, OperatorsAppendAndBuildNewStrings) {
  CStr s("n=");
  CStr t = s + 42 + "/" + CStr("x");
  EXPECT_EQ(Text(t), "n=42/x");
  EXPECT_EQ(Text(s), "n=");
  s += -7;
  s += '!';
  s += CStr("?");
  EXPECT_EQ(Text(s), "n=-7!?");
  CStr moved(std::move(s));
  EXPECT_EQ(s.Str, nullptr);
  EXPECT_EQ(Text(moved), "n=-7!?");
  EXPECT_EQ(Text(CStr(-123)), "-123");
}

TEST(CStrSet, SetLenShrinksGrowsAndStartsEmptyWithNul) {
  CStr s("abcdef");
  ASSERT_TRUE(s.SetLen(3));
  EXPECT_EQ(s.Len, 3);
  EXPECT_STREQ(s.Str, "abc");
  ASSERT_TRUE(s.SetLen(6));
  EXPECT_EQ(s.Len, 6);
  EXPECT_EQ(memcmp(s.Str, "abc", 3), 0);
  EXPECT_EQ(s.Str[6], 0);

  CStr e;
  ASSERT_TRUE(e.SetLen(0));
  ASSERT_NE(e.Str, nullptr);
  EXPECT_TRUE(e.IsEmpty());
  EXPECT_EQ(e.Compare(""), 1);
  EXPECT_FALSE(e.SetLen(-1));
}

TEST(CStrSet, FillNumbersAndFloats) {
  CStr s;
  s.Fill('z', 4);
  EXPECT_EQ(Text(s), "zzzz");
  s.Fill('z', 0);
  EXPECT_EQ(s.Str, nullptr);
  s.SetInt(-2147483647 - 1);
  EXPECT_EQ(Text(s), "-2147483648");
  s.SetFloat(1.5f);
  EXPECT_EQ(Text(s), "1.500000");
  s.CatFloat(-0.25f);
  EXPECT_EQ(Text(s), "1.500000-0.250000");
  EXPECT_EQ(Text(CStr::FormatFloat("%.2f", 3.14159f)), "3.14");
  EXPECT_TRUE(CStr::FormatFloat("", 1.0f).IsEmpty());
  EXPECT_EQ(CStr::FormatFloat("%040.1f", 1.0f).Len, 31);  // cut to the 32-byte buffer
}

TEST(CStrSet, PrintfGrowsPastTheFirstBuffer) {
  CStr s;
  std::string big(1000, 'q');
  s.Printf("<%s|%d>", big.c_str(), 7);
  EXPECT_EQ(Text(s), "<" + big + "|7>");
  s.Printf("%s", "");
  EXPECT_EQ(s.Str, nullptr);
}

// ---- comparison and searching ----

TEST(CStrCompare, EmptyStringsNeverCompareEqual) {
  CStr a, b;
  EXPECT_EQ(a.Compare(""), 1);
  EXPECT_EQ(a.Compare(nullptr), 1);
  EXPECT_EQ(CStr("x").Compare(""), 1);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
  EXPECT_EQ(a.CompareIC(""), 1);
}

TEST(CStrCompare, OrdersAndLimits) {
  CStr s("Hello");
  EXPECT_TRUE(s == "Hello");
  EXPECT_TRUE(s < "Help");
  EXPECT_TRUE(s > CStr("Hell"));
  EXPECT_EQ(s.CompareIC("hELLO"), 0);
  EXPECT_LT(s.CompareIC("hellp"), 0);
  EXPECT_EQ(s.Compare("Help", 3), 0);
  EXPECT_NE(s.Compare("Help", 4), 0);
  EXPECT_EQ(s.NcompareIC("HELP", 3), 0);
  EXPECT_EQ(s.Ncompare("Help", 3), 0);
}

TEST(CStrSearch, FindAndFindIC) {
  CStr s("abcABCabc");
  EXPECT_EQ(s.Find("ABC"), 3);
  EXPECT_EQ(s.Find("Cab"), 5);
  EXPECT_EQ(s.Find("abd"), -1);
  EXPECT_EQ(s.Find(""), -1);
  EXPECT_EQ(CStr().Find("a"), -1);
  EXPECT_EQ(s.FindIC("CAB"), 2);
  EXPECT_EQ(s.FindIC("bcabcabcx"), -1);
  EXPECT_EQ(s.FindIC("BCabc"), 1);
}

TEST(CStrSearch, FindCharBoundsAndFromRules) {
  CStr s("a.b.c");
  EXPECT_EQ(s.FindChar('.'), 1);
  EXPECT_EQ(s.FindChar('.', 2), 3);
  EXPECT_EQ(s.FindChar('.', -1), -1);
  EXPECT_EQ(s.FindChar('.', 5), -1);
  EXPECT_EQ(s.FindCharEnd('.'), 3);
  EXPECT_EQ(s.FindCharEnd('.', 3), -1);  // position 'from' itself is not looked at
  EXPECT_EQ(s.FindCharEnd('a', 0), -1);
  EXPECT_EQ(s.FindCharEnd('c', 4), -1);
  EXPECT_EQ(CStr().FindChar('a'), -1);
}

TEST(CStrSearch, WildcardMatch) {
  CStr abc("abc");
  EXPECT_TRUE(abc.Match("a*c"));
  EXPECT_TRUE(abc.MatchIC("A?C"));
  EXPECT_FALSE(abc.Match("A?C"));
  EXPECT_FALSE(abc.Match("a*d"));
  EXPECT_TRUE(abc.Match("*"));
  EXPECT_TRUE(abc.Match("***"));
  EXPECT_TRUE(abc.Match("abc*"));
  EXPECT_FALSE(abc.Match("ab"));
  EXPECT_FALSE(abc.Match("abcd"));
  EXPECT_FALSE(abc.Match("????"));
  EXPECT_FALSE(abc.Match(""));
  EXPECT_FALSE(CStr().Match("*"));
  EXPECT_FALSE(CStr("").Match(""));

  CStr file("index.backup.html");
  EXPECT_TRUE(file.Match("*.html"));
  EXPECT_TRUE(file.Match("*.b*p.*"));
  EXPECT_TRUE(file.Match("i*x*.*l"));
  EXPECT_FALSE(file.Match("*.htm"));
  EXPECT_TRUE(CStr("aaab").Match("*aab"));  // needs the backtrack
  EXPECT_TRUE(CStr("mississippi").Match("*sip*"));
  EXPECT_TRUE(file.Match("index", 5));      // subject limited to 5 characters
  EXPECT_FALSE(file.Match("index.", 5));
}

TEST(CStrSearch, WordsAreRunsWithoutBlanksOrTabs) {
  CStr s("  GET\t/index.html   HTTP/1.1 ");
  EXPECT_EQ(s.Words(), 3);
  EXPECT_EQ(Text(s.Word(0)), "GET");
  EXPECT_EQ(Text(s.Word(1)), "/index.html");
  EXPECT_EQ(Text(s.Word(2)), "HTTP/1.1");
  EXPECT_TRUE(s.Word(3).IsEmpty());
  EXPECT_TRUE(s.Word(-1).IsEmpty());
  EXPECT_EQ(CStr(" \t ").Words(), 0);
}

// ---- substrings ----

TEST(CStrSubstring, RightStartsAtAPosition) {
  CStr s("abcd");
  EXPECT_EQ(Text(s.Right(2)), "cd");
  EXPECT_EQ(Text(s.Right(0)), "abcd");
  EXPECT_TRUE(s.Right(4).IsEmpty());
  EXPECT_TRUE(s.Right(-1).IsEmpty());
  EXPECT_EQ(Text(s.SubStr(1, 2)), "bc");
  EXPECT_EQ(Text(s.SubStr(2, 100)), "cd");
  EXPECT_TRUE(s.SubStr(1, 0).IsEmpty());
  EXPECT_TRUE(s.SubStr(4, 1).IsEmpty());
  EXPECT_EQ(Text(s.Left(2)), "ab");
  EXPECT_EQ(Text(s.Left(9)), "abcd");
  EXPECT_TRUE(s.Left(0).IsEmpty());
  EXPECT_EQ(Text(CStr("MiXed").LowerStr()), "mixed");
  EXPECT_EQ(Text(CStr("MiXed").UpperStr()), "MIXED");
}

// ---- in-place editing ----

TEST(CStrEdit, SubstReplacesFromTheStart) {
  CStr s("a-b-c");
  EXPECT_TRUE(s.Subst("-", "+"));
  EXPECT_EQ(Text(s), "a+b-c");
  EXPECT_EQ(s.SubstAll("-", "::"), 1);
  EXPECT_EQ(Text(s), "a+b::c");
  EXPECT_EQ(s.SubstClrAll(":"), 2);
  EXPECT_EQ(Text(s), "a+bc");
  EXPECT_TRUE(s.Subst("+", nullptr));
  EXPECT_EQ(Text(s), "abc");
  EXPECT_FALSE(s.Subst("x", "y"));
  EXPECT_FALSE(s.Subst("", "y"));
  EXPECT_TRUE(s.SubstClr("abc"));
  EXPECT_EQ(s.Str, nullptr);
  // Each pass starts over, so text made by a replacement is searched again.
  CStr r("aaab");
  EXPECT_EQ(r.SubstAll("ab", "b"), 3);
  EXPECT_EQ(Text(r), "b");
}

TEST(CStrEdit, StripChrAndStripSpc) {
  CStr s("a,b,,c");
  EXPECT_EQ(s.StripChr(','), 3);
  EXPECT_EQ(Text(s), "abc");
  EXPECT_EQ(s.StripChr(0), 0);
  EXPECT_EQ(s.StripChr(256), 0);
  CStr only(",,,");
  EXPECT_EQ(only.StripChr(','), 3);
  EXPECT_EQ(only.Str, nullptr);
  CStr sp(" a \tb ");
  EXPECT_EQ(sp.StripSpc(), 4);
  EXPECT_EQ(Text(sp), "ab");
}

TEST(CStrEdit, LineEndConversions) {
  CStr s("a\r\nb\rc\n");
  EXPECT_EQ(s.StripCr(), 2);
  EXPECT_EQ(Text(s), "a\nb\nc\n");
  EXPECT_EQ(s.StripCr(), 0);
  CStr lone("x\ry\r");
  EXPECT_EQ(lone.StripCr(), 2);
  EXPECT_EQ(Text(lone), "x\ny\n");
  CStr w("a\r\nb\nc\r");
  EXPECT_EQ(w.AddCrLf(), 3);
  EXPECT_EQ(Text(w), "a\r\nb\r\nc\r\n");
  CStr none("plain");
  EXPECT_EQ(none.AddCrLf(), 0);
  EXPECT_EQ(Text(none), "plain");
}

TEST(CStrEdit, TrimRightAloneKeepsTheFirstCharacter) {
  CStr s("   ");
  s.Trim(" ", 2);
  EXPECT_EQ(Text(s), " ");
  CStr t("   ");
  t.Trim(" ", 3);
  EXPECT_EQ(t.Str, nullptr);
  CStr u(" \tx y\r\n");
  u.Trim();
  EXPECT_EQ(Text(u), "x y");
  CStr l("--x--");
  l.TrimLeft("-");
  EXPECT_EQ(Text(l), "x--");
  l.TrimRight("-");
  EXPECT_EQ(Text(l), "x");
  CStr keep("x");
  char* before = keep.Str;
  keep.Trim(" ", 3);
  EXPECT_EQ(keep.Str, before);  // nothing to cut: same block
  CStr untouched(" x ");
  untouched.Trim(nullptr, 3);
  untouched.Trim(" ", 0);
  EXPECT_EQ(Text(untouched), " x ");
}

TEST(CStrEdit, HtmlEncodeEscapesMarkupAndHighBytes) {
  CStr s("a<b~");
  s.HtmlEncode();
  EXPECT_EQ(Text(s), "a&#x3c;b&#x7e;");
  CStr all("\"&<>\x7f\xff}");
  all.HtmlEncode();
  EXPECT_EQ(Text(all), "&#x22;&#x26;&#x3c;&#x3e;&#x7f;&#xff;}");
  CStr plain("nothing here");
  char* before = plain.Str;
  plain.HtmlEncode();
  EXPECT_EQ(plain.Str, before);
}

TEST(CStrEdit, UrlDecode) {
  CStr s("a+b%41");
  s.UrlDecode();
  EXPECT_EQ(Text(s), "a bA");
  CStr lower("%2fx%2F%fF");
  lower.UrlDecode();
  EXPECT_EQ(Text(lower), "/x/\xff");
  // A '%' without two characters after it stays as it is.
  for (const char* tail : {"ab%", "ab%4", "%", "%4"}) {
    CStr t(tail);
    t.UrlDecode();
    EXPECT_EQ(Text(t), tail);
  }
  CStr nul("a%00b");
  nul.UrlDecode();
  EXPECT_EQ(nul.Len, 3);
  EXPECT_TRUE(nul.HasNul());
  EXPECT_EQ(memcmp(nul.Str, "a\0b", 4), 0);
  CStr unchanged("abc");
  char* before = unchanged.Str;
  unchanged.UrlDecode();
  EXPECT_EQ(unchanged.Str, before);
}

TEST(CStrBase64, Rfc4648VectorsBothWays) {
  const char* vectors[][2] = {{"f", "Zg=="},     {"fo", "Zm8="},     {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
  for (auto& v : vectors) {
    CStr e(v[0]);
    e.Base64Encode();
    EXPECT_EQ(Text(e), v[1]);
    CStr d(v[1]);
    d.Base64Decode();
    EXPECT_EQ(Text(d), v[0]);
  }
  CStr empty;
  empty.Base64Encode();
  EXPECT_EQ(empty.Str, nullptr);
}

TEST(CStrBase64, DecoderSkipsForeignCharactersAndShortGroups) {
  CStr s("Zm9v\r\nYm Fy");
  s.Base64Decode();
  EXPECT_EQ(Text(s), "foobar");
  CStr unpadded("Zm9vYg");
  unpadded.Base64Decode();
  EXPECT_EQ(Text(unpadded), "foob");
  CStr single("Zm9vY");  // one character alone carries no byte
  single.Base64Decode();
  EXPECT_EQ(Text(single), "foo");
  CStr junk("!!==");
  junk.Base64Decode();
  EXPECT_EQ(junk.Str, nullptr);
}

TEST(CStrBase64, EveryByteValueRoundTrips) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += (char)i;
  CStr s(bytes.data(), (int)bytes.size());
  s.Base64Encode();
  EXPECT_EQ(s.Len, 344);
  EXPECT_FALSE(s.HasNul());
  s.Base64Decode();
  EXPECT_EQ(Text(s), bytes);
}

// ---- paths ----

TEST(CStrPath, NameDirectoryAndExtension) {
  CStr p("dir\\sub/file.tar.gz");
  EXPECT_EQ(Text(p.FileName()), "file.tar.gz");
  EXPECT_EQ(Text(p.FileExt()), "gz");
  EXPECT_EQ(Text(CStr("/abc").FileName()), "/abc");  // position 0 is not a separator here
  EXPECT_EQ(Text(CStr("plain").FileName()), "plain");
  EXPECT_EQ(Text(CStr("a.b\\c").FileExt()), "b\\c");
  EXPECT_TRUE(CStr(".profile").FileExt().IsEmpty());
  EXPECT_TRUE(CStr("noext").FileExt().IsEmpty());

  p.FilePath();
  EXPECT_EQ(Text(p), "dir\\sub");
  p.FilePath();
  EXPECT_EQ(Text(p), "dir");
  p.FilePath();
  EXPECT_EQ(p.Str, nullptr);
  CStr root("/x");
  root.FilePath();
  EXPECT_EQ(root.Str, nullptr);
}

TEST(CStrPath, ChangeExt) {
  CStr s("page.htm");
  char* before = s.Str;
  s.ChangeExt("php");
  EXPECT_EQ(Text(s), "page.php");
  EXPECT_EQ(s.Str, before);  // same length: edited in place
  s.ChangeExt(CStr("html"));
  EXPECT_EQ(Text(s), "page.html");
  s.ChangeExt("");
  EXPECT_EQ(Text(s), "page");
  s.ChangeExt(nullptr);
  EXPECT_EQ(Text(s), "page");
  s.ChangeExt("txt");
  EXPECT_EQ(Text(s), "page.txt");
  CStr dotted("dir.d/file");
  dotted.ChangeExt("x");  // the last dot anywhere, separators or not
  EXPECT_EQ(Text(dotted), "dir.x");
}

TEST(CStrPath, SimplifyWithBackslashes) {
  struct Case {
    const char* in;
    const char* out;
    bool ok;
  } cases[] = {
      {"a\\\\b", "a\\b", true},       {"a\\.\\b", "a\\b", true},    {"a\\b\\..\\c", "a\\c", true},
      {"a\\", "a", true},             {"\\a\\..\\b", "b", true},    {"a.\\b", "ab", true},
      {"a\\b\\.", "a\\b", true},      {"a\\..", "", true},          {"\\\\srv\\x", "\\srv\\x", true},
      {"..\\a", "..\\a", false},      {"a\\..\\..\\b", "a\\..\\..\\b", false},
      {"..", "..", false},            {"\\..\\a", "\\..\\a", false}, {"..a", "..a", false},
  };
  for (const Case& c : cases) {
    CStr s(c.in);
    EXPECT_EQ(s.PathSimplify(), c.ok) << c.in;
    EXPECT_EQ(Text(s), c.out) << c.in;
  }
  CStr empty;
  EXPECT_FALSE(empty.PathSimplify());
}

TEST(CStrPath, SimplifyWithSlashes) {
  struct Case {
    const char* in;
    const char* out;
    bool ok;
  } cases[] = {
      {"/docs//img/./a.png", "/docs/img/a.png", true}, {"/a/b/../../c", "c", true},
      {"/a/b/../c/", "/a/c", true},                    {"/", "", true},
      {"a\\..\\b", "a\\..\\b", true},                  {"/../etc/passwd", "/../etc/passwd", false},
      {"/a/../../etc", "/a/../../etc", false},
  };
  for (const Case& c : cases) {
    CStr s(c.in);
    EXPECT_EQ(s.PathSimplify('/'), c.ok) << c.in;
    EXPECT_EQ(Text(s), c.out) << c.in;
  }
}

TEST(CStrPath, SeparatorConversions) {
  CStr s("a/b\\c");
  s.NativePath();
  EXPECT_EQ(Text(s), std::string("a") + PL_PATH_SEP + "b\\c");
  const std::string sep(1, PL_PATH_SEP);
  CStr d("dir");
  d.DirFixSep(true);
  EXPECT_EQ(Text(d), "dir" + sep);
  d.DirFixSep(true);
  EXPECT_EQ(Text(d), "dir" + sep);
  d.DirFixSep(false);
  EXPECT_EQ(Text(d), "dir");
  CStr root(sep.c_str());
  root.DirFixSep(false);  // a lone separator stays
  EXPECT_EQ(Text(root), sep);
}

// ---- files and directories ----

TEST_F(TempDir, FileHelpersRoundTrip) {
  CStr name(Path("a.txt").c_str());
  EXPECT_FALSE(name.FileExist());
  EXPECT_EQ(name.FileSize(), 0);
  CStr body("one\0two", 7);
  ASSERT_TRUE(body.SaveToFile(name.Str));
  EXPECT_TRUE(name.FileExist());
  EXPECT_FALSE(name.DirExist());
  EXPECT_EQ(name.FileSize(), 7);

  CStr loaded("old");
  ASSERT_TRUE(loaded.LoadFromFile(name.Str));
  EXPECT_EQ(Text(loaded), std::string("one\0two", 7));

  CStr moved(Path("b.txt").c_str());
  ASSERT_TRUE(name.FileMove(moved.Str));
  EXPECT_FALSE(name.FileExist());
  EXPECT_TRUE(moved.FileExist());
  EXPECT_TRUE(moved.FileDelete());
  EXPECT_FALSE(moved.FileDelete());
}

TEST_F(TempDir, LoadKeepsOldTextOnFailureAndEmptiesOnEmptyFile) {
  CStr s("keep");
  EXPECT_FALSE(s.LoadFromFile(Path("missing").c_str()));
  EXPECT_FALSE(s.LoadFromFile(""));
  EXPECT_FALSE(s.LoadFromFile(nullptr));
  EXPECT_EQ(Text(s), "keep");
  ASSERT_TRUE(CStr().SaveToFile(Path("empty").c_str()));
  EXPECT_TRUE(s.LoadFromFile(Path("empty").c_str()));
  EXPECT_EQ(s.Str, nullptr);
  EXPECT_FALSE(s.SaveToFile(Path("no/such/dir").c_str()));
}

TEST_F(TempDir, DirectoryHelpers) {
  CStr sub(Path("sub").c_str());
  EXPECT_FALSE(sub.DirExist());
  ASSERT_TRUE(sub.DirCreate());
  EXPECT_FALSE(sub.DirCreate());
  EXPECT_TRUE(sub.DirExist());
  EXPECT_FALSE(sub.FileExist());
  EXPECT_FALSE(CStr().DirExist());

  CStr old;
  ASSERT_TRUE(old.DirGetCurrent(false));
  ASSERT_TRUE(sub.DirSetCurrent());
  CStr now;
  ASSERT_TRUE(now.DirGetCurrent(true));
  EXPECT_EQ(now.Last(), PL_PATH_SEP);
  now.DirFixSep(false);
  std::string real;
  ASSERT_TRUE(PlRealPath(sub.Str, &real));
  EXPECT_EQ(Text(now), real);
  ASSERT_TRUE(old.DirSetCurrent());

  EXPECT_TRUE(sub.DirDelete());
  EXPECT_FALSE(sub.DirExist());
}

TEST_F(TempDir, TempDirFollowsTmpdir) {
  const char* saved = getenv("TMPDIR");
  std::string keep = saved ? saved : "";
  setenv("TMPDIR", (Dir + "/").c_str(), 1);
  CStr t;
  EXPECT_TRUE(t.DirGetTemp(false));
  EXPECT_EQ(Text(t), Dir);
  EXPECT_TRUE(t.DirGetTemp(true));
  EXPECT_EQ(Text(t), Dir + PL_PATH_SEP);
  if (saved)
    setenv("TMPDIR", keep.c_str(), 1);
  else
    unsetenv("TMPDIR");
}

TEST_F(TempDir, PlatformListingStatAndRealPath) {
  ASSERT_TRUE(PlMkdir(Path("d").c_str()));
  ASSERT_TRUE(CStr("12345").SaveToFile(Path("f").c_str()));
  ASSERT_TRUE(CStr("").SaveToFile(Path("..hidden").c_str()));

  PlDir* dir = PlDirOpen(Dir.c_str());
  ASSERT_NE(dir, nullptr);
  std::set<std::string> names;
  while (const char* n = PlDirNext(dir)) names.insert(n);
  PlDirClose(dir);
  EXPECT_EQ(names, (std::set<std::string>{"..hidden", "d", "f"}));
  EXPECT_EQ(PlDirOpen(Path("f").c_str()), nullptr);
  EXPECT_EQ(PlDirOpen(Path("none").c_str()), nullptr);

  PlStatInfo st;
  ASSERT_TRUE(PlStat(Path("f").c_str(), &st));
  EXPECT_EQ(st.Size, 5);
  EXPECT_FALSE(st.IsDir);
  EXPECT_GT(st.MTime, 1500000000LL);
  ASSERT_TRUE(PlStat(Path("d").c_str(), &st));
  EXPECT_TRUE(st.IsDir);
  EXPECT_FALSE(PlStat(Path("none").c_str(), &st));

  std::string real, viaDots;
  ASSERT_TRUE(PlRealPath(Path("f").c_str(), &real));
  ASSERT_TRUE(PlRealPath(Path("d/../f").c_str(), &viaDots));
  EXPECT_EQ(real, viaDots);
  EXPECT_EQ(real.find(".."), std::string::npos);
  EXPECT_FALSE(PlRealPath(Path("none").c_str(), &real));
  EXPECT_TRUE(PlRmdir(Path("d").c_str()));
}

TEST(PlFs, ProgramPathNamesThisTest) {
  std::string self;
  ASSERT_TRUE(PlProgramPath(&self));
  CStr s(self.c_str());
  EXPECT_EQ(Text(s.FileName()), "test_cstr");
  EXPECT_TRUE(s.FileExist());
}

// ---- numbers ----

TEST(CStrNumbers, Conversions) {
  EXPECT_EQ(CStr().ToInt(), 0);
  EXPECT_EQ(CStr(" -42abc").ToInt(), -42);
  EXPECT_EQ(CStr("x").ToInt(), 0);
  EXPECT_DOUBLE_EQ(CStr(" 2.5e3").ToDouble(), 2500.0);
  EXPECT_DOUBLE_EQ(CStr("+.5").ToDouble(), 0.5);
  EXPECT_FLOAT_EQ(CStr("-1.25kg").ToFloat(), -1.25f);
  EXPECT_EQ(CStr("abc").ToDouble(), 0.0);
  EXPECT_EQ(CStr().ToFloat(), 0.0f);
}

// ---- CStrList ----

namespace {
int ByText(const void* a, const void* b) {
  const __cstr_list* x = *static_cast<const __cstr_list* const*>(a);
  const __cstr_list* y = *static_cast<const __cstr_list* const*>(b);
  return strcmp(x->Str.c_str(), y->Str.c_str());
}

void FillList(CStrList& l, std::initializer_list<const char*> items) {
  for (const char* s : items) l.Add(s);
}
}  // namespace

TEST(CStrList, AddReturnsPositionsAndKeepsObjects) {
  CStrList l;
  int tag = 0;
  EXPECT_EQ(l.Add("a"), 0);
  EXPECT_EQ(l.Add(CStr("b")), 1);
  EXPECT_EQ(l.AddObject("c", &tag), 2);
  EXPECT_EQ(l.Count(), 3);
  EXPECT_EQ(l[2]->Object, &tag);
  EXPECT_EQ(l[0]->Object, nullptr);
  EXPECT_EQ(l[3], nullptr);
  EXPECT_EQ(l[-1], nullptr);
  l.Clear();
  EXPECT_EQ(l.Count(), 0);
  EXPECT_EQ(l[0], nullptr);
  EXPECT_EQ(l.Beg, nullptr);
  EXPECT_EQ(l.Add("again"), 0);
  EXPECT_EQ(Text(*l[0]), "again");
}

TEST(CStrList, CursorWalksOneLinkAndJumpsToTheEnds) {
  CStrList l;
  FillList(l, {"0", "1", "2", "3", "4", "5"});
  EXPECT_EQ(l.IndexPtr, l.Beg);  // set by the first append
  for (int i = 0; i < l.Count(); ++i) {
    ASSERT_EQ(Text(*l[i]), std::to_string(i));
    EXPECT_EQ(l.Index, i);
  }
  EXPECT_EQ(l.IndexPtr, l.Last);
  EXPECT_EQ(Text(*l[4]), "4");  // one step back from the end
  EXPECT_EQ(Text(*l[1]), "1");
  EXPECT_EQ(Text(*l[5]), "5");  // straight to the last node
  EXPECT_EQ(l.IndexPtr, l.Last);
  EXPECT_EQ(Text(*l[0]), "0");
  EXPECT_EQ(Text(*l[3]), "3");
  EXPECT_EQ(Text(*l[2]), "2");
}

TEST(CStrList, SortRelinksBothWaysAndResetsTheCursor) {
  CStrList empty;
  EXPECT_FALSE(empty.Sort(ByText));
  CStrList one;
  one.Add("x");
  EXPECT_TRUE(one.Sort(ByText));

  CStrList l;
  FillList(l, {"pear", "apple", "fig", "banana"});
  EXPECT_EQ(Text(*l[2]), "fig");
  ASSERT_TRUE(l.Sort(ByText));
  EXPECT_EQ(l.Index, 0);
  EXPECT_EQ(l.IndexPtr, l.Beg);
  std::string forward, backward;
  for (__cstr_list* n = l.Beg; n; n = n->Next) forward += Text(n->Str) + " ";
  for (__cstr_list* n = l.Last; n; n = n->Prev) backward += Text(n->Str) + " ";
  EXPECT_EQ(forward, "apple banana fig pear ");
  EXPECT_EQ(backward, "pear fig banana apple ");
  EXPECT_EQ(Text(*l[2]), "fig");
}

TEST(CStrList, TableAndFlatForms) {
  CStrList empty;
  EXPECT_EQ(empty.ToCharNull(), nullptr);
  EXPECT_EQ(empty.CreateTable(), nullptr);

  CStrList l;
  FillList(l, {"A=1", "", "B=22"});
  __cstr_list** table = l.CreateTable();
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table[0], l.Beg);
  EXPECT_EQ(table[2], l.Last);
  delete[] table;

  char* block = l.ToCharNull();
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(memcmp(block, "A=1\0\0B=22\0\0", 11), 0);
  delete[] block;

  CCharVect* v = l.ToCharVect();
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v->GetNum(), 3);
  EXPECT_STREQ((*v)[0], "A=1");
  EXPECT_STREQ((*v)[1], "");  // kept as "" so the vector has no hole
  EXPECT_STREQ((*v)[2], "B=22");
  EXPECT_EQ(v->GetVect()[3], nullptr);
  delete v;
}
