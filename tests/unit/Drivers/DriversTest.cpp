// The object JSON of one device as drivers receive it, and the helper that
// hands an object on with one more setting.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "Drivers/Drivers.h"
#include "FakeHost.h"
#include "SmallStack.h"

using Drivers::DriverArgs;
using Settings = std::map<std::string, std::string>;

namespace {

std::string object(const std::string& more) { return R"({"did":7,"driver":"X","address":{"address":72})" + more + "}"; }

TEST(DriverArgs, SettingValuesBecomeText) {
  const struct {
    const char* value;
    const char* text;
  } cases[] = {
      {"3", "3"}, {"-7", "-7"}, {"4294967295", "4294967295"}, {"4294967296", ""}, {"-2147483649", ""},
      {"0.5", "0.5"}, {"1.5", "1.5"}, {"3.0", "3"}, {"1e20", "1e+20"}, {"0.1234567", "0.123457"},
      {R"("0x3f")", "0x3f"}, {"true", "true"}, {"false", "false"}, {"null", ""}, {"{}", ""}, {"[1]", ""},
  };
  for (const auto& c : cases) {
    DriverArgs args;
    ASSERT_TRUE(args.parseJSON(object(std::string(R"(,"driverArgs":{"v":)") + c.value + "}").c_str())) << c.value;
    EXPECT_EQ(c.text, args.driverArgs.at("v")) << c.value;
  }
}

TEST(DriverArgs, KeysAndTheirDefaults) {
  const struct {
    const char* more;
    bool provideHam;
    uint32_t uid;
  } cases[] = {
      {"", true, 0xFFFFFFFF}, {R"(,"provideHam":0,"uid":5)", false, 5}, {R"(,"provideHam":2,"uid":0)", true, 0}};
  for (const auto& c : cases) {
    const std::string json = object(c.more);
    DriverArgs args;
    ASSERT_TRUE(args.parseJSON(json.c_str()));
    EXPECT_EQ(std::make_tuple(c.provideHam, c.uid, std::string("X"), 7u, 72u, false, json),
              std::make_tuple(args.provideHam, args.uid, args.driver, args.did, args.address.address(),
                              args.isMultiDevice, args.json));
  }
}

TEST(DriverArgs, MultiDeviceNeedsNoAddressAndARepeatedSettingTakesItsLastValue) {
  DriverArgs multi, repeated;
  ASSERT_TRUE(multi.parseJSON(R"({"did":3,"driver":"X","isMultiDevice":true,"multiDeviceArgs":{"led":"{}","b":"f"}})"));
  EXPECT_TRUE(multi.isMultiDevice);
  EXPECT_EQ((Settings{{"b", "f"}, {"led", "{}"}}), multi.multiDeviceArgs);
  ASSERT_TRUE(repeated.parseJSON(object(R"(,"did":2,"driverArgs":{"a":"old","b":1,"a":"new"})").c_str()));
  EXPECT_EQ(7u, repeated.did);  // a repeated top-level key takes its first value
  EXPECT_EQ((Settings{{"a", "new"}, {"b", "1"}}), repeated.driverArgs);
}

TEST(InsertDriverArg, AppendsASettingThatOverridesOnParse) {
  char* out = nullptr;
  ASSERT_TRUE(Drivers::insertDriverArg(R"({ "did": 1, "driver": "Psu", "address": { "address": 88 },
                                          "driverArgs": { "psuId": "1" } })", &out, "psuId", "2"));
  std::unique_ptr<char, decltype(&std::free)> owned(out, &std::free);
  EXPECT_STREQ(R"({"did":1,"driver":"Psu","address":{"address":88},"driverArgs":{"psuId":"1","psuId":"2"}})", out);
  DriverArgs args;
  ASSERT_TRUE(args.parseJSON(out));
  EXPECT_EQ("2", args.driverArgs.at("psuId"));
}

// Text nested 100,000 levels deep is read without recursion, here on a
// 1 MiB stack. Nothing walks a setting's value, so such an object is fine;
// insertDriverArg writes the whole document back one call per level and
// refuses it.
TEST(DriverArgs, RefusedTextIsTracedAndFillsNothingAndDepthCostsNoStack) {
  FakeHost::reset();
  auto nested = [](size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
  onStackOf(1 << 20, [&] {
    DriverArgs args;
    ASSERT_TRUE(args.parseJSON(object(R"(,"driverArgs":{"deep":)" + nested(100000) + "}").c_str()));
    EXPECT_EQ("", args.driverArgs.at("deep"));
    DriverArgs refused;
    EXPECT_FALSE(refused.parseJSON(R"({"did":1,})"));
    EXPECT_TRUE(refused.driver.empty() && refused.json.empty());
    char* out = nullptr;
    EXPECT_FALSE(Drivers::insertDriverArg("{", &out, "k", "v"));
    EXPECT_FALSE(Drivers::insertDriverArg((R"({"driverArgs":{},"x":)" + nested(100000) + "}").c_str(), &out, "k", "v"));
    EXPECT_EQ(nullptr, out);
    ASSERT_TRUE(Drivers::insertDriverArg((R"({"driverArgs":{},"x":)" + nested(63) + "}").c_str(), &out, "k", "v"));
    std::free(out);  // 64 levels, the most that is written back
  });
  EXPECT_EQ(FakeHost::traceTexts(0),
            (std::vector<std::string>{"failed to load device from json: Missing a name for object member. offset 9",
                                      "failed to parse psu devArgs: Missing a name for object member. offset 1",
                                      "failed to parse psu devArgs: nested more than 64 levels deep"}));
}

TEST(DriverArgsDeathTest, ObjectFaultsStopTheHost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct {
    const char* json;
    const char* text;
  } cases[] = {
      {R"({"driver":"X","address":{"address":1}})", "json.HasMember( \"did\" )"},
      {R"({"did":1,"address":{"address":1}})", "json.HasMember( \"driver\" )"},
      {R"({"did":1,"driver":"X","isMultiDevice":false})", "json.HasMember( \"address\" )"},
      {R"({"did":1,"driver":"X","isMultiDevice":true})", "json.HasMember( \"multiDeviceArgs\" )"},
  };
  auto assertion = [](const std::string& text) { return testing::HasSubstr("Assertion `" + text + "' failed"); };
  for (const auto& c : cases) {
    DriverArgs args;
    EXPECT_DEATH(args.parseJSON(c.json), assertion(c.text)) << c.json;
  }
  char* out = nullptr;
  EXPECT_DEATH(Drivers::insertDriverArg(R"({"did":1})", &out, "k", "v"),
               assertion("document.HasMember( \"driverArgs\" )"));
}

}  // namespace
