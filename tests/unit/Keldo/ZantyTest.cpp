// The three name-to-factory registries hold exactly the product's rows.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "TempDir.h"
#include "Zanty.h"

namespace {

template <typename Registry>
void expectRows(const Registry& registry, const rapidjson::Value& names) {
  std::vector<std::string> rows, expected;
  for (const auto& row : registry) rows.push_back(row.first);
  for (const auto& name : names.GetArray()) expected.push_back(name.GetString());
  EXPECT_EQ(rows, expected);
}

TEST(Registries, HoldExactlyTheProductRows) {
  rapidjson::Document rows;
  rows.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/Keldo/registries.json").c_str());
  expectRows(Drivers::drivers, rows["drivers"]);
  expectRows(Ham::hams, rows["hams"]);
  expectRows(Ham::ipmiHams, rows["ipmiHams"]);
}

}  // namespace
