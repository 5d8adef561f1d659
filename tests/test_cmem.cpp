// CMem, CMemList and CCharVect: adoption, files, flattening and cursors.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "cmem.h"
#include "cstr.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {
std::string Bytes(const CMem& m) { return m.Ptr ? std::string(m.Ptr, (size_t)m.Len) : std::string(); }
}  // namespace

TEST(CMem, AdoptsBlocksAndRoundTripsFiles) {
  CMem m("old");
  char* block = new char[5];
  memcpy(block, "fresh", 5);
  m.Set(block, 5);
  EXPECT_EQ(m.Ptr, block);  // adopted, not copied
  m.Set(m.Ptr, 2);          // re-adopting its own block must not free it
  EXPECT_EQ(Bytes(m), "fr");
  EXPECT_EQ(Bytes(CMem(CStr("x\0y", 3))), std::string("x\0y", 3));

  testsup::TempDir scratch;
  fs::path dir = scratch.Join("cmem");
  ASSERT_TRUE(fs::create_directory(dir));
  std::string name = (dir / "blob").string();
  std::string payload(70000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = (char)(i * 7);
  ASSERT_TRUE(CMem(payload.data(), payload.size()).SaveToFile(name.c_str()));
  CMem in;
  ASSERT_TRUE(in.LoadFromFile(name.c_str()));
  EXPECT_EQ(Bytes(in), payload);
  EXPECT_FALSE(in.LoadFromFile((dir / "missing").string().c_str()));
}

TEST(CMemList, FlattensPiecesInOrder) {
  CMemList l;
  EXPECT_EQ(l.ToCMem(), nullptr);
  EXPECT_EQ(l.ToCStr(), nullptr);
  char* first = new char[7];
  memcpy(first, "Hello, ", 7);
  l.Add(first, 7);
  l.AddCopy("wor", 3);
  l.AddCopy("ld\0!", 4);
  l.AddCopy(nullptr, 0);
  EXPECT_EQ(l.Count(), 4);
  EXPECT_EQ(l.GetSize(), 14u);
  const std::string all("Hello, world\0!", 14);
  CMem* m = l.ToCMem();
  CStr* s = l.ToCStr();
  ASSERT_TRUE(m && s);
  EXPECT_EQ(Bytes(*m), all);
  EXPECT_EQ(std::string(s->Str, (size_t)s->Len), all);
  EXPECT_EQ(s->Str[14], 0);
  delete m;
  delete s;
}

TEST(CMemList, CursorWalksBothWaysAndJumps) {
  CMemList l;
  for (char c = 'a'; c < 'h'; ++c) l.AddCopy(&c, 1);
  for (int i : {0, 1, 2, 3, 4, 5, 6, 5, 4, 1, 6, 2, 0}) EXPECT_EQ((*l[i])[0], 'a' + i) << i;
  EXPECT_EQ(l[7], nullptr);
  EXPECT_EQ(l[-1], nullptr);
  EXPECT_EQ(l.Index, 0);  // a miss leaves the cursor where it was
}

TEST(CCharVect, SlotsAreCopiesWithATerminatingNull) {
  CCharVect v(3);
  v.Set(1, "-x");
  EXPECT_STREQ(v.Set(1, "--long"), "--long");  // replaces; the old copy is freed
  EXPECT_EQ(v.Set(2, ""), nullptr);
  EXPECT_EQ(v.Set(3, "past"), nullptr);
  EXPECT_EQ(v.GetVect()[3], nullptr);
  CCharVect hole(3);
  hole.Set(2, "late");  // slots after a hole are freed too (leak checker)
}
