// The three name-to-factory registries hold exactly the product's rows.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "TempDir.h"
#include "Zanty.h"

namespace {

TEST(Registries, HoldExactlyTheProductRows) {
  rapidjson::Document rows;
  rows.Parse(readFile(KELDO_SOURCE_DIR "/tests/unit/Keldo/registries.json").c_str());
  auto expectRows = [&](const auto& registry, const char* name) {
    std::vector<std::string> names, expected;
    for (const auto& row : registry) names.push_back(row.first);
    for (const auto& listed : rows[name].GetArray()) expected.push_back(listed.GetString());
    EXPECT_EQ(names, expected) << name;
  };
  expectRows(Drivers::drivers, "drivers");
  expectRows(Ham::hams, "hams");
  expectRows(Ham::ipmiHams, "ipmiHams");
}

}  // namespace
