// Argument tokenizer: separators, quoting, reuse between parses and growth.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "carg.h"

namespace {

TEST(CArg, SplitsAtSeparators) {
  CArg a;
  EXPECT_EQ(a.ArgsSize, 64);
  EXPECT_EQ(a.Parse("  one\ttwo\r\nthree  "), 3);
  EXPECT_STREQ(a.GetChar(0), "one");
  EXPECT_STREQ(a.GetChar(1), "two");
  EXPECT_STREQ(a.GetChar(2), "three");
  EXPECT_EQ(a.GetChar(3), nullptr);
  EXPECT_EQ(a.Args[3], nullptr);

  EXPECT_EQ(a.Parse("   "), 0);
  EXPECT_EQ(a.NumArgs, 0);
  EXPECT_EQ(a.GetChar(0), nullptr);

  a.FieldSep = ",;";
  EXPECT_EQ(a.Parse("a b,c;;d"), 3);
  EXPECT_STREQ(a.GetChar(0), "a b");
  EXPECT_STREQ(a.GetChar(2), "d");
}

TEST(CArg, EmptyTextKeepsEarlierArguments) {
  CArg a;
  ASSERT_EQ(a.Parse("x y"), 2);
  EXPECT_EQ(a.Parse(""), 0);
  EXPECT_EQ(a.Parse(nullptr), 0);
  EXPECT_EQ(a.NumArgs, 2);
  EXPECT_STREQ(a.GetChar(1), "y");
}

TEST(CArg, Quoting) {
  CArg a;
  const char* text = "\"two words\" bare";
  // Without a quote set the quotes are ordinary characters.
  EXPECT_EQ(a.Parse(text), 3);
  EXPECT_STREQ(a.GetChar(0), "\"two");
  EXPECT_STREQ(a.GetChar(1), "words\"");

  a.SetQuotes("\"'");
  EXPECT_EQ(a.Parse(text), 2);
  EXPECT_STREQ(a.GetChar(0), "two words");
  EXPECT_STREQ(a.GetChar(1), "bare");

  // A different quote inside an open one is plain text; quotes in the middle
  // stay; only a matching pair at both ends is removed.
  EXPECT_EQ(a.Parse("'it \"is\" so' a\"b c\" \"open 'x' \" x'"), 4);
  EXPECT_STREQ(a.GetChar(0), "it \"is\" so");
  EXPECT_STREQ(a.GetChar(1), "a\"b c\"");
  EXPECT_STREQ(a.GetChar(2), "open 'x' ");
  EXPECT_STREQ(a.GetChar(3), "x'");
  // Begins with one quote, ends with another: only the first one goes.
  EXPECT_EQ(a.Parse("\"ab\"cd'"), 1);
  EXPECT_STREQ(a.GetChar(0), "ab\"cd'");

  // An unclosed quote runs to the end of the text.
  EXPECT_EQ(a.Parse("x \"never closed here"), 2);
  EXPECT_STREQ(a.GetChar(1), "never closed here");
  EXPECT_EQ(a.Parse("\"\""), 1);
  EXPECT_STREQ(a.GetChar(0), "");

  a.SetQuotes("");  // quoting off again
  EXPECT_EQ(a.Parse(text), 3);
}

TEST(CArg, StripQuotes) {
  CArg a;
  a.SetQuotes("'");
  for (auto [in, out] : {std::pair{"'abc'", "abc"}, {"'abc", "abc"}, {"abc'", "abc'"}, {"'", ""}}) {
    std::string copy = in;
    char* p = &copy[0];
    a.StripQuotes(&p);
    EXPECT_STREQ(p, out) << in;
  }
}

TEST(CArg, PointerArrayGrowsInStepsOf64) {
  CArg a;
  std::string text;
  for (int i = 0; i < 63; i++) text += "w ";
  EXPECT_EQ(a.Parse(text.c_str()), 63);
  EXPECT_EQ(a.ArgsSize, 64);
  // 64 arguments leave no slot for the closing NULL: the array grows.
  text += "last";
  EXPECT_EQ(a.Parse(text.c_str()), 64);
  EXPECT_EQ(a.ArgsSize, 128);
  EXPECT_STREQ(a.GetChar(63), "last");
  EXPECT_EQ(a.Args[64], nullptr);

  std::string many;
  for (int i = 0; i < 1000; i++) many += std::to_string(i) + " ";
  EXPECT_EQ(a.Parse(many.c_str()), 1000);
  EXPECT_EQ(a.ArgsSize, 1024);
  EXPECT_EQ(a.GetInt(999), 999);
  EXPECT_EQ(a.Args[1000], nullptr);

  // The buffer is reused by a shorter text and never shrinks.
  int size = a.BufSize;
  EXPECT_EQ(a.Parse("a b"), 2);
  EXPECT_EQ(a.BufSize, size);
}

TEST(CArg, NumericAccess) {
  CArg a;
  ASSERT_EQ(a.Parse("42 -7 2.5 word 1e3"), 5);
  EXPECT_EQ(a.GetInt(0), 42);
  EXPECT_EQ(a.GetInt(1), -7);
  EXPECT_EQ(a.GetInt(3), 0);
  EXPECT_EQ(a.GetInt(-1), 0);
  EXPECT_EQ(a.GetInt(5), 0);
  EXPECT_DOUBLE_EQ(a.GetDouble(2), 2.5);
  EXPECT_FLOAT_EQ(a.GetFloat(4), 1000.0f);
  EXPECT_EQ(a.GetDouble(9) + a.GetFloat(-3), 0.0);
}

}  // namespace
