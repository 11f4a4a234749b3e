// The shared key/value file: its format, and what processes that share it see.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "Ham/SharedMap.h"
#include "TempDir.h"

namespace {

const std::string kData = KELDO_SOURCE_DIR "/tests/data/ipmi/";

// Runs `body` in a child process and returns its pid; the exit status is its result.
pid_t child(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

int exitStatus(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SharedMap, GoldenTextsReadAsTheirMapsAndRewriteInKeyOrder) {
  rapidjson::Document cases;
  cases.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/Ham/shared-map-cases.json").c_str());
  for (const auto& c : cases["cases"].GetArray()) {
    TempDir dir;
    const std::string path = dir.file("cache"), golden = kData + c["file"].GetString();
    writeFile(path, readFile(golden));
    Ham::SharedMap map(path, false, true);
    ASSERT_TRUE(map.readFromFile() && map.writeToFile()) << golden;
    std::map<std::string, std::string> expected;
    for (const auto& m : c["map"].GetObject()) {
      expected[{m.name.GetString(), m.name.GetStringLength()}] = {m.value.GetString(), m.value.GetStringLength()};
    }
    EXPECT_EQ(map.toMap(), expected) << golden;
    EXPECT_EQ(readFile(path), readFile(kData + c["rewritten"].GetString())) << golden;
  }
}

TEST(SharedMap, SetAndSaveTrimsFoldsKeepsOtherEntriesAndRewritesTheWholeFile) {
  TempDir dir;
  const std::string path = dir.file("config");
  writeFile(path, "sdr   True  \n");
  Ham::SharedMap config(path, false, false), cache(path, false, true);
  EXPECT_TRUE(config.multiSetAndSave({" fanTray\t", "airflow"}, {" 2 ", "1"}));
  EXPECT_EQ(readFile(path), "airflow 1\nfanTray 2\nsdr True\n");
  for (const char* key : {"", "two words"}) EXPECT_FALSE(config.setAndSave(key, "1")) << key;
  EXPECT_FALSE(config.setAndSave("key", "two\nlines"));
  EXPECT_TRUE(cache.setAndSave("psu1_vin", "230"));
  EXPECT_EQ(cache.get("Psu1_Vin"), "230");
  EXPECT_EQ(readFile(path), "AIRFLOW 1\nFANTRAY 2\nPSU1_VIN 230\nSDR True\n");
}

// Writers store their own keys under the lock while a reader checks that no
// snapshot ever lost an entry it had or held a line of another shape.
TEST(SharedMap, ProcessesStoringTheirOwnKeysLoseNothingAndReadersSeeOnlyWholeFiles) {
  TempDir dir;
  const std::string path = dir.file("config");
  constexpr int kWriters = 4, kKeys = 40;
  std::vector<pid_t> processes;
  for (int w = 0; w < kWriters; ++w) {
    processes.push_back(child([&, w] {
      Ham::SharedMap map(path, false, true);
      for (int k = 0; k < kKeys; ++k) {
        if (!map.setAndSave("W" + std::to_string(w) + "_" + std::to_string(k), std::to_string(k))) return 1;
      }
      return 0;
    }));
  }
  processes.push_back(child([&] {
    Ham::SharedMap map(path, true, true);
    for (size_t read = 0, seen = 0; read < 300; ++read, seen = map.entries().size()) {
      if (!map.readFromFile() || map.entries().size() < seen) return 2;
      for (const auto& e : map.entries()) {
        if (e.first.substr(e.first.find('_') + 1) != e.second) return 3;
      }
    }
    return 0;
  }));
  for (pid_t pid : processes) EXPECT_EQ(exitStatus(pid), 0);
  Ham::SharedMap result(path, true, true);
  ASSERT_TRUE(result.readFromFile());
  EXPECT_EQ(result.toMap().size(), static_cast<size_t>(kWriters * kKeys));
}

TEST(SharedMap, AReplacingWriterKilledAtAnyMomentLeavesTheLastWholeFile) {
  TempDir dir;
  Ham::SharedMap map(dir.file("cache"), false, true), after(dir.file("cache"), true, true);
  for (int k = 0; k < 2000; ++k) map.insert("K" + std::to_string(k), "value");
  ASSERT_TRUE(map.replaceFile());
  for (int delayUs = 1000; delayUs < 7000; delayUs += 300) {
    const pid_t writer = child([&] {
      while (map.replaceFile()) continue;
      return 1;
    });
    usleep(delayUs);
    kill(writer, SIGKILL);
    exitStatus(writer);
    ASSERT_TRUE(after.readFromFile());
    ASSERT_EQ(after.entries().size(), 2000u) << "writer killed after " << delayUs << " us";
  }
}

// A process stopped while it holds the lock must not stop the host with it.
TEST(SharedMap, AHeldLockFailsTheAccessAfterABoundedWait) {
  TempDir dir;
  writeFile(dir.file("held"), "A 1\n");
  const int holder = open(dir.file("held").c_str(), O_RDONLY);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  Ham::SharedMap map(dir.file("held"), true, true);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(map.readFromFile());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(Ham::SharedMap::kLockWaitMs));
  close(holder);
  EXPECT_TRUE(map.readFromFile());
}

}  // namespace
