#include "engines_helpers.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

std::string EnginesHelperPath() { return std::string(LUMETTA_HELPER_DIR) + "/pipe_helper"; }

std::string EnginesReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void EnginesWriteFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << data;
}

EnginesTempDir::EnginesTempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "lumetta-eng-XXXXXX").string();
  if (mkdtemp(&pattern[0])) Dir = pattern;
}

EnginesTempDir::~EnginesTempDir() {
  std::error_code ec;
  if (!Dir.empty()) std::filesystem::remove_all(Dir, ec);
}
