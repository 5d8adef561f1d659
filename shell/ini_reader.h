// A reader for settings files in the classic profile format: "[Section]"
// headers and "KEY=value" lines. It gives what the Windows profile reader
// gives, so a settings file behaves the same on every platform.
#ifndef LUMETTA_SHELL_INI_READER_H
#define LUMETTA_SHELL_INI_READER_H

// Longest value handed back; longer values (and defaults) are cut to it.
const int INI_VALUE_MAX = 259;

// Copies the value of `key` in `section` of the file `path` into `buf`
// (size bytes, at least 1), or `def` when the file, the section or the key is
// missing. Section and key names are matched without regard to case; the
// first occurrence wins. Blanks around the value are removed, then one pair of
// matching quotes ('...' or "...") around the whole value. The result is cut
// to size - 1 characters. The file is read afresh at each call. Returns the
// length of the text copied.
int ReadProfileString(const char* section, const char* key, const char* def, char* buf,
                      int size, const char* path);

#endif
