// The object JSON of one device as drivers receive it, and the helper that
// hands an object on with one more setting.
#include <gtest/gtest.h>

#include <cstdlib>

#include "Drivers/Drivers.h"
#include "FakeHost.h"
#include "TopologyTestSupport.h"

using Drivers::DriverArgs;
using TopologyTest::assertion;

namespace {

TEST(DriverArgs, SettingValuesBecomeText) {
  struct Case {
    const char* value;
    const char* text;
  } cases[] = {
      {"3", "3"},
      {"-7", "-7"},
      {"4294967295", "4294967295"},
      {"4294967296", ""},  // 64-bit integers are not settings
      {"-2147483649", ""},
      {"18446744073709551616", "1.84467e+19"},  // too wide for 64 bits, so read as a double
      {"0.5", "0.5"},
      {"1.5", "1.5"},
      {"3.0", "3"},
      {"1e20", "1e+20"},
      {"0.1234567", "0.123457"},
      {R"("0x3f")", "0x3f"},
      {"true", "true"},
      {"null", ""},
      {"{}", ""},
      {"[1]", ""},
  };
  for (const Case& c : cases) {
    const std::string json =
        std::string(R"({"did":1,"driver":"X","address":{"address":1},"driverArgs":{"v":)") + c.value + "}}";
    DriverArgs args;
    ASSERT_TRUE(args.parseJSON(json.c_str())) << json;
    EXPECT_EQ(c.text, args.driverArgs.at("v")) << c.value;
  }
}

TEST(DriverArgs, DefaultsAndExplicitKeys) {
  struct Case {
    const char* json;
    bool provideHam;
    uint32_t uid;
  } cases[] = {
      {R"({"did":7,"driver":"LM75","address":{"address":72}})", true, 0xFFFFFFFF},
      {R"({"did":7,"driver":"LM75","address":{"address":72},"provideHam":0,"uid":5})", false, 5},
      {R"({"did":7,"driver":"LM75","address":{"address":72},"provideHam":2,"uid":0})", true, 0},
  };
  for (const Case& c : cases) {
    DriverArgs args;
    ASSERT_TRUE(args.parseJSON(c.json));
    EXPECT_EQ(c.provideHam, args.provideHam) << c.json;
    EXPECT_EQ(c.uid, args.uid) << c.json;
    EXPECT_EQ("LM75", args.driver);
    EXPECT_EQ(7u, args.did);
    EXPECT_EQ(72u, args.address.address());
    EXPECT_FALSE(args.isMultiDevice);
    EXPECT_EQ(c.json, args.json);
  }
}

TEST(DriverArgs, MultiDeviceNeedsNoAddress) {
  DriverArgs args;
  ASSERT_TRUE(args.parseJSON(
      R"({"did":3,"driver":"Board","isMultiDevice":true,"multiDeviceArgs":{"led":"{\"uid\":4}","fan":"f"}})"));
  EXPECT_TRUE(args.isMultiDevice);
  EXPECT_EQ(0u, args.address.packed());
  EXPECT_EQ((std::map<std::string, std::string>{{"fan", "f"}, {"led", R"({"uid":4})"}}), args.multiDeviceArgs);
}

TEST(DriverArgs, RepeatedSettingTakesLastValueButTopLevelKeyTakesFirst) {
  DriverArgs args;
  ASSERT_TRUE(args.parseJSON(R"({"did":1,"did":2,"driver":"X","address":{"address":1},
                                 "driverArgs":{"a":"old","b":1,"a":"new"}})"));
  EXPECT_EQ(1u, args.did);
  EXPECT_EQ("new", args.driverArgs.at("a"));
  EXPECT_EQ(2u, args.driverArgs.size());
}

TEST(DriverArgs, UnparsableTextIsTracedAndFillsNothing) {
  FakeHost::reset();
  DriverArgs args;
  EXPECT_FALSE(args.parseJSON(R"({"did":1,})"));
  EXPECT_EQ(0, FakeHost::traceLevel("failed to load device from json: Missing a name for object member. offset 9"));
  EXPECT_TRUE(args.driver.empty() && args.json.empty());

  char sentinel = 0;
  char* out = &sentinel;
  EXPECT_FALSE(Drivers::insertDriverArg("{", &out, "k", "v"));
  EXPECT_EQ(&sentinel, out);
  EXPECT_EQ(0, FakeHost::traceLevel("failed to parse psu devArgs: Missing a name for object member. offset 1"));
}

TEST(InsertDriverArg, AppendsSettingThatOverridesOnParse) {
  char* out = nullptr;
  ASSERT_TRUE(Drivers::insertDriverArg(
      R"({ "did": 1, "driver": "Psu", "address": { "address": 88 }, "driverArgs": { "psuId": "1" } })", &out,
      "psuId", "2"));
  std::unique_ptr<char, decltype(&std::free)> owned(out, &std::free);
  EXPECT_STREQ(R"({"did":1,"driver":"Psu","address":{"address":88},"driverArgs":{"psuId":"1","psuId":"2"}})",
               out);
  DriverArgs args;
  ASSERT_TRUE(args.parseJSON(out));
  EXPECT_EQ("2", args.driverArgs.at("psuId"));
}

TEST(DriverArgsDeathTest, ConfigurationFaultsStopTheHost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct Case {
    const char* json;
    const char* text;
  } cases[] = {
      {"[]", "json.IsObject()"},
      {R"({"driver":"X","address":{"address":1}})", "json.HasMember( \"did\" )"},
      {R"({"did":1,"address":{"address":1}})", "json.HasMember( \"driver\" )"},
      {R"({"did":1,"driver":"X","isMultiDevice":false})", "json.HasMember( \"address\" )"},
      {R"({"did":1,"driver":"X","isMultiDevice":true})", "json.HasMember( \"multiDeviceArgs\" )"},
      {R"({"did":1,"driver":"X","isMultiDevice":true,"multiDeviceArgs":{"a":1}})", "IsString()"},
      {R"({"did":1,"driver":"X","address":{"address":1,"addrSize":4}})",
       "addr.addrSize == 1 || addr.addrSize == 2 || addr.addrSize == 4"},
  };
  for (const Case& c : cases) {
    DriverArgs args;
    EXPECT_DEATH(args.parseJSON(c.json), assertion(c.text)) << c.json;
  }
  char* out = nullptr;
  EXPECT_DEATH(Drivers::insertDriverArg(R"({"did":1})", &out, "k", "v"),
               assertion("document.HasMember( \"driverArgs\" )"));
}

}  // namespace
