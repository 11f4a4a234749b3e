// The three name-to-factory registries hold exactly the product's rows.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "TempDir.h"
#include "Zanty.h"

namespace {

template <typename Registry>
std::vector<std::string> names(const Registry& registry) {
  std::vector<std::string> keys;
  for (const auto& row : registry) keys.push_back(row.first);
  return keys;
}

std::vector<std::string> listed(const rapidjson::Value& array) {
  std::vector<std::string> keys;
  for (const auto& name : array.GetArray()) keys.push_back(name.GetString());
  return keys;
}

TEST(Registries, HoldExactlyTheProductRows) {
  rapidjson::Document rows;
  rows.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/Keldo/registries.json").c_str());
  EXPECT_EQ(names(Drivers::drivers), listed(rows["drivers"]));
  EXPECT_EQ(names(Ham::hams), listed(rows["hams"]));
  EXPECT_EQ(names(Ham::ipmiHams), listed(rows["ipmiHams"]));
}

}  // namespace
