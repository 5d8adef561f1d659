#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "cdatabase.h"
#include "extras_tmpdir.h"

namespace {

// Collects result rows as "col=value" joined by ';'.
int CollectRow(void* arg, int columns, char** values, char** names) {
  auto* rows = static_cast<std::vector<std::string>*>(arg);
  std::string row;
  for (int i = 0; i < columns; ++i) {
    if (i) row += ";";
    row += std::string(names[i]) + "=" + (values[i] ? values[i] : "<null>");
  }
  rows->push_back(row);
  return 0;
}

std::string Thrown(const std::function<void()>& f) {
  try {
    f();
  } catch (const char* text) {
    return text;
  }
  return "";
}

class CDatabaseTest : public ::testing::Test {
 protected:
  ExtrasTempDir Dir;
  CDatabase Db;
  std::vector<std::string> Rows;

  void SetUp() override {
    Db.Open(Dir.File("test.db").c_str());
    ASSERT_TRUE(Db.Exec("CREATE TABLE people (id INTEGER PRIMARY KEY, name TEXT, note TEXT, pic BLOB);"));
    Db.SetPriKeyName("id");
  }
  std::vector<std::string> Select(const char* sql) {
    Rows.clear();
    Db.SetCallBack(CollectRow, &Rows);
    Db.Exec(sql);
    Db.SetCallBack(nullptr, nullptr);
    return Rows;
  }
};

}  // namespace

TEST(CDatabaseEncoding, EmptyAndMalformedInput) {
  unsigned char out[4];
  EXPECT_EQ(CDatabase::EncodeBinary(nullptr, 0, out), 1);
  EXPECT_STREQ(reinterpret_cast<char*>(out), "x");
  EXPECT_EQ(CDatabase::DecodeBinary(out, out), 0);
  const unsigned char badEscape[] = {5, 'a', 1, 4, 'b', 0};
  EXPECT_EQ(CDatabase::DecodeBinary(badEscape, out), -1);
  const unsigned char cutEscape[] = {5, 1, 0};
  EXPECT_EQ(CDatabase::DecodeBinary(cutEscape, out), -1);
}

TEST(CDatabaseEncoding, OffsetChoiceAndEscapes) {
  // 0, 1 and 39 collide with offset 1 once and with offset 2 not at all.
  const unsigned char in[] = {0, 1, 39};
  unsigned char out[16];
  ASSERT_EQ(CDatabase::EncodeBinary(in, 3, out), 4);
  const unsigned char expect[] = {2, 254, 255, 37, 0};
  EXPECT_EQ(memcmp(out, expect, 5), 0);

  // With every value present each offset collides three times: the first
  // (1) wins and the bytes 1, 2 and 40 become escapes.
  unsigned char all[256], enc[300];
  for (int i = 0; i < 256; ++i) all[i] = (unsigned char)i;
  ASSERT_EQ(CDatabase::EncodeBinary(all, 256, enc), 1 + 256 + 3);
  EXPECT_EQ(enc[0], 1);
  EXPECT_EQ(enc[2], 1);  // byte 1 -> y 0 -> 1,1
  EXPECT_EQ(enc[3], 1);
}

TEST(CDatabaseEncoding, EveryByteValueInSeveralOrdersRoundTrips) {
  std::vector<std::string> inputs(3);
  for (int i = 0; i < 256 * 3; ++i) {
    if (i < 256) inputs[0] += (char)i, inputs[1] += (char)(255 - i);
    inputs[2] += (char)(i * 37 + 11);
  }
  inputs.push_back(std::string(1000, '\0'));
  inputs.push_back(std::string(1000, '\''));
  for (const std::string& in : inputs) {
    std::vector<unsigned char> enc(257 * in.size() / 254 + 3);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(in.data());
    int n = CDatabase::EncodeBinary(bytes, (int)in.size(), enc.data());
    EXPECT_EQ(std::count(enc.begin(), enc.begin() + n, '\''), 0);  // safe inside quotes
    EXPECT_EQ(std::count(enc.begin(), enc.begin() + n, 0), 0);
    int m = CDatabase::DecodeBinary(enc.data(), enc.data());  // in place
    ASSERT_GE(m, 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(enc.data()), m), in);
  }
}

