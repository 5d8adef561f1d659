// Splitting a command line into words and reading /INI, /START, /TITLE.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cmdline.h"

namespace {

using Words = std::vector<std::string>;

Words Split(const std::string& line) {
  CmdWordBlock b = SplitCommandLine(line.c_str());
  EXPECT_EQ(b.Words[b.Count], nullptr);
  Words words(b.Words, b.Words + b.Count);
  FreeCmdWords(&b);
  return words;
}

TEST(ShellCmdLine, SplitsIntoWords) {
  struct { const char* Line; Words Want; } cases[] = {
      {"   \t\r\n ", {}},
      {"a  b\tc\r\nd", {"a", "b", "c", "d"}},
      {"a\" b \"c x", {"a b c", "x"}},  // touching pieces make one word
      {"a \"\" b", {"a", "", "b"}},
      {"C:\\dir\\ \"x\\\" y", {"C:\\dir\\", "x\\", "y"}},  // a backslash escapes nothing
      {"\"open quote", {"open quote"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.Line);
    EXPECT_EQ(Split(c.Line), c.Want);
  }
  // Single letters and empty words take the most pointer slots per character.
  std::string line;
  for (int i = 0; i < 100; i++) line += "x \"\" ";
  EXPECT_EQ(Split(line).size(), 200u);
}

TEST(ShellCmdLine, ReadsOptions) {
  // Want is "ini|start|title" with "-" for an option not given; empty on failure.
  struct { const char* Line; CmdResult Result; const char* Want = ""; } cases[] = {
      {"/ini a.ini /Start docs/a.html /tItLe \"My App\" -x f.txt /TITLE Two", CMD_OK,
       "a.ini|docs/a.html|Two"},
      {"/START /TITLE Caption", CMD_OK, "-|/TITLE|Caption"},
      {"/START /INI", CMD_OK, "-|/INI|-"},  // earlier options are not tried again
      {"/START /TITLE", CMD_MISSING_ARGUMENT},
      {"/INI missing.ini /TITLE", CMD_INI_NOT_FOUND},  // the file is tested first
  };
  auto text = [](const char* v) { return std::string(v ? v : "-"); };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.Line);
    CmdWordBlock b = SplitCommandLine(c.Line);
    CmdOptions o;
    EXPECT_EQ(ReadCmdOptions(b.Words, b.Count, &o,
                             [](const char* p) { return std::string(p) != "missing.ini"; }),
              c.Result);
    bool ok = c.Result == CMD_OK;
    EXPECT_EQ(ok ? text(o.Ini) + "|" + text(o.Start) + "|" + text(o.Title) : "", c.Want);
    FreeCmdWords(&b);
  }
  EXPECT_STREQ(CmdResultText(CMD_MISSING_ARGUMENT), "Missing argument");
  EXPECT_STREQ(CmdResultText(CMD_INI_NOT_FOUND), "Initialization file not found");
}

}  // namespace
