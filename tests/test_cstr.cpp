// CStr and CStrList: the empty-string rules, comparison and search, editing,
// Base64, paths, file helpers and the list.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "cmem.h"
#include "cstr.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

std::string Text(const CStr& s) { return std::string(s.c_str(), s.Str ? (size_t)s.Len : 0); }

// One in-place edit: the text before, the operation, the text expected after.
struct Edit {
  const char* in;
  void (*op)(CStr&);
  const char* out;
};

void ExpectEdits(std::initializer_list<Edit> edits) {
  int row = 0;
  for (const Edit& e : edits) {
    SCOPED_TRACE("row " + std::to_string(row++) + ": " + e.in);
    CStr s(e.in);
    e.op(s);
    EXPECT_EQ(Text(s), e.out);
  }
}

void Decode64(CStr& s) { s.Base64Decode(); }
void UrlDecode(CStr& s) { s.UrlDecode(); }

}  // namespace

TEST(CStr, EmptyTextIsNullAndNeverComparesEqual) {
  CStr a(""), b(nullptr), c("x");
  c.Set(nullptr);
  for (CStr* s : {&a, &b, &c}) EXPECT_EQ(s->Str, nullptr);
  EXPECT_EQ(a.Compare(""), 1);
  EXPECT_FALSE(a == b);
  ASSERT_TRUE(a.SetLen(0));  // allocated, still empty
  EXPECT_EQ(a.Compare(""), 1);
}

TEST(CStr, BinaryTextOwnTextAsArgumentAndGrowth) {
  CStr copy(CStr("a\0b", 3));
  copy.Cat("\0c", 2);
  EXPECT_EQ(std::string(copy.Str, 6), std::string("a\0b\0c\0", 6));
  CStr s("abc");
  s.Cat(s.Str);
  EXPECT_EQ(Text(s), "abcabc");
  s.Set(s.Str + 3);
  EXPECT_EQ(Text(s), "abc");
  s.Subst("b", s.Str);
  EXPECT_EQ(Text(s), "aabcc");
  std::string big(1000, 'q');
  s.Printf("<%s|%d>", big.c_str(), 7);
  EXPECT_EQ(Text(s), "<" + big + "|7>");
  EXPECT_EQ(CStr::FormatFloat("%040.1f", 1.0f).Len, 31);  // cut to its small buffer
}

TEST(CStr, CompareSearchAndSubstrings) {
  CStr s("Hello"), f("abcABCabc");
  EXPECT_TRUE(s < "Help");
  EXPECT_EQ(s.CompareIC("hELLO"), 0);
  EXPECT_EQ(s.Compare("Help", 3), 0);
  EXPECT_NE(s.Compare("Help", 4), 0);
  CStr d("a.b.c");
  // FindCharEnd looks backwards and skips its start position.
  std::vector<int> found = {f.Find("Cab"),       f.FindIC("CAB"),    f.Find(""),         f.FindIC("bcabcabcx"),
                            d.FindChar('.', 2), d.FindChar('.', 5), d.FindCharEnd('.'), d.FindCharEnd('.', 3)};
  EXPECT_EQ(found, (std::vector<int>{5, 2, -1, -1, 3, -1, 3, -1}));
  CStr w("  GET\t/index.html   HTTP/1.1 ");
  EXPECT_EQ(w.Words(), 3);
  EXPECT_EQ(Text(w.Word(2)) + Text(w.Word(3)), "HTTP/1.1");
  EXPECT_EQ(Text(d.Right(2)) + "|" + Text(d.SubStr(2, 100)) + "|" + Text(d.Left(9)), "b.c|b.c|a.b.c");
  EXPECT_EQ(CStr(" -42abc").ToInt(), -42);
  EXPECT_DOUBLE_EQ(CStr(" 2.5e3").ToDouble(), 2500.0);
}

TEST(CStr, WildcardMatch) {
  struct {
    const char* subject;
    const char* pattern;
    bool match;
  } cases[] = {
      {"abc", "a*c", true},          {"abc", "A?C", false},  {"abc", "a*d", false},
      {"abc", "***", true},          {"abc", "abc*", true},  {"abc", "ab", false},
      {"abc", "abcd", false},        {"abc", "????", false}, {"abc", "", false},
      {"", "*", false},              {"", "", false},        {"index.backup.html", "*.b*p.*", true},
      {"index.backup.html", "*.htm", false},                 {"aaab", "*aab", true},
      {"mississippi", "*sip*", true},
  };
  for (auto& c : cases) EXPECT_EQ(CStr(c.subject).Match(c.pattern), c.match) << c.subject << " ~ " << c.pattern;
  EXPECT_TRUE(CStr("abc").MatchIC("A?C"));
  EXPECT_TRUE(CStr("index.html").Match("index", 5));  // subject limited to 5 characters
  EXPECT_FALSE(CStr("index.html").Match("index.", 5));
}

