// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes away.
#ifndef LUMETTA_EXTRAS_TMPDIR_H
#define LUMETTA_EXTRAS_TMPDIR_H

#include <string>

class ExtrasTempDir {
 public:
  ExtrasTempDir();
  ~ExtrasTempDir();
  ExtrasTempDir(const ExtrasTempDir&) = delete;
  ExtrasTempDir& operator=(const ExtrasTempDir&) = delete;

  const std::string& Path() const { return Dir; }
  std::string File(const char* name) const { return Dir + "/" + name; }
  // Writes bytes to a file below the directory; returns its path.
  std::string Write(const char* name, const std::string& bytes) const;
  std::string Read(const char* name) const;

 private:
  std::string Dir;
};

#endif
