// The settings-file reader and the player's settings table read through it.
#include <gtest/gtest.h>

#include <string>

#include "ini_reader.h"
#include "settings.h"
#include "shell_state.h"
#include "test_support.h"

using namespace testsup;

namespace {

class ShellSettings : public ::testing::Test {
 protected:
  TempDir Tmp;
  std::string Path = Tmp.Join("Lumetta.ini");
  void Write(const std::string& text) { Tmp.Write("Lumetta.ini", text); }
  std::string Read(const char* key, const char* def = "dflt", const char* section = "Lumetta",
                   int size = INI_VALUE_MAX + 1) {
    char buf[1024];
    int n = ReadProfileString(section, key, def, buf, size, Path.c_str());
    EXPECT_EQ(n, int(std::string(buf).size()));
    return buf;
  }
  void TearDown() override { IniFile.Empty(); }
};

TEST_F(ShellSettings, ReaderFindsValues) {
  std::string longText(300, 'x');
  Write("; comment\r\n[other]\r\nTITLE=wrong\r\n  [ lumetta ]  \r\n  title  =   My App  \r\n"
        "EMPTY=\r\nnoequals\r\nTITLE=second\r\nA=\"  quoted  \"\nB='single'\nC=\"\"x\"\"\n"
        "D=\"unbalanced\nE=a \"b\" c\nF=\"mixed'\nLONG=" + longText + "\n");
  struct Case { const char* Key; std::string Want; const char *Def = "d", *Section = "Lumetta"; };
  const Case cases[] = {
      {"TITLE", "My App"},  // names in any case, blanks dropped, first one wins
      {"EMPTY", ""},  // present but empty is not the default
      {"MISSING", "d"},
      {"TITLE", "d", "d", "nosuch"},
      {"A", "  quoted  "}, {"B", "single"}, {"C", "\"x\""},  // only one pair goes
      {"D", "\"unbalanced"}, {"E", "a \"b\" c"}, {"F", "\"mixed'"},
      {"LONG", std::string(259, 'x')},
      {"OTHER", std::string(259, 'x'), longText.c_str()},  // long defaults are cut too
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.Key);
    EXPECT_EQ(Read(c.Key, c.Def, c.Section), c.Want);
  }
}

TEST_F(ShellSettings, TableReadsTheFileAfreshWithDefaultsAndNumbers) {
  IniFile = Path.c_str();
  EXPECT_EQ(ReadIniInt(INI_PORT), 80);  // no file: the table's defaults
  EXPECT_EQ(ReadIniInt(INI_PHP_WORKERS), 2);
  Write("[lumetta]\nport = 8580abc\nCENTER=no\nBORDER=-1\nSIZEABLE=\n");
  EXPECT_EQ(ReadIniInt(INI_PORT), 8580);  // numbers read like atol
  EXPECT_EQ(ReadIniInt(INI_CENTER), 0);
  EXPECT_EQ(ReadIniInt(INI_BORDER), -1);
  EXPECT_EQ(ReadIniInt(INI_SIZEABLE), 0);  // present but empty is not the default
  Write("[Lumetta]\nPORT=2\nPHP_WORKERS=0\n");  // every call reads the file again
  EXPECT_EQ(ReadIniInt(INI_PORT), 2);
  EXPECT_EQ(ReadIniInt(INI_PHP_WORKERS), 0);
}

}  // namespace
