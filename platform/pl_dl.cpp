// The shared part of run-time library loading: a "|"-separated list of names
// tried in turn, each through the platform's own loader.
#include "pl_dl.h"

#include <string>

void* PlDlOpen(const char* name) {
  if (!name) return nullptr;
  std::string names(name);
  for (size_t from = 0; from <= names.size();) {
    size_t bar = names.find('|', from);
    if (bar == std::string::npos) bar = names.size();
    std::string one = names.substr(from, bar - from);
    if (void* lib = one.empty() ? nullptr : PlDlOpenFile(one.c_str())) return lib;
    from = bar + 1;
  }
  return nullptr;
}
