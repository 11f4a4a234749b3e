#pragma once
// A small text file of "key value" lines that several processes share: the
// IPMI cache that a collector process fills and the plug-in reads, and the
// requests the plug-in leaves for that collector. Every access opens the file,
// takes an exclusive flock, reads or rewrites the whole file and closes it, so
// the entries held here are only a snapshot of the last read.
//
// Standalone on purpose (standard library and POSIX only): the reference IPMI
// collector compiles this file too, so both sides agree on the format and the
// lock.
#include <map>
#include <string>
#include <vector>

namespace Ham {

// Appends the upper-case form of each character of `in` to `out`.
void keyToUpper(const std::string& in, std::string& out);
// `s` without leading and trailing spaces and tabs.
std::string trimWhitespace(const std::string& s);
// Reads `fd` to its end into `out`; false on a read error or a file larger
// than SharedMap::kMaxFileBytes.
bool readFromFd(int fd, std::string& out);

class SharedMap {
 public:
  using Entries = std::multimap<std::string, std::string>;

  // Nobody writes a file this large: reading one is refused rather than
  // letting a stray file fill the host's memory.
  static constexpr size_t kMaxFileBytes = 4u << 20;
  // How long an access waits for the lock before it fails. The lock is held
  // for microseconds by every well-behaved user; the bound only keeps a
  // stopped process that holds it from stopping the host thread too.
  static constexpr int kLockWaitMs = 1000;

  SharedMap(std::string path, bool readOnly, bool upperCaseKeys);
  ~SharedMap();
  SharedMap(const SharedMap&) = delete;
  SharedMap& operator=(const SharedMap&) = delete;

  // Opens, locks and reads the file; the entries read replace those held.
  bool readFromFile();
  // Opens, locks and rewrites the file in place from the entries held.
  bool writeToFile();
  // Writes the entries held to a new file beside this one and renames it over
  // it while holding the lock, so that no reader ever sees a part of it, not
  // even when the writer dies half-way.
  bool replaceFile();

  // The value of the first entry with this key, or "" when there is none.
  std::string get(const std::string& key) const;
  void insert(const std::string& key, const std::string& value);
  void erase(const std::string& key);
  void clear() { entries_.clear(); }

  // Read-modify-write of one entry under one lock: entries that other
  // processes stored meanwhile are kept. `keyFolded`: the key is already in
  // its stored form. False when the file cannot be opened, locked or
  // written, or when the pair cannot be stored as one line (a key that is
  // empty or holds a blank, a value that holds a line end).
  bool setAndSave(const std::string& key, const std::string& value, bool keyFolded = false);
  // Every pair through setAndSave; the result of the last one.
  bool multiSetAndSave(const std::vector<std::string>& keys, const std::vector<std::string>& values);

  // One value per key; of equal keys the first one.
  std::map<std::string, std::string> toMap() const;

  const std::string& path() const { return path_; }
  const Entries& entries() const { return entries_; }

 private:
  std::string folded(const std::string& key) const;
  bool open(bool writing);
  bool close();
  bool readOpenFile();
  bool rewriteOpenFile();
  std::string text() const;

  std::string path_;
  Entries entries_;
  int fd_ = -1;
  bool readOnly_;
  bool upperCaseKeys_;
};

}  // namespace Ham
