// Shared pieces of the pipe stream, gateway and run-wrapper tests: where the
// helper child program lies, and a scratch directory removed afterwards.
#ifndef LUMETTA_TESTS_ENGINES_HELPERS_H
#define LUMETTA_TESTS_ENGINES_HELPERS_H

#include <string>

// Full path of tests/helpers/pipe_helper in the build tree.
std::string EnginesHelperPath();

// Reads a whole file; empty when it cannot be read.
std::string EnginesReadFile(const std::string& path);
void EnginesWriteFile(const std::string& path, const std::string& data);

// A fresh directory below the system's temporary directory, deleted with
// everything in it when the object goes.
class EnginesTempDir {
 public:
  EnginesTempDir();
  ~EnginesTempDir();
  EnginesTempDir(const EnginesTempDir&) = delete;
  EnginesTempDir& operator=(const EnginesTempDir&) = delete;
  const std::string& Path() const { return Dir; }
  std::string operator/(const std::string& name) const { return Dir + "/" + name; }

 private:
  std::string Dir;
};

#endif
