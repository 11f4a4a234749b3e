#pragma once
// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
#include <string>

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Whole contents of a file ("" when it cannot be read) and writing one.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& contents);

// Gives the calling thread, and the processes it starts afterwards, a private
// mount namespace with an empty tmpfs over /var/run, so that code with fixed
// paths there (the IPMI cache and configuration) is tested without touching
// the machine's own. Once per process; false where the system forbids it.
bool enterPrivateVarRun();
