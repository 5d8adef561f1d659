// Writing the player's php-cgi settings into a generated ini directory once
// per interpreter, and naming that directory in a script's environment.
#include "php_options.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "pl_fs.h"
#include "pl_thread.h"

namespace {

const char kRequired[] =
    "; Written by Lumetta for the php-cgi it runs; removed when it ends.\n"
    // The player talks to the interpreter directly, not through a
    // redirecting web server, so the REDIRECT_STATUS guard is off; the
    // script is found through SCRIPT_FILENAME, which needs fix_pathinfo.
    "cgi.force_redirect=0\n"
    "cgi.fix_pathinfo=1\n";
// The system's php.ini caps uploads far below what the player accepts; a
// bundled php.ini is the application author's to decide.
const char kSystemLimits[] = "post_max_size=64M\nupload_max_filesize=64M\n";

// The generated files, one directory per process.
class OptionsFiles {
 public:
  ~OptionsFiles() {
    for (const std::string& f : Files) PlUnlink(f.c_str());
    for (const std::string& d : Subdirs) PlRmdir(d.c_str());
    if (!Dir.empty()) PlRmdir(Dir.c_str());
  }
  // The directory named name holding the file of the given text (written
  // the first time); empty on failure.
  std::string DirFor(const char* name, const std::string& text) {
    if (Dir.empty() && !PlMakePrivateTempDir("lumetta-phpini-", &Dir)) return "";
    std::string sub = Dir + PL_PATH_SEP + name;
    std::string file = sub + PL_PATH_SEP + "lumetta.ini";
    if (!PlIsDir(sub.c_str())) {
      if (!PlMkdir(sub.c_str())) return "";
      FILE* f = fopen(file.c_str(), "wb");
      if (!f) return "";
      bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
      ok = fclose(f) == 0 && ok;
      Files.push_back(file);
      Subdirs.push_back(sub);
      if (!ok) return "";
    }
    return sub;
  }

 private:
  std::string Dir;
  std::vector<std::string> Files, Subdirs;
};

PlMutex RegistryLock;
OptionsFiles Generated;
std::map<std::string, std::vector<std::string>> Registry;

}  // namespace

bool PhpRegisterOptions(const CStr& interpreterPath, const CStr& bundledIni) {
  std::string text = kRequired;
  if (bundledIni.IsEmpty()) text += kSystemLimits;
  PlLock g(RegistryLock);
  std::string dir = Generated.DirFor(bundledIni.IsEmpty() ? "system" : "bundled", text);
  if (dir.empty()) return false;
  std::vector<std::string> vars;
  const char listSep = PL_PATH_SEP == '/' ? ':' : ';';
  if (bundledIni.IsEmpty()) {
    // A leading empty entry keeps the system's own scan directory, which
    // loads its extensions.
    vars.push_back(std::string("PHP_INI_SCAN_DIR=") + listSep + dir);
  } else {
    vars.push_back(std::string("PHPRC=") + bundledIni.c_str());
    vars.push_back("PHP_INI_SCAN_DIR=" + dir);
  }
  Registry[interpreterPath.c_str()] = vars;
  return true;
}

namespace {

template <class List>
void AddOptionsTo(const CStr& interpreterPath, List& env) {
  PlLock g(RegistryLock);
  auto it = Registry.find(interpreterPath.c_str());
  if (it == Registry.end()) return;
  for (const std::string& v : it->second) env.Add(v.c_str());
}

}  // namespace

void PhpAddOptionsEnvironment(const CStr& interpreterPath, CStrList& env) { AddOptionsTo(interpreterPath, env); }
void PhpAddOptionsEnvironment(const CStr& interpreterPath, CgiEnv& env) { AddOptionsTo(interpreterPath, env); }
