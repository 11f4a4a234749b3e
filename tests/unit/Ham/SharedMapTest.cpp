// The shared key/value file: its format, and what processes that share it see.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <regex>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "Ham/SharedMap.h"
#include "TempDir.h"

namespace {

const std::string kData = KELDO_SOURCE_DIR "/tests/data/ipmi/";

// Runs `body` in a child process; its result is the child's exit status.
pid_t child(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

int exitStatus(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(SharedMap, GoldenTextsReadAsTheirMapsAndRewriteInKeyOrder) {
  rapidjson::Document cases;
  cases.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/Ham/shared-map-cases.json").c_str());
  for (const auto& c : cases["cases"].GetArray()) {
    TempDir dir;
    const std::string path = dir.file("cache"), golden = kData + c["file"].GetString();
    writeFile(path, readFile(golden));
    Ham::SharedMap map(path, false, true);
    ASSERT_TRUE(map.readFromFile()) << golden;
    std::map<std::string, std::string> expected;
    for (const auto& m : c["map"].GetObject()) {
      expected[{m.name.GetString(), m.name.GetStringLength()}] = {m.value.GetString(), m.value.GetStringLength()};
    }
    EXPECT_EQ(map.toMap(), expected) << golden;
    ASSERT_TRUE(map.writeToFile());
    if (c.HasMember("rewritten")) {
      EXPECT_EQ(readFile(path), readFile(kData + c["rewritten"].GetString()));
    }
    Ham::SharedMap again(path, true, true);
    ASSERT_TRUE(again.readFromFile());
    EXPECT_EQ(again.entries(), map.entries()) << golden;
  }
}

TEST(SharedMap, SetAndSaveTrimsFoldsKeepsOtherEntriesAndRewritesTheWholeFile) {
  TempDir dir;
  const std::string path = dir.file("config");
  writeFile(path, "sdr   True  \n");
  Ham::SharedMap config(path, false, false), cache(path, false, true);
  EXPECT_TRUE(config.setAndSave(" fanTray\t", " 2 "));
  EXPECT_EQ(readFile(path), "fanTray 2\nsdr True\n");
  EXPECT_TRUE(config.multiSetAndSave({"airflow", "fanTray"}, {"1", "3"}));
  EXPECT_EQ(readFile(path), "airflow 1\nfanTray 3\nsdr True\n");
  for (const char* key : {"", "two words", "a\rb"}) EXPECT_FALSE(config.setAndSave(key, "1")) << key;
  EXPECT_FALSE(config.setAndSave("key", "two\nlines"));
  EXPECT_TRUE(cache.setAndSave("psu1_vin", "230"));
  EXPECT_EQ(cache.get("Psu1_Vin"), "230");
  EXPECT_EQ(readFile(path), "AIRFLOW 1\nFANTRAY 3\nPSU1_VIN 230\nSDR True\n");
}

// Writers store their own keys in place under the lock, a collector replaces
// a second file whole; a reader checks every snapshot of both.
TEST(SharedMap, ProcessesStoringTheirOwnKeysLoseNothingAndReadersSeeOnlyWholeFiles) {
  TempDir dir;
  const std::string inPlace = dir.file("config"), replaced = dir.file("cache");
  constexpr int kWriters = 4, kKeys = 40, kReplacedKeys = 30;
  std::vector<pid_t> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.push_back(child([&, w] {
      Ham::SharedMap map(inPlace, false, true);
      for (int k = 0; k < kKeys; ++k) {
        if (!map.setAndSave("W" + std::to_string(w) + "_" + std::to_string(k), std::to_string(k))) return 1;
      }
      return 0;
    }));
  }
  writers.push_back(child([&] {
    Ham::SharedMap map(replaced, false, true);
    for (int round = 0; round < 200; ++round) {
      map.clear();
      for (int k = 0; k < kReplacedKeys; ++k) map.insert("R" + std::to_string(k), std::to_string(round));
      if (!map.replaceFile()) return 1;
    }
    return 0;
  }));
  const pid_t reader = child([&] {
    static const std::regex line("W\\d_(\\d+)");
    Ham::SharedMap own(inPlace, true, true), whole(replaced, true, true);
    size_t seen = 0;
    for (int read = 0; read < 300; ++read) {
      if (!own.readFromFile() || !whole.readFromFile() || own.entries().size() < seen) return 2;
      seen = own.entries().size();
      std::smatch m;
      for (const auto& e : own.entries()) {
        if (!std::regex_match(e.first, m, line) || m[1] != e.second) return 3;
      }
      const auto values = whole.toMap();
      if (!values.empty() && (values.size() != kReplacedKeys || values.begin()->second != values.rbegin()->second)) return 4;
    }
    return 0;
  });
  for (pid_t pid : writers) EXPECT_EQ(exitStatus(pid), 0);
  EXPECT_EQ(exitStatus(reader), 0);
  Ham::SharedMap result(inPlace, true, true);
  ASSERT_TRUE(result.readFromFile());
  EXPECT_EQ(result.toMap().size(), static_cast<size_t>(kWriters * kKeys));
}

TEST(SharedMap, AReplacingWriterKilledAtAnyMomentLeavesTheLastWholeFile) {
  TempDir dir;
  const std::string path = dir.file("cache");
  Ham::SharedMap map(path, false, true);
  for (int k = 0; k < 2000; ++k) map.insert("K" + std::to_string(k), "value");
  ASSERT_TRUE(map.replaceFile());
  for (int attempt = 0; attempt < 20; ++attempt) {
    const pid_t writer = child([&] {
      while (map.replaceFile()) {
      }
      return 1;
    });
    usleep(1000 + 300 * attempt);
    kill(writer, SIGKILL);
    exitStatus(writer);
    Ham::SharedMap after(path, true, true);
    ASSERT_TRUE(after.readFromFile());
    ASSERT_EQ(after.entries().size(), 2000u) << "writer killed after " << 1000 + 300 * attempt << " us";
  }
}

TEST(SharedMap, SpecialOversizedOrLockedFilesFailTheAccessInsteadOfBlockingIt) {
  TempDir dir;
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0644), 0);
  ASSERT_EQ(mkdir(dir.file("dir").c_str(), 0755), 0);
  writeFile(dir.file("big"), std::string(Ham::SharedMap::kMaxFileBytes + 1, 'x'));
  for (const char* name : {"fifo", "dir", "big"}) EXPECT_FALSE(Ham::SharedMap(dir.file(name), true, true).readFromFile()) << name;

  writeFile(dir.file("held"), "A 1\n");
  const int holder = open(dir.file("held").c_str(), O_RDONLY);  // a stopped process that holds the lock
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  Ham::SharedMap map(dir.file("held"), true, true);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(map.readFromFile());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(Ham::SharedMap::kLockWaitMs));
  close(holder);
  EXPECT_TRUE(map.readFromFile());
  EXPECT_EQ(map.get("a"), "1");
}

}  // namespace
