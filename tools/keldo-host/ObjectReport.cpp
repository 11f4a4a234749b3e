#include "ObjectReport.h"

#include <cstdio>
#include <iomanip>
#include <map>
#include <sstream>
#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "keldo/pl_host.h"

namespace {

// A reading's unit and the decimals it is shown with.
struct Unit {
  const char* symbol;
  int decimals;
};
constexpr Unit kNoUnit{"", 0}, kCelsius{"C", 1}, kVolts{"V", 2}, kAmperes{"A", 2}, kWatts{"W", 1}, kRpm{"rpm", 0};

// "name=value" (with the unit for a reading: "vout=12.00V") after running a
// getter, or "name=!<status>" when it failed. The getter runs before the
// value is formatted.
template <typename T, typename Getter>
std::string field(const char* name, Getter get, Unit unit = kNoUnit) {
  T value{};
  pl_status status = get(&value);
  std::ostringstream out;
  out << name << "=";
  if (status == PL_STATUS_OK) {
    out << std::fixed << std::setprecision(unit.decimals) << value << unit.symbol;
  } else {
    out << "!" << status;
  }
  return out.str() + " ";
}

std::string reportSystem(pl_system* o) {
  char cause[100] = "";
  char description[500] = "";
  long when = 0;
  pl_status status = o->ops->get_reload_cause(o, &cause, &when, &description);
  return status == PL_STATUS_OK ? std::string("reloadCause=") + cause + " " : "reloadCause=!" + std::to_string(status) + " ";
}

std::string reportGpio(pl_gpio* o) {
  return field<unsigned int>("bit", [o](unsigned int* v) { return o->ops->bit_read(o, v); });
}

std::string reportSmbus(pl_smbus* o, int command) {
  auto read = [o, command](std::string* text) {
    uint8_t byte = 0;
    pl_status s = command < 0 ? o->ops->receive_byte(o, &byte) : o->ops->read_byte(o, uint8_t(command), &byte);
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%02x", byte);
    *text = hex;
    return s;
  };
  return field<std::string>(command < 0 ? "receiveByte" : "readByte", read);
}

std::string reportTemp(pl_temp_sensor* o) {
  return field<float>("temperature", [o](float* v) { return o->ops->get_temperature(o, v); }, kCelsius);
}

std::string reportFan(pl_fan* o) {
  return field<int>("speed", [o](int* v) { return o->ops->get_rpm(o, v); }, kRpm);
}

std::string reportPsu(pl_psu* o) {
  const pl_psu_ops& ops = *o->ops;
  return field<int>("powerOk", [&](int* v) { return ops.get_power_ok(o, v); }) +
         field<float>("vin", [&](float* v) { return ops.get_input_voltage(o, v); }, kVolts) +
         field<float>("iin", [&](float* v) { return ops.get_input_current(o, v); }, kAmperes) +
         field<float>("pin", [&](float* v) { return ops.get_input_power(o, v); }, kWatts) +
         field<float>("vout", [&](float* v) { return ops.get_output_voltage(o, v); }, kVolts) +
         field<float>("iout", [&](float* v) { return ops.get_output_current(o, v); }, kAmperes) +
         field<float>("pout", [&](float* v) { return ops.get_output_power(o, v); }, kWatts);
}

// A slot's text is the description of the unit in it. A JSON object (a PSU
// slot's description) shows as its members, so model and serial line up.
std::string description(const char* text) {
  rapidjson::Document members;
  if (members.Parse(text).HasParseError() || !members.IsObject()) return std::string("info=") + text + " ";
  std::string shown;
  for (const auto& member : members.GetObject()) {
    rapidjson::StringBuffer value;
    rapidjson::Writer<rapidjson::StringBuffer> writer(value);
    member.value.Accept(writer);
    shown += std::string(member.name.GetString()) + "=" + value.GetString() + " ";
  }
  return shown;
}

std::string reportSlot(pl_slot* o) {
  char* text = nullptr;
  pl_status s = o->ops->get_presence(o, &text);
  return "presence=" + std::to_string(s) + " " + (text != nullptr ? description(text) : "");
}

// Presence getters return the answer itself rather than a status.
std::string presence(int answer) { return "present=" + std::to_string(answer) + " "; }

std::string reportXcvr(pl_xcvr* o) {
  if (o->ops->family == PL_XCVR_FAMILY_QSFP) {
    const pl_qsfp_ops& q = o->ops->u.qsfp;
    return "family=qsfp " + presence(q.get_presence(o)) +
           field<int>("reset", [&](int* v) { return q.get_reset(o, v); }) +
           field<int>("lpMode", [&](int* v) { return q.get_lp_mode(o, v); }) +
           field<int>("interrupt", [&](int* v) { return q.get_interrupt(o, v); });
  }
  const pl_sfp_ops& s = o->ops->u.sfp;
  return "family=sfp " + presence(s.get_presence(o)) + field<int>("rxLos", [&](int* v) { return s.get_rx_los(o, v); }) +
         field<int>("txFault", [&](int* v) { return s.get_tx_fault(o, v); }) +
         field<int>("txDisable", [&](int* v) { return s.get_tx_disable(o, v); });
}

// Like any host, this one holds every handle the plug-in gave it for as long
// as it runs; the plug-in never frees the objects behind them.
std::vector<void*>& heldHandles() {
  static auto* handles = new std::vector<void*>;  // outlives static destruction
  return *handles;
}

template <typename Object>
ObjectReport report(Object* o, const std::function<std::string(Object*)>& read) {
  heldHandles().push_back(o);
  ObjectReport r;
  r.added = o != nullptr;
  r.state = o != nullptr ? read(o) : "add failed";
  return r;
}

}  // namespace

