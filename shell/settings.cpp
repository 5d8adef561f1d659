// The settings table of Lumetta.ini (key, default, type) and the reader that
// takes one row from the file.
#include "settings.h"

#include <cstdlib>

#include "cstr.h"
#include "ini_reader.h"
#include "shell_state.h"

const char* const IniSection = "Lumetta";

const INI_KEY IniKeyTable[INI_KEY_COUNT] = {
    {"TITLE", "Lumetta", INI_TYPE_STRING},
    {"TOP", "0", INI_TYPE_INT},
    {"LEFT", "0", INI_TYPE_INT},
    {"CENTER", "1", INI_TYPE_INT},
    {"CLIENT_WIDTH", "640", INI_TYPE_INT},
    {"CLIENT_HEIGHT", "480", INI_TYPE_INT},
    {"SIZEABLE", "1", INI_TYPE_INT},
    {"BORDER", "1", INI_TYPE_INT},
    {"GLASSWIN", "0", INI_TYPE_INT},
    {"STAYONTOP", "0", INI_TYPE_INT},
    {"ICON", "", INI_TYPE_STRING},
    {"ICON_SYSMENU", "1", INI_TYPE_INT},
    {"ICON_MINIMIZE", "1", INI_TYPE_INT},
    {"ICON_MAXIMIZE", "1", INI_TYPE_INT},
    {"STATUSBAR", "1", INI_TYPE_INT},
    {"POPUPMENU", "1", INI_TYPE_INT},
    {"HOMEDIR", "%PROGDIR%", INI_TYPE_STRING},
    {"PHP", "0", INI_TYPE_INT},
    {"PORT", "80", INI_TYPE_INT},
    // Persistent PHP interpreters; 0 starts one per request.
    {"PHP_WORKERS", "2", INI_TYPE_INT},
};

void ReadIniKey(void* value, int key) {
  const INI_KEY& row = IniKeyTable[key];
  char buf[INI_VALUE_MAX + 1];
  ReadProfileString(IniSection, row.Key, row.Default, buf, sizeof buf, IniFile.c_str());
  switch (row.IniKeyType) {
    case INI_TYPE_INT: *static_cast<int*>(value) = static_cast<int>(atol(buf)); break;
    case INI_TYPE_FLOAT: *static_cast<float*>(value) = static_cast<float>(atof(buf)); break;
    default: static_cast<CStr*>(value)->Set(buf); break;
  }
}

int ReadIniInt(int key) {
  int v = 0;
  ReadIniKey(&v, key);
  return v;
}
