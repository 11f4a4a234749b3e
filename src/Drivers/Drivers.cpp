#include "Drivers/Drivers.h"

#include <cstdlib>
#include <cstring>
#include <locale>
#include <sstream>

namespace Drivers {

namespace {

// Drivers read every setting as text, so each JSON value is flattened once
// here. Integers keep their exact decimal form; anything held only as a
// double prints the way a default output stream prints it (0.5, 1e+20);
// values a driver could not use as one setting (null, objects, arrays,
// integers too wide for 32 bits) become the empty text.
std::string settingText(const rapidjson::Value& value) {
  if (value.IsInt()) return std::to_string(value.GetInt());
  if (value.IsUint()) return std::to_string(value.GetUint());
  if (value.IsString()) return std::string(value.GetString(), value.GetStringLength());
  if (value.IsDouble()) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << value.GetDouble();
    return text.str();
  }
  if (value.IsBool()) return value.GetBool() ? "true" : "false";
  return std::string();
}

std::string memberName(const rapidjson::Value& name) {
  return std::string(name.GetString(), name.GetStringLength());
}

}  // namespace

std::shared_ptr<DriverArgs> DriverArgs::fromJSON(const rapidjson::Value& json) {
  auto args = std::make_shared<DriverArgs>();
  args->parseJSON(json);
  return args;
}

// Top-level keys are looked up by name, so the first of a repeated key
// counts; inside "driverArgs" every member is assigned in document order, so
// a repeated setting takes its last value (which is how insertDriverArg
// overrides a setting it appends).
void DriverArgs::parseJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  KELDO_ASSERT(json.HasMember( "did" ));
  KELDO_ASSERT(json.HasMember( "driver" ));

  *this = DriverArgs();
  isMultiDevice = json.HasMember("isMultiDevice") && json["isMultiDevice"].GetBool();
  if (isMultiDevice) {
    KELDO_ASSERT(json.HasMember( "multiDeviceArgs" ));
  } else {
    KELDO_ASSERT(json.HasMember( "address" ));
    Topology::fillAddressFromJSON(json["address"], address);
  }
  if (json.HasMember("provideHam")) provideHam = json["provideHam"].GetUint() != 0;
  if (json.HasMember("uid")) uid = json["uid"].GetUint();
  did = json["did"].GetUint();
  const rapidjson::Value& name = json["driver"];
  driver.assign(name.GetString(), name.GetStringLength());

  if (json.HasMember("driverArgs")) {
    for (const auto& member : json["driverArgs"].GetObject()) {
      driverArgs[memberName(member.name)] = settingText(member.value);
    }
  }
  if (isMultiDevice) {
    for (const auto& member : json["multiDeviceArgs"].GetObject()) {
      const rapidjson::Value& text = member.value;
      multiDeviceArgs[memberName(member.name)] = std::string(text.GetString(), text.GetStringLength());
    }
  }
}

// Nothing below walks the document level by level (a nested setting value
// becomes the empty text), so an object of any depth is read.
bool DriverArgs::parseJSON(const char* text) {
  rapidjson::Document document;
  if (!Utils::parseJson(document, text, 0, "failed to load device from json")) {
    return false;
  }
  parseJSON(static_cast<const rapidjson::Value&>(document));
  // Simulation looks the object's "name" up in the host's own text later,
  // after the host may have released it, so the record keeps a copy.
  json = text;
  return true;
}

// The writer descends one call per level, so the text is refused beyond the
// nesting that a host thread's stack takes without harm.
bool insertDriverArg(const char* json, char** out, const char* key, const char* value) {
  rapidjson::Document document;
  if (!Utils::parseJson(document, json, 0, "failed to parse psu devArgs", Utils::kMaxJsonNesting)) {
    return false;
  }
  KELDO_ASSERT(document.HasMember( "driverArgs" ));

  rapidjson::Document::AllocatorType& allocator = document.GetAllocator();
  document["driverArgs"].AddMember(rapidjson::Value(key, allocator), rapidjson::Value(value, allocator),
                                   allocator);

  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  document.Accept(writer);

  const size_t size = buffer.GetSize();
  char* copy = static_cast<char*>(std::malloc(size + 1));
  if (copy == nullptr) return false;  // out of memory: nothing handed back
  std::memcpy(copy, buffer.GetString(), size);
  copy[size] = '\0';
  *out = copy;
  return true;
}

}  // namespace Drivers
