// The settings-file reader: what the profile format gives back for names in
// any case, blanks, quotes, missing files and long values.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>

#include "cstr.h"
#include "ini_reader.h"
#include "settings.h"
#include "shell_state.h"

namespace {

class ShellIniReader : public ::testing::Test {
 protected:
  std::string Path;
  void SetUp() override {
    char tmpl[] = "/tmp/lumetta_ini_XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    Path = tmpl;
  }
  void TearDown() override { remove(Path.c_str()); }
  void Write(const std::string& text) {
    FILE* f = fopen(Path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
  }
  std::string Read(const char* key, const char* def = "dflt", const char* section = "Lumetta",
                   int size = INI_VALUE_MAX + 1) {
    char buf[1024];
    int n = ReadProfileString(section, key, def, buf, size, Path.c_str());
    EXPECT_EQ(n, int(std::string(buf).size()));
    return buf;
  }
};

TEST_F(ShellIniReader, NamesAreCaseBlindAndBlanksGo) {
  Write("; comment\r\n[other]\r\nTITLE=wrong\r\n  [ lumetta ]  \r\n"
        "  title  =   My App  \r\nPort=8080\r\nEMPTY=\r\nnoequals\r\nTITLE=second\r\n");
  EXPECT_EQ(Read("TITLE"), "My App");
  EXPECT_EQ(Read("port"), "8080");
  EXPECT_EQ(Read("PORT", "x", "LUMETTA"), "8080");
  EXPECT_EQ(Read("EMPTY"), "");          // present but empty: not the default
  EXPECT_EQ(Read("MISSING"), "dflt");
  EXPECT_EQ(Read("TITLE", "d", "nosuch"), "d");
}

TEST_F(ShellIniReader, OnePairOfQuotesIsStripped) {
  Write("[Lumetta]\nA=\"quoted value\"\nB='single'\nC=\"\"x\"\"\nD=\"unbalanced\nE=a \"b\" c\n"
        "F=\"mixed'\n");
  EXPECT_EQ(Read("A"), "quoted value");
  EXPECT_EQ(Read("B"), "single");
  EXPECT_EQ(Read("C"), "\"x\"");
  EXPECT_EQ(Read("D"), "\"unbalanced");
  EXPECT_EQ(Read("E"), "a \"b\" c");
  EXPECT_EQ(Read("F"), "\"mixed'");
}

TEST_F(ShellIniReader, MissingFileGivesDefaults) {
  remove(Path.c_str());
  EXPECT_EQ(Read("TITLE", "Lumetta"), "Lumetta");
  char buf[8];
  EXPECT_EQ(ReadProfileString("Lumetta", "K", "default", buf, sizeof buf, ""), 7);
  EXPECT_STREQ(buf, "default");
}

TEST_F(ShellIniReader, ValuesAndDefaultsAreCutTo259) {
  std::string longText(300, 'x');
  Write("[Lumetta]\nTITLE=" + longText + "\n");
  EXPECT_EQ(Read("TITLE"), std::string(259, 'x'));
  EXPECT_EQ(Read("OTHER", longText.c_str()), std::string(259, 'x'));
  EXPECT_EQ(Read("TITLE", "d", "Lumetta", 5), "xxxx");
}

TEST_F(ShellIniReader, EachCallReadsTheFileAgain) {
  Write("[Lumetta]\nPORT=1\n");
  EXPECT_EQ(Read("PORT"), "1");
  Write("[Lumetta]\nPORT=2\n");
  EXPECT_EQ(Read("PORT"), "2");
  remove(Path.c_str());
  EXPECT_EQ(Read("PORT"), "dflt");
}

TEST_F(ShellIniReader, MissingFileGivesTheTableDefaults) {
  remove(Path.c_str());
  IniFile = Path.c_str();
  CStr text;
  ReadIniKey(&text, INI_HOMEDIR);
  EXPECT_STREQ(text.c_str(), "%PROGDIR%");
  EXPECT_EQ(ReadIniInt(INI_CLIENT_HEIGHT), 480);
  EXPECT_EQ(ReadIniInt(INI_PORT), 80);
  IniFile.Empty();
}

TEST_F(ShellIniReader, ReadIniKeyConvertsLikeAtol) {
  Write("[lumetta]\nport = 8580abc\nCENTER=no\nBORDER=-1\nSIZEABLE= 2\n"
        "PHP=\nTITLE=\"  Quoted  \"\n");
  IniFile = Path.c_str();
  EXPECT_EQ(ReadIniInt(INI_PORT), 8580);
  EXPECT_EQ(ReadIniInt(INI_CENTER), 0);
  EXPECT_EQ(ReadIniInt(INI_BORDER), -1);
  EXPECT_EQ(ReadIniInt(INI_SIZEABLE), 2);
  EXPECT_EQ(ReadIniInt(INI_PHP), 0);  // present but empty: not the default
  CStr title;
  ReadIniKey(&title, INI_TITLE);
  EXPECT_STREQ(title.c_str(), "  Quoted  ");
  IniFile.Empty();
}

}  // namespace
