// A board file nested far too deep, in the topology (a million levels, too
// many for a recursive parser) or in an object (100,000 levels, too many for
// writing it back to text): the reference host refuses it with a message
// instead of running out of stack.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TempDir.h"

namespace {

std::string nested(const char* open, const char* close, int levels) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += open;
  for (int i = 0; i < levels; ++i) text += close;
  return text;
}

TEST(ReferenceHost, RefusesADeeplyNestedBoardFile) {
  TempDir run;
  const std::string deepObject = "{\"a\":" + nested("[", "]", 99999) + "}";
  for (const std::string& board : {"{\"topology\": " + nested("[", "]", 1000000) + "}",
                                   "{\"topology\": [], \"objects\": [{\"kind\": \"led\", \"object\": " + deepObject +
                                       "}]}"}) {
    writeFile(run.file("board.json"), board);
    std::remove(run.file("host.out").c_str());  // the log is appended to
    ChildProcess host({KELDO_HOST, "--board", run.file("board.json"), "--plugin", KELDO_PLUGIN}, {},
                      run.file("host.out"));
    for (int i = 0; host.running() && i < 1000; ++i) usleep(10000);
    const int status = host.stop(SIGKILL);
    const std::string out = readFile(run.file("host.out"));
    ASSERT_TRUE(WIFEXITED(status)) << out;
    EXPECT_EQ(WEXITSTATUS(status), 2) << "the board file cannot be loaded";
    EXPECT_EQ(out, "keldo-host: " + run.file("board.json") + ": nested deeper than 1000 levels\n");
  }
}

}  // namespace
