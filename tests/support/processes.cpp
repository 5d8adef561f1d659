// Child processes for the tests: the helper programs built with them,
// shell commands, whether a process runs, and what /proc tells.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "pl_process.h"

#include "test_support.h"

namespace testsup {

bool ProcessAlive(long long pid) { return PlProcessIdAlive(pid); }

std::string WithoutSystemVariables(const std::string& env) {
  if (!TestOnWindows()) return env;
  std::string kept, line;
  std::istringstream lines(env);
  while (std::getline(lines, line))
    if (line.rfind("WINE", 0) != 0 && line.rfind("SystemDrive=", 0) != 0 && line.rfind("SystemRoot=", 0) != 0)
      kept += line + "\n";
  return kept;
}

int RunCommand(const std::string& command, std::string* output) {
  FILE* p = popen(command.c_str(), "r");
  if (!p) return -1;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
    if (output) output->append(buf, n);
  return pclose(p);
}

long ProcStatusKb(const std::string& field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, field.size() + 1, field + ":") == 0) return atol(line.c_str() + field.size() + 1);
  return -1;
}

std::string PipeHelperPath() { return TestExeName(std::string(LUMETTA_HELPER_DIR) + "/pipe_helper"); }
std::string PipeHelperCmd(const std::string& args) { return "\"" + PipeHelperPath() + "\" " + args; }
std::string PoolHelperPath() { return std::string(LUMETTA_HELPER_DIR) + "/pool_helper"; }

}  // namespace testsup
