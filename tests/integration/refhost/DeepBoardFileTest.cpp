// A board file nested a million levels deep, too deep for a recursive parser
// or writer: the reference host refuses it instead of running out of stack.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TempDir.h"

TEST(ReferenceHost, RefusesADeeplyNestedBoardFile) {
  TempDir run;
  writeFile(run.file("board.json"), "{\"topology\": " + std::string(1000000, '[') + std::string(1000000, ']') + "}");
  ChildProcess host({KELDO_HOST, "--board", run.file("board.json"), "--plugin", KELDO_PLUGIN}, {}, run.file("out"));
  for (int i = 0; host.running() && i < 1000; ++i) usleep(10000);
  const int status = host.stop(SIGKILL);
  const std::string out = readFile(run.file("out"));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << "the board file cannot be loaded: " << out;
  EXPECT_EQ(out, "keldo-host: " + run.file("board.json") + ": nested deeper than 1000 levels\n");
}