TEST(CStr, InPlaceEdits) {
  ExpectEdits({
      {"a-b-c", [](CStr& s) { EXPECT_TRUE(s.Subst("-", "+")); }, "a+b-c"},
      {"aaab", [](CStr& s) { EXPECT_EQ(s.SubstAll("ab", "b"), 3); }, "b"},  // each pass starts over
      {"a,b,,c", [](CStr& s) { EXPECT_EQ(s.StripChr(','), 3); }, "abc"},
      {"a\r\nb\rc\n", [](CStr& s) { EXPECT_EQ(s.StripCr(), 2); }, "a\nb\nc\n"},
      {"a\r\nb\nc\r", [](CStr& s) { EXPECT_EQ(s.AddCrLf(), 3); }, "a\r\nb\r\nc\r\n"},
      // Trimming the right side alone always keeps the first character.
      {"   ", [](CStr& s) { s.Trim(" ", 2); }, " "},
      {"   ", [](CStr& s) { s.Trim(" ", 3); }, ""},
      {" \tx y\r\n", [](CStr& s) { s.Trim(); }, "x y"},
      {"--x--", [](CStr& s) { s.TrimLeft("-"); }, "x--"},
      {"a<\"&>~\x7f\xff}", [](CStr& s) { s.HtmlEncode(); }, "a&#x3c;&#x22;&#x26;&#x3e;&#x7e;&#x7f;&#xff;}"},
      {"a+b%41%2f%fF", UrlDecode, "a bA/\xff"},
      {"ab%", UrlDecode, "ab%"},  // '%' without two characters after it stays
      {"ab%4", UrlDecode, "ab%4"},
      {"Zm9v\r\nYm Fy", Decode64, "foobar"},
      {"Zm9vYg", Decode64, "foob"},
      {"Zm9vY", Decode64, "foo"},  // a lone last character carries no byte
      {"!!==", Decode64, ""},
      {"dir\\sub/f.gz", [](CStr& s) { s.FilePath(); }, "dir\\sub"},
      {"/x", [](CStr& s) { s.FilePath(); }, ""},
      {"page.htm", [](CStr& s) { s.ChangeExt("html"); }, "page.html"},
      {"page.htm", [](CStr& s) { s.ChangeExt(""); }, "page"},
      {"dir.d/file", [](CStr& s) { s.ChangeExt("x"); }, "dir.x"},  // the last dot, wherever it is
  });
  CStr nul("a%00b");
  nul.UrlDecode();
  EXPECT_EQ(Text(nul), std::string("a\0b", 3));
  EXPECT_EQ(Text(CStr("dir\\sub/file.tar.gz").FileName()), "file.tar.gz");
  EXPECT_EQ(Text(CStr("/abc").FileName()), "/abc");
  EXPECT_EQ(Text(CStr("a.b\\c").FileExt()), "b\\c");
  EXPECT_TRUE(CStr(".profile").FileExt().IsEmpty());
}

