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

// An empty private /var/run (a tmpfs in a mount namespace of its own) for the
// calling thread and the processes it starts: fixed paths there are tested
// without touching the machine's. False where the system forbids it.
bool enterPrivateVarRun();
