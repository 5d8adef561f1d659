// CDatabase against the system's SQLite: the blob encoding, statements built
// from hostile text, key comparison and blobs.
#include <gtest/gtest.h>

#include "cdatabase.h"
#include "test_support.h"

using namespace testsup;

namespace {

// Collects result rows as "col=value" joined by ';'.
int CollectRow(void* arg, int columns, char** values, char** names) {
  std::string row;
  for (int i = 0; i < columns; ++i)
    row += std::string(i ? ";" : "") + names[i] + "=" + (values[i] ? values[i] : "<null>");
  static_cast<std::vector<std::string>*>(arg)->push_back(row);
  return 0;
}

class CDatabaseTest : public ::testing::Test {
 protected:
  TempDir Dir;
  CDatabase Db;

  void SetUp() override {
    if (!TestLibraryPresent(PL_LIB_SQLITE)) GTEST_SKIP() << "SQLite library " << PL_LIB_SQLITE << " not found";
    Db.Open(Dir.Join("test.db").c_str());
    ASSERT_TRUE(Db.Exec("CREATE TABLE people (id INTEGER PRIMARY KEY, name TEXT, note TEXT, pic BLOB);"));
    Db.SetPriKeyName("id");
  }
  std::vector<std::string> Select(const char* sql) {
    std::vector<std::string> rows;
    Db.SetCallBack(CollectRow, &rows);
    Db.Exec(sql);
    Db.SetCallBack(nullptr, nullptr);
    return rows;
  }
};

}  // namespace

TEST(CDatabaseEncoding, EdgesAndEveryByteValue) {
  unsigned char out[4];
  EXPECT_EQ(CDatabase::EncodeBinary(nullptr, 0, out), 1);
  EXPECT_STREQ(reinterpret_cast<char*>(out), "x");
  const unsigned char badEscape[] = {5, 'a', 1, 4, 'b', 0}, cutEscape[] = {5, 1, 0};
  EXPECT_EQ(CDatabase::DecodeBinary(badEscape, out), -1);
  EXPECT_EQ(CDatabase::DecodeBinary(cutEscape, out), -1);

  std::string ascending, descending;
  for (int i = 0; i < 256; ++i) ascending += (char)i, descending += (char)(255 - i);
  for (const std::string& in : {ascending, descending, std::string(1000, '\0'), std::string(1000, '\'')}) {
    std::vector<unsigned char> enc(2 * in.size());
    int n = CDatabase::EncodeBinary(reinterpret_cast<const unsigned char*>(in.data()), (int)in.size(), enc.data());
    EXPECT_EQ(std::string(enc.begin(), enc.begin() + n).find_first_of(std::string("'\0", 2)), std::string::npos);
    int m = CDatabase::DecodeBinary(enc.data(), enc.data());  // in place
    EXPECT_EQ(std::string(reinterpret_cast<char*>(enc.data()), m < 0 ? 0 : m), in);
  }
}

TEST_F(CDatabaseTest, InsertUpdateDeleteWithHostileValues) {
  const char* quoted = "O'Brien said \"hi\"";
  const char* injection = "x'); DROP TABLE people; --";
  ASSERT_TRUE(Db.Insert("people", "name", quoted, "note", injection, (const char*)nullptr));
  std::string key = std::to_string(Db.LastRowID());
  ASSERT_TRUE(Db.Insert("people", "name", "Bob", "note", (const char*)nullptr, (const char*)nullptr));
  EXPECT_EQ(Select("SELECT name, note FROM people ORDER BY id;"),
            (std::vector<std::string>{std::string("name=") + quoted + ";note=" + injection, "name=Bob;note=<null>"}));

  ASSERT_TRUE(Db.Update("people", key.c_str(), "note", "it's changed", (const char*)nullptr));
  ASSERT_TRUE(Db.Update("people", "1' OR '1'='1", "name", "hacked", (const char*)nullptr));  // matches nothing
  EXPECT_EQ(Select("SELECT name, note FROM people ORDER BY id;"),
            (std::vector<std::string>{std::string("name=") + quoted + ";note=it's changed", "name=Bob;note=<null>"}));
  ASSERT_TRUE(Db.Delete("people", key.c_str()));
  EXPECT_EQ(Select("SELECT name FROM people;"), std::vector<std::string>{"name=Bob"});
  EXPECT_FALSE(Db.Insert("people", "nosuchcolumn", "v", (const char*)nullptr));
}

TEST_F(CDatabaseTest, BlobsOfEveryByteValueRoundTrip) {
  std::string all;
  for (int i = 0; i < 3 * 256; ++i) all += (char)(i < 256 ? i : i * 37 + 11);
  ASSERT_TRUE(Db.Insert("people", "name", "blob", (const char*)nullptr));
  long long row = Db.LastRowID();
  ASSERT_TRUE(Db.BlobPut("people", "pic", 0, all.data(), (int)all.size()));  // 0: the last row
  int len = 0;
  char* back = Db.BlobGet("people", "pic", row, len);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(std::string(back, len), all);
  delete[] back;
  EXPECT_EQ(Db.BlobGet("people", "pic", row + 100, len), nullptr);
}

TEST_F(CDatabaseTest, TableNamesAndHowKeysCompare) {
  EXPECT_TRUE(Db.TableExist("people"));
  EXPECT_TRUE(Db.TableExist("main.people"));
  EXPECT_FALSE(Db.TableExist("temp.people"));
  EXPECT_FALSE(Db.TableExist(""));
  EXPECT_FALSE(Db.TableExist("people; DROP TABLE people"));
  EXPECT_TRUE(Db.TableExist("people"));

  // A key column without a declared type keeps integers and text apart.
  ASSERT_TRUE(Db.Exec("CREATE TABLE u (k, v); INSERT INTO u VALUES (5, 'int5'), ('5', 'text5'), "
                      "(-7, 'neg'), (8, 'eight'), ('a''b', 'quoted');"));
  Db.SetPriKeyName("k");
  // Update and BlobPutID compare the key as text.
  ASSERT_TRUE(Db.Update("u", "5", "v", "text5 changed", (const char*)nullptr));
  ASSERT_TRUE(Db.Update("u", "v", "v", "all?", (const char*)nullptr));  // a column's name is just text
  ASSERT_TRUE(Db.BlobPutID("u", "v", "a'b", "blob", 4));
  // Delete compares digits as a number; anything else stays one quoted value.
  for (const char* key : {"5", "-7", "8 OR 1=1", "1' OR '1'='1", "a'b"}) ASSERT_TRUE(Db.Delete("u", key)) << key;
  EXPECT_EQ(Select("SELECT k, typeof(k), v FROM u ORDER BY v;"),
            (std::vector<std::string>{"k=8;typeof(k)=integer;v=eight", "k=5;typeof(k)=text;v=text5 changed"}));
}

TEST_F(CDatabaseTest, BlobThatDoesNotDecode) {
  ASSERT_TRUE(Db.Exec("INSERT INTO people (id, pic) VALUES (1, x'05610104');"));  // escape 1 then 4
  int len = 0;
  char* raw = Db.BlobGet("people", "pic", 1, len);
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(len, -1);
  delete[] raw;
  CMem mem;
  EXPECT_FALSE(Db.BlobGet("people", "pic", 1, mem));
}
