// Argument tokenizer: separators, quoting, reuse between parses and growth.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "carg.h"

namespace {

std::vector<std::string> Words(CArg& a, const char* text) {
  std::vector<std::string> words;
  for (int i = 0, n = a.Parse(text); i < n; i++) words.push_back(a.GetChar(i));
  EXPECT_EQ(a.GetChar(a.NumArgs), nullptr);
  return words;
}

using W = std::vector<std::string>;

TEST(CArg, SeparatorsAndQuoting) {
  CArg a;
  EXPECT_EQ(Words(a, "  one\ttwo\r\nthree  "), (W{"one", "two", "three"}));
  EXPECT_EQ(Words(a, "   "), W{});
  EXPECT_EQ(Words(a, "\"two words\" bare"), (W{"\"two", "words\"", "bare"}));  // quoting off
  a.SetQuotes("\"'");
  struct {
    const char* text;
    W words;
  } cases[] = {
      {"\"two words\" bare", {"two words", "bare"}},
      // Another quote inside an open one is text; only a pair at both ends goes.
      {"'it \"is\" so' a\"b c\" \"open 'x' \" x'", {"it \"is\" so", "a\"b c\"", "open 'x' ", "x'"}},
      {"\"ab\"cd'", {"ab\"cd'"}},
      {"x \"never closed here", {"x", "never closed here"}},
      {"\"\"", {""}},
  };
  for (auto& c : cases) EXPECT_EQ(Words(a, c.text), c.words) << c.text;
  a.FieldSep = ",;";
  EXPECT_EQ(Words(a, "a b,c;;d"), (W{"a b", "c", "d"}));
  // An empty text keeps the earlier arguments.
  EXPECT_EQ(a.Parse(""), 0);
  EXPECT_EQ(a.Parse(nullptr), 0);
  EXPECT_STREQ(a.GetChar(2), "d");
}

TEST(CArg, PointerArrayGrowsAndKeepsItsNullEnd) {
  CArg a;
  std::string text;
  for (int i = 0; i < 63; i++) text += "w ";
  EXPECT_EQ(a.Parse(text.c_str()), 63);
  EXPECT_EQ(a.ArgsSize, 64);
  text += "last";  // 64 arguments leave no slot for the closing NULL
  EXPECT_EQ(a.Parse(text.c_str()), 64);
  EXPECT_EQ(a.ArgsSize, 128);
  EXPECT_EQ(a.Args[64], nullptr);
  std::string many;
  for (int i = 0; i < 1000; i++) many += std::to_string(i) + " ";
  EXPECT_EQ(a.Parse(many.c_str()), 1000);
  EXPECT_EQ(a.GetInt(999), 999);
  EXPECT_EQ(a.Args[1000], nullptr);
  EXPECT_EQ(a.Parse("2.5 word"), 2);  // reuses the larger buffer
  EXPECT_DOUBLE_EQ(a.GetDouble(0), 2.5);
}

}  // namespace