TEST_F(CDatabaseTest, InsertUpdateDeleteWithHostileValues) {
  EXPECT_TRUE(Db.TableExist("people"));
  EXPECT_FALSE(Db.TableExist("nobody"));
  const char* quoted = "O'Brien said \"hi\"";
  const char* injection = "x'); DROP TABLE people; --";
  ASSERT_TRUE(Db.Insert("people", "name", quoted, "note", injection, (const char*)nullptr));
  long long first = Db.LastRowID();
  ASSERT_TRUE(Db.Insert("people", "name", "Bob", "note", (const char*)nullptr, (const char*)nullptr));
  EXPECT_EQ(Db.LastRowID(), first + 1);
  EXPECT_TRUE(Db.TableExist("people"));

  auto rows = Select("SELECT name, note FROM people ORDER BY id;");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], std::string("name=") + quoted + ";note=" + injection);
  EXPECT_EQ(rows[1], "name=Bob;note=<null>");

  std::string key = std::to_string(first);
  ASSERT_TRUE(Db.Update("people", key.c_str(), "note", "it's changed", (const char*)nullptr));
  // A key that tries to widen the WHERE clause matches nothing.
  ASSERT_TRUE(Db.Update("people", "1' OR '1'='1", "name", "hacked", (const char*)nullptr));
  rows = Select("SELECT name, note FROM people ORDER BY id;");
  EXPECT_EQ(rows[0], std::string("name=") + quoted + ";note=it's changed");
  EXPECT_EQ(rows[1], "name=Bob;note=<null>");

  ASSERT_TRUE(Db.Delete("people", key.c_str()));
  EXPECT_EQ(Select("SELECT name FROM people;"), std::vector<std::string>{"name=Bob"});
  EXPECT_FALSE(Db.Insert("people", "nosuchcolumn", "v", (const char*)nullptr));
  EXPECT_FALSE(Db.ErrStr.IsEmpty());
}

TEST_F(CDatabaseTest, NamesWithQuotesStayIdentifiers) {
  ASSERT_TRUE(Db.Exec("CREATE TABLE \"we\"\"ird\" (\"col\"\"x\" TEXT);"));
  EXPECT_TRUE(Db.TableExist("we\"ird"));
  ASSERT_TRUE(Db.Insert("we\"ird", "col\"x", "v", (const char*)nullptr));
  EXPECT_EQ(Select("SELECT * FROM \"we\"\"ird\";"), std::vector<std::string>{"col\"x=v"});
}

TEST_F(CDatabaseTest, UsageErrorsAreThrownAsTexts) {
  EXPECT_EQ(Thrown([&] { Db.Insert(nullptr, (const char*)nullptr); }), "Missing table name");
  EXPECT_EQ(Thrown([&] { Db.Update("", "1", (const char*)nullptr); }), "Missing table name");
  EXPECT_EQ(Thrown([&] { Db.Update("people", nullptr, (const char*)nullptr); }), "Missing primary key");
  EXPECT_EQ(Db.Version().First(), '3');
  Db.SetPriKeyName("");
  EXPECT_EQ(Thrown([&] { Db.Delete("people", "1"); }), "Missing primary key");
  Db.Close();
  EXPECT_EQ(Thrown([&] { Db.Exec("SELECT 1;"); }), "Database not open");
  EXPECT_EQ(Thrown([&] { Db.TableExist("people"); }), "Database not open");
  EXPECT_FALSE(Db.BlobPut("people", "pic", 1, "x", 1));
  int len = 7;
  EXPECT_EQ(Db.BlobGet("people", "pic", 1, len), nullptr);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(Thrown([&] { Db.Open(Dir.File("no/such/dir/x.db").c_str()); }), "Can't open the database");
  EXPECT_FALSE(Db.IsOpen());
}

TEST_F(CDatabaseTest, BlobsOfEveryByteValueRoundTrip) {
  std::string all;
  for (int round = 0; round < 3; ++round)
    for (int i = 0; i < 256; ++i) all += (char)(round == 1 ? 255 - i : (i * 7 + round) & 0xff);
  ASSERT_TRUE(Db.Insert("people", "name", "blob", (const char*)nullptr));
  long long row = Db.LastRowID();
  ASSERT_TRUE(Db.BlobPut("people", "pic", 0, all.data(), (int)all.size()));  // 0: last row
  int len = 0;
  char* back = Db.BlobGet("people", "pic", row, len);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(std::string(back, len), all);
  delete[] back;

  // Addressed by key, and read into a CMem.
  std::string other(300, '\0');
  other[5] = '\'';
  ASSERT_TRUE(Db.BlobPutID("people", "pic", std::to_string(row).c_str(), other.data(), (int)other.size()));
  CMem mem;
  ASSERT_TRUE(Db.BlobGet("people", "pic", row, mem));
  EXPECT_EQ(std::string(mem.Data(), mem.Length()), other);

  EXPECT_FALSE(Db.BlobPut("people", "pic", row, all.data(), 0));
  EXPECT_EQ(Db.BlobGet("people", "nosuchcolumn", row, len), nullptr);
  EXPECT_EQ(Db.BlobGet("people", "pic", row + 100, len), nullptr);
}

// Runs only when no database has bound the library yet in this process
// (CTest runs every test in a process of its own).
TEST(CDatabaseWithoutLibrary, ActsAsClosed) {
  if (!CDatabase::SetLibraryName("libsqlite3-absent.so.0")) GTEST_SKIP() << "library already bound";
  {
    CDatabase db;
    EXPECT_EQ(Thrown([&] { db.Open("x.db"); }), "Can't open the database");
    EXPECT_EQ(Thrown([&] { db.Exec("SELECT 1;"); }), "Database not open");
    EXPECT_TRUE(db.Version().IsEmpty());
    EXPECT_FALSE(CDatabase::LibraryBound());
  }
  EXPECT_TRUE(CDatabase::SetLibraryName("libsqlite3.so.0"));
  CDatabase db;
  EXPECT_TRUE(CDatabase::LibraryBound());
}
