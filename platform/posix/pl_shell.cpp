// Programs are started directly with their parameters; anything else goes to
// the desktop's opener (xdg-open, else gio open), which picks the program
// associated with the file's type.
#include "pl_shell.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "pl_fs.h"
#include "pl_process.h"
#include "pl_thread.h"

static bool DesktopOpen(const char* file, const char* params, const char* dir, int showCmd);

static std::atomic<PlShellOpenFunc> Opener{DesktopOpen};

bool PlShellOpen(const char* file, const char* params, const char* dir, int showCmd) {
  return Opener.load()(file, params, dir, showCmd);
}

void PlShellSetOpener(PlShellOpenFunc fn) { Opener = fn ? fn : DesktopOpen; }

// One word quoted so that the Windows-rule splitter gives it back unchanged.
static std::string QuoteWord(const std::string& word) {
  if (!word.empty() && word.find_first_of(" \t\"") == std::string::npos) return word;
  std::string out = "\"";
  size_t backslashes = 0;
  for (char c : word) {
    if (c == '\\') {
      backslashes++;
      continue;
    }
    out.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    out += c;
  }
  out.append(backslashes * 2, '\\');
  return out + "\"";
}

static unsigned ReapDetached(void* proc) {
  PlProc* p = static_cast<PlProc*>(proc);
  PlProcessWait(p, PL_PROC_INFINITE);
  PlProcessClose(p);
  return 0;
}

// Leaves the child to a thread of its own so that it never becomes a zombie.
static void Detach(PlProc* p) {
  PlThread* t = PlThreadStart(ReapDetached, p);
  if (t) {
    PlThreadClose(t);
  } else {
    PlProcessWait(p, PL_PROC_INFINITE);
    PlProcessClose(p);
  }
}

static PlProc* Start(const std::string& cmd, const char* dir) {
  PlProcessStartInfo info;
  info.CmdLine = cmd.c_str();
  info.CurDir = dir;
  return PlProcessStart(info);
}

// The opener tells within a moment whether it found a program for the file;
// one that stays longer has launched it and counts as a success.
static bool RunOpener(const std::string& tool, const std::string& file, const char* dir) {
  PlProc* p = Start(tool + " " + QuoteWord(file), dir);
  if (!p) return false;
  if (PlProcessWait(p, 3000) == PL_PROC_RUNNING) {
    Detach(p);
    return true;
  }
  bool ok = PlProcessExitCode(p) == 0;
  PlProcessClose(p);
  return ok;
}

// What the desktop would open for the name a page gave: a relative name
// against our current directory (not the started program's), and a bare
// name that is nothing here found on the search path, the way a shell finds
// a program. Empty when there is nothing by that name.
static std::string ResolveTarget(const char* file) {
  struct stat st;
  std::string name = file;
  if (name[0] != '/') {
    std::string cwd;
    if (stat(file, &st) != 0) {
      std::string program;
      bool bare = name.find('/') == std::string::npos;
      return bare && PlFindProgram(file, &program) ? program : std::string();
    }
    if (!PlGetCwd(&cwd)) return std::string();
    name = cwd + "/" + name;
  }
  return stat(name.c_str(), &st) == 0 ? name : std::string();
}

static bool DesktopOpen(const char* file, const char* params, const char* dir, int /*showCmd*/) {
  if (!file || !*file) return false;
  std::string target = ResolveTarget(file);
  struct stat st;
  if (target.empty() || stat(target.c_str(), &st) != 0) return false;
  if (dir && !*dir) dir = nullptr;
  if (S_ISREG(st.st_mode) && access(target.c_str(), X_OK) == 0) {
    std::string cmd = QuoteWord(target);
    if (params && *params) cmd += std::string(" ") + params;
    PlProc* p = Start(cmd, dir);
    if (!p) return false;
    Detach(p);
    return true;
  }
  if (RunOpener("xdg-open", target, dir)) return true;
  return RunOpener("gio open", target, dir);
}
