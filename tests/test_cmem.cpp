#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "cmem.h"
#include "cstr.h"

namespace fs = std::filesystem;

namespace {
std::string Bytes(const CMem& m) { return m.Ptr ? std::string(m.Ptr, (size_t)m.Len) : std::string(); }

char* NewBlock(const char* text) {
  size_t n = strlen(text);
  char* p = new char[n];
  memcpy(p, text, n);
  return p;
}
}  // namespace

// ---- CMem ----

TEST(CMem, ConstructorsCopyWithoutTerminator) {
  CMem fromEmpty("");
  EXPECT_EQ(fromEmpty.Ptr, nullptr);
  EXPECT_EQ(fromEmpty.Len, 0u);
  EXPECT_TRUE(CMem((const char*)nullptr).IsEmpty());
  EXPECT_TRUE(CMem(0ULL).IsEmpty());
  EXPECT_TRUE(CMem(CStr()).IsEmpty());

  CMem text("abc");
  EXPECT_EQ(text.Len, 3u);
  EXPECT_EQ(Bytes(text), "abc");
  CMem str(CStr("x\0y", 3));
  EXPECT_EQ(Bytes(str), std::string("x\0y", 3));
  const char raw[] = {1, 0, 2};
  CMem copy(raw, 3);
  EXPECT_NE((const void*)copy.Ptr, (const void*)raw);
  EXPECT_EQ(copy[2], 2);
  CMem sized(16ULL);
  EXPECT_EQ(sized.Length(), 16u);
  ASSERT_NE(sized.Data(), nullptr);
}

TEST(CMem, SetAdoptsAndEmptyFrees) {
  CMem m("old");
  char* block = NewBlock("fresh");
  m.Set(block, 5);
  EXPECT_EQ(m.Ptr, block);  // adopted, not copied
  EXPECT_EQ(Bytes(m), "fresh");
  m.Set(m.Ptr, 2);  // re-adopting its own block must not free it
  EXPECT_EQ(Bytes(m), "fr");
  m.Empty();
  EXPECT_EQ(m.Ptr, nullptr);
  EXPECT_TRUE(m.IsEmpty());
}

TEST(CMem, FilesRoundTripAndFailuresEmpty) {
  std::random_device rd;
  fs::path dir = fs::temp_directory_path() / ("lumetta_cmem_" + std::to_string(rd()));
  ASSERT_TRUE(fs::create_directory(dir));
  std::string name = (dir / "blob").string();

  std::string payload(70000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = (char)(i * 7);
  CMem out(payload.data(), payload.size());
  ASSERT_TRUE(out.SaveToFile(name.c_str()));
  CMem in;
  ASSERT_TRUE(in.LoadFromFile(name.c_str()));
  EXPECT_EQ(Bytes(in), payload);

  ASSERT_TRUE(CMem().SaveToFile(name.c_str()));
  EXPECT_TRUE(in.LoadFromFile(name.c_str()));
  EXPECT_TRUE(in.IsEmpty());
  EXPECT_FALSE(in.LoadFromFile((dir / "missing").string().c_str()));
  EXPECT_FALSE(in.LoadFromFile(""));
  EXPECT_FALSE(out.SaveToFile((dir / "no" / "dir").string().c_str()));

  std::error_code ec;
  fs::remove_all(dir, ec);
}

// ---- CMemList ----

TEST(CMemList, EmptyListFlattensToNull) {
  CMemList l;
  EXPECT_EQ(l.ToCMem(), nullptr);
  EXPECT_EQ(l.ToCStr(), nullptr);
  EXPECT_EQ(l[0], nullptr);
  EXPECT_EQ(l.GetSize(), 0u);
}

TEST(CMemList, PiecesAreAdoptedAndFlattenedInOrder) {
  CMemList l;
  char* first = NewBlock("Hello, ");
  EXPECT_EQ(l.Add(first, 7), 0);
  EXPECT_EQ(l.AddCopy("wor", 3), 1);
  EXPECT_EQ(l.AddCopy("ld\0!", 4), 2);
  EXPECT_EQ(l.AddCopy(nullptr, 0), 3);  // an empty piece counts as a node
  EXPECT_EQ(l.Count(), 4);
  EXPECT_EQ(l.GetSize(), 14u);
  EXPECT_EQ(l[0]->Ptr, first);

  CMem* all = l.ToCMem();
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(Bytes(*all), std::string("Hello, world\0!", 14));
  delete all;

  CStr* text = l.ToCStr();
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text->Len, 14);
  EXPECT_EQ(text->Str[14], 0);
  EXPECT_EQ(std::string(text->Str, 14), std::string("Hello, world\0!", 14));
  delete text;

  l.Clear();
  EXPECT_EQ(l.Count(), 0);
  EXPECT_EQ(l.GetSize(), 0u);
  EXPECT_EQ(l.Beg, nullptr);
  EXPECT_EQ(l.Last, nullptr);
}

