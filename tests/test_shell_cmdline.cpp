// Splitting a command line into words and reading /INI, /START, /TITLE.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cmdline.h"

namespace {

std::vector<std::string> Split(const char* line) {
  CmdWordBlock b = SplitCommandLine(line);
  EXPECT_NE(b.Block, nullptr);
  std::vector<std::string> words;
  for (int i = 0; i < b.Count; i++) words.push_back(b.Words[i]);
  EXPECT_EQ(b.Words[b.Count], nullptr);
  FreeCmdWords(&b);
  return words;
}

using Words = std::vector<std::string>;

TEST(ShellCmdSplit, SeparatorsAndQuotes) {
  EXPECT_EQ(Split(""), Words{});
  EXPECT_EQ(Split("   \t\r\n "), Words{});
  EXPECT_EQ(Split("a  b\tc\r\nd"), (Words{"a", "b", "c", "d"}));
  EXPECT_EQ(Split("/TITLE \"My App\""), (Words{"/TITLE", "My App"}));
  // Quoted and unquoted pieces that touch form one word.
  EXPECT_EQ(Split("a\" b \"c x"), (Words{"a b c", "x"}));
  EXPECT_EQ(Split("\"a\"\"b\""), (Words{"ab"}));
  // Two quotes between separators: an empty word.
  EXPECT_EQ(Split("a \"\" b"), (Words{"a", "", "b"}));
  EXPECT_EQ(Split("\"\""), (Words{""}));
  // No escapes: backslashes stay, and an open quote runs to the end.
  EXPECT_EQ(Split("C:\\dir\\ \"x\\\" y"), (Words{"C:\\dir\\", "x\\", "y"}));
  EXPECT_EQ(Split("\"open quote"), (Words{"open quote"}));
}

TEST(ShellCmdSplit, WorstCaseFitsTheBlock) {
  // Single letters and empty words use the most pointer slots per character.
  std::string line;
  for (int i = 0; i < 200; i++) line += "x ";
  EXPECT_EQ(Split(line.c_str()).size(), 200u);
  EXPECT_EQ(Split("x").size(), 1u);
  line.clear();
  for (int i = 0; i < 100; i++) line += "\"\" ";
  EXPECT_EQ(Split(line.c_str()).size(), 100u);
}

bool Exists(const char* path) { return std::string(path) != "missing.ini"; }

struct Parsed {
  CmdResult Result;
  CmdOptions Opts;
};

Parsed Parse(const char* line) {
  CmdWordBlock b = SplitCommandLine(line);
  Parsed p;
  p.Result = ReadCmdOptions(b.Words, b.Count, &p.Opts, Exists);
  // Keep copies: the values point into the block.
  static std::string ini, start, title;
  ini = p.Opts.Ini ? p.Opts.Ini : "";
  start = p.Opts.Start ? p.Opts.Start : "";
  title = p.Opts.Title ? p.Opts.Title : "";
  p.Opts.Ini = p.Opts.Ini ? ini.c_str() : nullptr;
  p.Opts.Start = p.Opts.Start ? start.c_str() : nullptr;
  p.Opts.Title = p.Opts.Title ? title.c_str() : nullptr;
  FreeCmdWords(&b);
  return p;
}

TEST(ShellCmdOptions, ValuesAnyCaseLastWins) {
  Parsed p = Parse("/ini a.ini /Start docs/a.html /tItLe \"My App\" -x file.txt /TITLE Two");
  ASSERT_EQ(p.Result, CMD_OK);
  EXPECT_STREQ(p.Opts.Ini, "a.ini");
  EXPECT_STREQ(p.Opts.Start, "docs/a.html");
  EXPECT_STREQ(p.Opts.Title, "Two");
  p = Parse("-x bare");
  EXPECT_EQ(p.Result, CMD_OK);
  EXPECT_EQ(p.Opts.Ini, nullptr);
  EXPECT_EQ(p.Opts.Start, nullptr);
  EXPECT_EQ(p.Opts.Title, nullptr);
}

TEST(ShellCmdOptions, ValueIsTestedAgainstLaterOptions) {
  Parsed p = Parse("/START /TITLE Caption");
  ASSERT_EQ(p.Result, CMD_OK);
  EXPECT_STREQ(p.Opts.Start, "/TITLE");
  EXPECT_STREQ(p.Opts.Title, "Caption");
  EXPECT_EQ(Parse("/START /TITLE").Result, CMD_MISSING_ARGUMENT);
  // An earlier option is not re-tested: "/INI" as a /START value stays a page.
  p = Parse("/START /INI");
  EXPECT_EQ(p.Result, CMD_OK);
  EXPECT_STREQ(p.Opts.Start, "/INI");
}

TEST(ShellCmdOptions, Failures) {
  EXPECT_EQ(Parse("/INI").Result, CMD_MISSING_ARGUMENT);
  EXPECT_EQ(Parse("/TITLE").Result, CMD_MISSING_ARGUMENT);
  EXPECT_EQ(Parse("x /start").Result, CMD_MISSING_ARGUMENT);
  EXPECT_EQ(Parse("/INI missing.ini /TITLE").Result, CMD_INI_NOT_FOUND);
  EXPECT_STREQ(CmdResultText(CMD_MISSING_ARGUMENT), "Missing argument");
  EXPECT_STREQ(CmdResultText(CMD_INI_NOT_FOUND), "Initialization file not found");
}

}  // namespace
