// Splitting a raw command line into words and reading the player's options.
#ifndef LUMETTA_SHELL_CMDLINE_H
#define LUMETTA_SHELL_CMDLINE_H

// One allocation holding the word pointers (ending with a null pointer) and
// the text they point into, so a word stays valid until the block is freed.
struct CmdWordBlock {
  void* Block;   // malloc'ed; free with FreeCmdWords
  char** Words;  // Count pointers, then a null pointer
  int Count;
};

// Splits `line` by the classic rules: blanks, tabs and line ends separate
// words; double quotes group and are dropped; pieces that touch form one word;
// "" alone is an empty word; a backslash is an ordinary character. Returns a
// block with Block == nullptr when memory runs out.
CmdWordBlock SplitCommandLine(const char* line);
void FreeCmdWords(CmdWordBlock* b);

enum CmdResult { CMD_OK = 0, CMD_MISSING_ARGUMENT, CMD_INI_NOT_FOUND };

// Values of /INI, /START and /TITLE; null when the option was not given.
// They point into the words passed to ReadCmdOptions.
struct CmdOptions {
  const char* Ini = nullptr;
  const char* Start = nullptr;
  const char* Title = nullptr;
};

// Reads the options in their fixed order (/INI, /START, /TITLE) at each word.
// After a match the cursor stands on the option's value, so the value itself
// is then tested against the options that follow it: "/START /TITLE x" makes
// "/TITLE" the start page and "x" the title. Unknown words are skipped. The
// /INI file is tested with fileExists as soon as it is read.
CmdResult ReadCmdOptions(char* const* words, int count, CmdOptions* out,
                         bool (*fileExists)(const char* path));

// Message text of a failed result ("" for CMD_OK).
const char* CmdResultText(CmdResult r);

#endif