ObjectReport addAndReport(const HostObject& obj, const SymbolLookup& lookup) {
  const std::string entry = "pl_" + obj.kind + "_add";
  void* fn = lookup(entry.c_str());
  if (fn == nullptr) return {false, "no entry point " + entry};
  const char* json = obj.json.c_str();
  if (obj.kind == "system") return report<pl_system>(reinterpret_cast<pl_system* (*)(const char*)>(fn)(json), reportSystem);
  if (obj.kind == "gpio") return report<pl_gpio>(reinterpret_cast<pl_gpio* (*)(const char*)>(fn)(json), reportGpio);
  if (obj.kind == "fan") return report<pl_fan>(reinterpret_cast<pl_fan* (*)(const char*)>(fn)(json), reportFan);
  if (obj.kind == "psu") return report<pl_psu>(reinterpret_cast<pl_psu* (*)(const char*)>(fn)(json), reportPsu);
  if (obj.kind == "slot") return report<pl_slot>(reinterpret_cast<pl_slot* (*)(const char*)>(fn)(json), reportSlot);
  if (obj.kind == "xcvr") return report<pl_xcvr>(reinterpret_cast<pl_xcvr* (*)(const char*)>(fn)(json), reportXcvr);
  if (obj.kind == "led") {
    auto* led = reinterpret_cast<pl_led* (*)(const char*)>(fn)(json);
    return report<pl_led>(led, [](pl_led* o) {
      return "setGood=" + std::to_string(o->ops->set_light_setting(o, PL_LED_GOOD)) + " ";
    });
  }
  if (obj.kind == "temp_sensor") {
    auto add = reinterpret_cast<pl_temp_sensor* (*)(const char*, float, float)>(fn);
    return report<pl_temp_sensor>(add(json, obj.alert, obj.critical), reportTemp);
  }
  if (obj.kind == "smbus") {
    auto add = reinterpret_cast<pl_smbus* (*)(const char*, uint8_t)>(fn);
    int command = obj.command;
    return report<pl_smbus>(add(json, uint8_t(obj.address)), [command](pl_smbus* o) { return reportSmbus(o, command); });
  }
  return {false, "unknown kind " + obj.kind};
}
