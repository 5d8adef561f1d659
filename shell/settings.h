// The player's settings: one section "Lumetta" of a profile-format file,
// read key by key through a constant table.
#ifndef LUMETTA_SHELL_SETTINGS_H
#define LUMETTA_SHELL_SETTINGS_H

// Value types of IniKeyTable rows. No key is a float (kept for the format).
enum { INI_TYPE_FLOAT = 0, INI_TYPE_STRING = 1, INI_TYPE_INT = 2 };

struct INI_KEY {
  const char* Key;
  const char* Default;  // used exactly as if the file held it
  short IniKeyType;
};

// Row numbers of IniKeyTable.
enum INI_KEYS {
  INI_TITLE, INI_TOP, INI_LEFT, INI_CENTER, INI_CLIENT_WIDTH, INI_CLIENT_HEIGHT,
  INI_SIZEABLE, INI_BORDER, INI_GLASSWIN, INI_STAYONTOP, INI_ICON, INI_ICON_SYSMENU,
  INI_ICON_MINIMIZE, INI_ICON_MAXIMIZE, INI_STATUSBAR, INI_POPUPMENU, INI_HOMEDIR, INI_PHP,
  INI_PORT, INI_PHP_WORKERS, INI_KEY_COUNT
};

extern const INI_KEY IniKeyTable[INI_KEY_COUNT];
extern const char* const IniSection;  // "Lumetta"

// Reads row `key` from the settings file IniFile into `value`: a float for
// type 0, a CStr for type 1, an int for type 2. Numbers that do not begin
// with digits read as 0. The file is read again at every call.
void ReadIniKey(void* value, int key);

// ReadIniKey for an integer row, returning the value. Text rows go through
// ReadIniKey with a CStr.
int ReadIniInt(int key);

#endif
