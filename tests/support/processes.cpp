// Child processes for the tests: the helper programs built with them,
// shell commands, and what /proc tells about a process.
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "test_support.h"

namespace testsup {

bool ProcessAlive(long long pid) {
  // A zombie still has its /proc entry; its state letter tells.
  std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  if (stat.empty()) return false;
  size_t close = stat.rfind(')');
  return close == std::string::npos || stat.compare(close + 2, 1, "Z") != 0;
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
