// Device addresses as the access layer receives them: each JSON field packed
// into its bits of word 1, cut to its width, with the two-bit size rule.
#include <gtest/gtest.h>

#include "Topology.h"

namespace {

TEST(AhamAddress, FieldsArePackedIntoWordOne) {
  struct Case {
    const char* json;
    uint32_t word1;
  } cases[] = {
      {R"({"address":80})", 0x02000050},  // size 1 by default
      {R"({"address":255})", 0x0200007F},
      {R"({"address":1,"writeDelay":3})", 0x32000001},
      {R"({"address":1,"readDelay":7})", 0xC2000001},
      {R"({"address":1,"busTimeout":9})", 0x02400001},
      {R"({"address":1,"extraDelay":1})", 0x0A000001},
      {R"({"address":1,"extraDelay":2})", 0x02000001},
      {R"({"address":1,"accel":130})", 0x02008001},
      {R"({"address":1,"addrSize":2})", 0x04000001},
      {R"({"address":1,"addrSize":6})", 0x04000001},
      {R"({"address":1,"addrSize":5})", 0x02000001},
      {R"({"address":127,"writeDelay":1,"readDelay":2,"busTimeout":5,"extraDelay":1,"addrSize":2,"accel":127})",
       0x9D5FC07F},
  };
  for (const Case& c : cases) {
    rapidjson::Document document;
    document.Parse(c.json);
    Topology::AhamAddress addr;
    addr.word0 = addr.word1 = 0xFFFFFFFF;
    Topology::fillAddressFromJSON(document, addr);
    EXPECT_EQ(0u, addr.word0) << c.json;
    EXPECT_EQ(c.word1, addr.word1) << std::hex << addr.word1 << " from " << c.json;
  }
}

}  // namespace
