#include "extras_tmpdir.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

namespace fs = std::filesystem;

ExtrasTempDir::ExtrasTempDir() {
  static std::atomic<unsigned> serial{0};
  std::random_device rd;
  for (;;) {
    std::ostringstream name;
    name << "lumetta-extras-" << rd() << "-" << serial++;
    fs::path p = fs::temp_directory_path() / name.str();
    if (fs::create_directory(p)) {
      Dir = p.string();
      return;
    }
  }
}

ExtrasTempDir::~ExtrasTempDir() {
  std::error_code ec;
  fs::remove_all(Dir, ec);
}

std::string ExtrasTempDir::Write(const char* name, const std::string& bytes) const {
  std::string path = File(name);
  std::ofstream out(path, std::ios::binary);
  out << bytes;
  return path;
}

std::string ExtrasTempDir::Read(const char* name) const {
  std::ifstream in(File(name), std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}
