// The main job end to end: the reference proxy daemon emulating the Zant-Y
// example board, and the reference host loading the plug-in and reporting
// every object of the board through its callback table.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TempDir.h"

namespace {

const std::string kBoard = std::string(KELDO_SOURCE_DIR) + "/boards/zant-y";

TEST(ReferenceHost, ReportsEveryObjectOfTheExampleBoard) {
  TempDir run;
  const std::string socket = run.file("proxy.sock");
  ChildProcess daemon({KELDO_PROXYD, "--emulation", kBoard + "/emulation.json", "--socket", socket, "--log",
                       run.file("transactions.log")},
                      {}, run.file("daemon.out"));
  ASSERT_TRUE(waitForPath(socket));

  ChildProcess host({KELDO_HOST, "--board", kBoard + "/board.json", "--plugin", KELDO_PLUGIN},
                    {"KELDO_SMBUS_SOCKET=" + socket}, run.file("host.out"));
  int deadline = 0;
  while (host.running() && deadline++ < 500) usleep(10000);
  int status = host.stop(SIGTERM);
  ASSERT_TRUE(WIFEXITED(status)) << readFile(run.file("host.out"));
  EXPECT_EQ(WEXITSTATUS(status), 0) << readFile(run.file("host.out"));

  const std::string out = readFile(run.file("host.out"));
  for (const char* line : {"pl_system_init       0", "pl_smbus_init        0", "psu1-present             bit=1",
                           "psu1-power-good          bit=1", "psu1-eeprom              readByte=0x54",
                           "psu2-slot                presence=1 psuId=2 modelName=\"PS-2471-1AZ1-LF\" serialNum=\"LSN2471B0002\"",
                           "psu1-vout-mode           readByte=0x17", "board-temperature        readByte=0x20",
                           "inlet                    temperature=32.5C",
                           "psu1                     powerOk=1 vin=230.00V iin=1.50A pin=345.0W vout=12.00V",
                           "psu2-fan2                speed=9200rpm",                                                       "sfp5                     family=sfp present=0 rxLos=1 txFault=0 txDisable=1",
                           "qsfp1                    family=qsfp present=1 reset=0 lpMode=0 interrupt=0",
                           "system-led               setGood=0", "0 failure(s)"}) {
    EXPECT_NE(out.find(line), std::string::npos) << "missing: " << line << "\n" << out;
  }
  // Every proxied read behind the PCA9548 travels as select, read, reset.
  const std::string log = readFile(run.file("transactions.log"));
  EXPECT_NE(log.find("addr=0x70 type=WRITE reg=0x4 len=0"), std::string::npos) << log;
  EXPECT_NE(log.find("addr=0x48 type=READ reg=0x0 len=1 data=- result=ok answer=20"), std::string::npos) << log;
}

}  // namespace
