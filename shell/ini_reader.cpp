// Reads one key from a profile-format settings file, with the defaults,
// blanks, quotes and case rules of the Windows profile reader.
#include "ini_reader.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "cstr.h"

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string TrimBlanks(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && IsBlank(s[b])) b++;
  while (e > b && IsBlank(s[e - 1])) e--;
  return s.substr(b, e - b);
}

std::string StripOneQuotePair(const std::string& v) {
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
    return v.substr(1, v.size() - 2);
  return v;
}

// Reads one line without its end-of-line characters; false at end of file.
bool ReadLine(FILE* f, std::string* line) {
  line->clear();
  int c;
  bool any = false;
  while ((c = fgetc(f)) != EOF) {
    any = true;
    if (c == '\n') break;
    line->push_back(char(c));
  }
  return any;
}

// The value of key in section, or false when there is none.
bool FindValue(FILE* f, const char* section, const char* key, std::string* value) {
  std::string line;
  bool inSection = false;
  while (ReadLine(f, &line)) {
    std::string t = TrimBlanks(line);
    if (t.empty() || t[0] == ';') continue;
    if (t[0] == '[') {
      size_t close = t.find(']');
      std::string name = TrimBlanks(t.substr(1, close == std::string::npos ? std::string::npos
                                                                             : close - 1));
      inSection = StrCompareIC(name.c_str(), section) == 0;
      continue;
    }
    if (!inSection) continue;
    size_t eq = t.find('=');
    if (eq == std::string::npos) continue;
    if (StrCompareIC(TrimBlanks(t.substr(0, eq)).c_str(), key) != 0) continue;
    *value = StripOneQuotePair(TrimBlanks(t.substr(eq + 1)));
    return true;
  }
  return false;
}

int CopyCut(const std::string& s, char* buf, int size) {
  int n = int(s.size());
  if (n > size - 1) n = size - 1;
  memcpy(buf, s.data(), size_t(n));
  buf[n] = 0;
  return n;
}

}  // namespace

int ReadProfileString(const char* section, const char* key, const char* def, char* buf,
                      int size, const char* path) {
  if (!buf || size <= 0) return 0;
  std::string value = def ? def : "";
  FILE* f = (path && *path) ? fopen(path, "rb") : nullptr;
  if (f) {
    std::string found;
    if (FindValue(f, section, key, &found)) value = found;
    fclose(f);
  }
  return CopyCut(value, buf, size);
}