TEST(CStr, Base64BothWays) {
  const char* vectors[][2] = {{"f", "Zg=="},         {"fo", "Zm8="},        {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
  for (auto& v : vectors) {
    CStr e(v[0]), d(v[1]);
    e.Base64Encode();
    d.Base64Decode();
    EXPECT_EQ(Text(e), v[1]);
    EXPECT_EQ(Text(d), v[0]);
  }
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += (char)i;
  CStr all(bytes.data(), (int)bytes.size());
  all.Base64Encode();
  EXPECT_EQ(all.Len, 344);
  all.Base64Decode();
  EXPECT_EQ(Text(all), bytes);
}

TEST(CStr, PathSimplify) {
  struct {
    const char* in;
    char sep;
    const char* out;
    bool ok;
  } cases[] = {
      {"a\\\\b", '\\', "a\\b", true},          {"a\\.\\b", '\\', "a\\b", true},
      {"a\\b\\..\\c", '\\', "a\\c", true},     {"\\a\\..\\b", '\\', "b", true},
      {"a\\b\\.", '\\', "a\\b", true},         {"a\\..", '\\', "", true},
      {"\\\\srv\\x", '\\', "\\srv\\x", true},  {"..\\a", '\\', "..\\a", false},
      {"a\\..\\..\\b", '\\', "a\\..\\..\\b", false}, {"\\..\\a", '\\', "\\..\\a", false},
      {"/docs//img/./a.png", '/', "/docs/img/a.png", true},
      {"/a/b/../../c", '/', "c", true},        {"/a/b/../c/", '/', "/a/c", true},
      {"a\\..\\b", '/', "a\\..\\b", true},     {"/../etc/passwd", '/', "/../etc/passwd", false},
      {"/a/../../etc", '/', "/a/../../etc", false},
  };
  for (auto& c : cases) {
    CStr s(c.in);
    EXPECT_EQ(s.PathSimplify(c.sep), c.ok) << c.in;
    EXPECT_EQ(Text(s), c.out) << c.in;
  }
}

TEST(CStr, FileAndDirectoryHelpers) {
  testsup::TempDir scratch;
  std::string dir = scratch.Join("cstr");
  ASSERT_TRUE(fs::create_directory(dir));
  CStr name((dir + "/a.txt").c_str()), moved((dir + "/b.txt").c_str()), sub((dir + "/sub").c_str());
  ASSERT_TRUE(CStr("one\0two", 7).SaveToFile(name.Str));
  EXPECT_EQ(name.FileSize(), 7);
  CStr loaded("old");
  ASSERT_TRUE(loaded.LoadFromFile(name.Str));
  EXPECT_EQ(Text(loaded), std::string("one\0two", 7));
  EXPECT_FALSE(loaded.LoadFromFile((dir + "/missing").c_str()));
  EXPECT_EQ(loaded.Len, 7);  // a failed load keeps the old text
  ASSERT_TRUE(name.FileMove(moved.Str));
  EXPECT_FALSE(name.FileExist());
  EXPECT_FALSE(CStr("x").SaveToFile((dir + "/no/dir").c_str()));

  ASSERT_TRUE(sub.DirCreate());
  EXPECT_FALSE(sub.DirCreate());
  EXPECT_TRUE(sub.DirExist() && !sub.FileExist());
  EXPECT_TRUE(moved.FileDelete());
  EXPECT_FALSE(moved.FileDelete());
  EXPECT_TRUE(sub.DirDelete());
}

namespace {
int ByText(const void* a, const void* b) {
  return strcmp((*static_cast<const __cstr_list* const*>(a))->Str.c_str(),
                (*static_cast<const __cstr_list* const*>(b))->Str.c_str());
}
}  // namespace

TEST(CStrList, CursorWalksBothWaysAndJumpsToTheEnds) {
  CStrList l;
  for (const char* s : {"0", "1", "2", "3", "4", "5"}) l.Add(s);
  for (int i : {0, 1, 2, 3, 4, 5, 4, 1, 5, 0, 3, 2}) EXPECT_EQ(Text(*l[i]), std::to_string(i));
  EXPECT_EQ(l[6], nullptr);
  EXPECT_EQ(l[-1], nullptr);
}

TEST(CStrList, SortRelinksBothWaysAndFlatForms) {
  CStrList l;
  for (const char* s : {"pear", "", "fig", "apple"}) l.Add(s);
  EXPECT_EQ(Text(*l[2]), "fig");
  ASSERT_TRUE(l.Sort(ByText));
  std::string forward, backward;
  for (__cstr_list* n = l.Beg; n; n = n->Next) forward += Text(n->Str) + " ";
  for (__cstr_list* n = l.Last; n; n = n->Prev) backward += Text(n->Str) + " ";
  EXPECT_EQ(forward, " apple fig pear ");
  EXPECT_EQ(backward, "pear fig apple  ");
  EXPECT_EQ(Text(*l[2]), "fig");  // the cursor was reset by the sort

  char* block = l.ToCharNull();
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(memcmp(block, "\0apple\0fig\0pear\0\0", 17), 0);
  delete[] block;
  CCharVect* v = l.ToCharVect();
  ASSERT_NE(v, nullptr);
  EXPECT_STREQ((*v)[0], "");  // kept as "" so the vector has no hole
  EXPECT_EQ(v->GetVect()[4], nullptr);
  delete v;
  EXPECT_EQ(CStrList().ToCharNull(), nullptr);
}