TEST(CMemList, OnlyEmptyPiecesFlattenToEmptyObjects) {
  CMemList l;
  l.AddCopy("", 0);
  CMem* m = l.ToCMem();
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(m->IsEmpty());
  delete m;
  CStr* s = l.ToCStr();
  ASSERT_NE(s, nullptr);
  EXPECT_TRUE(s->IsEmpty());
  delete s;
}

TEST(CMemList, CursorWalksForwardBackwardAndJumps) {
  CMemList l;
  for (int i = 0; i < 7; ++i) {
    std::string piece(1, (char)('a' + i));
    l.AddCopy(piece.data(), 1);
  }
  EXPECT_EQ(l.IndexPtr, l.Beg);
  for (int i = 0; i < 7; ++i) {
    ASSERT_EQ((*l[i])[0], 'a' + i);
    EXPECT_EQ(l.Index, i);
  }
  for (int i = 5; i >= 1; --i) ASSERT_EQ((*l[i])[0], 'a' + i);
  EXPECT_EQ((*l[6])[0], 'g');
  EXPECT_EQ(l.IndexPtr, l.Last);
  EXPECT_EQ((*l[2])[0], 'c');  // four links back from the end
  EXPECT_EQ((*l[0])[0], 'a');
  EXPECT_EQ(l[7], nullptr);
  EXPECT_EQ(l[-1], nullptr);
  EXPECT_EQ(l.Index, 0);  // a miss leaves the cursor where it was
}

// ---- CCharVect ----

TEST(CCharVect, SlotsAreCopiesWithATerminatingNull) {
  CCharVect v(3);
  EXPECT_EQ(v.GetNum(), 3);
  for (int i = 0; i <= 3; ++i) EXPECT_EQ(v.GetVect()[i], nullptr);
  char arg[] = "prog";
  char* stored = v.Set(0, arg);
  ASSERT_NE(stored, nullptr);
  EXPECT_NE(stored, arg);
  arg[0] = 'X';
  EXPECT_STREQ(v[0], "prog");
  EXPECT_STREQ(v.Set(1, CStr("-x")), "-x");
  EXPECT_STREQ(v.Set(1, "--long"), "--long");  // replaces, old copy freed
  EXPECT_EQ(v.Set(2, ""), nullptr);
  EXPECT_EQ(v.Set(2, CStr()), nullptr);
  EXPECT_EQ(v.Set(3, "past"), nullptr);
  EXPECT_EQ(v.Set(-1, "before"), nullptr);
  EXPECT_EQ(v.GetVect()[3], nullptr);
  EXPECT_EQ(v[3], nullptr);
  EXPECT_EQ(v[-1], nullptr);
}

TEST(CCharVect, SlotsAfterAHoleAreFreedToo) {
  CCharVect v(3);
  v.Set(2, "late");  // runs under the leak checker in the sanitizer build
  EXPECT_STREQ(v[2], "late");
  CCharVect none(0);
  EXPECT_EQ(none.GetVect()[0], nullptr);
}
