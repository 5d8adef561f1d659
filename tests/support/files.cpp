// Scratch directories and whole-file reads and writes for the tests.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "test_support.h"

namespace fs = std::filesystem;

namespace testsup {

std::string ReadFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

void WriteFile(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary).write(data.data(), (std::streamsize)data.size());
}

std::string MakeTempDir(const std::string& prefix) {
  static std::atomic<int> counter{0};
  std::random_device rd;
  fs::path p;
  do p = fs::temp_directory_path() / (prefix + std::to_string(rd()) + "-" + std::to_string(counter++));
  while (!fs::create_directory(p));
  // With "/" throughout: Windows takes it too, and paths joined with "/" by
  // the tests stay in one form (and can travel in a URL unchanged).
  return p.generic_string();
}

TempDir::TempDir() : Root(MakeTempDir("lumetta-test-")) {}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(Root, ec);
}

std::string TempDir::Write(const std::string& rel, const std::string& content) const {
  fs::create_directories(fs::path(Join(rel)).parent_path());
  WriteFile(Join(rel), content);
  return Join(rel);
}

std::string TempDir::MakeDir(const std::string& rel) const {
  fs::create_directories(fs::path(Join(rel)));
  return Join(rel);
}

}  // namespace testsup
