#include "ObjectReport.h"

#include <cstdio>
#include <map>
#include <sstream>

#include "keldo/pl_host.h"

namespace {

// "name=value" for a getter, or "name=!<status>" when it failed.
template <typename T>
std::string field(const char* name, pl_status status, T value) {
  std::ostringstream out;
  out << name << "=";
  if (status == PL_STATUS_OK) {
    out << value;
  } else {
    out << "!" << status;
  }
  return out.str() + " ";
}

std::string reportSystem(pl_system* o) {
  char cause[100] = "";
  char description[500] = "";
  long when = 0;
  return field("reloadCause", o->ops->get_reload_cause(o, &cause, &when, &description), cause);
}

std::string reportGpio(pl_gpio* o) {
  unsigned int bit = 0;
  return field("bit", o->ops->bit_read(o, &bit), bit);
}

std::string reportSmbus(pl_smbus* o, int command) {
  uint8_t byte = 0;
  pl_status s = command < 0 ? o->ops->receive_byte(o, &byte) : o->ops->read_byte(o, uint8_t(command), &byte);
  char hex[8];
  std::snprintf(hex, sizeof hex, "0x%02x", byte);
  return field(command < 0 ? "receiveByte" : "readByte", s, hex);
}

std::string reportTemp(pl_temp_sensor* o) {
  float celsius = 0;
  return field("celsius", o->ops->get_temperature(o, &celsius), celsius);
}

std::string reportFan(pl_fan* o) {
  int rpm = 0;
  return field("rpm", o->ops->get_rpm(o, &rpm), rpm);
}

std::string reportPsu(pl_psu* o) {
  int ok = 0;
  float vin = 0, vout = 0, pin = 0, pout = 0;
  return field("powerOk", o->ops->get_power_ok(o, &ok), ok) + field("vin", o->ops->get_input_voltage(o, &vin), vin) +
         field("vout", o->ops->get_output_voltage(o, &vout), vout) +
         field("pin", o->ops->get_input_power(o, &pin), pin) + field("pout", o->ops->get_output_power(o, &pout), pout);
}

std::string reportSlot(pl_slot* o) {
  char* text = nullptr;
  pl_status s = o->ops->get_presence(o, &text);
  return field("presence", s, s) + (text != nullptr ? std::string("info=") + text + " " : "");
}

std::string reportXcvr(pl_xcvr* o) {
  if (o->ops->family == PL_XCVR_FAMILY_QSFP) {
    const pl_qsfp_ops& q = o->ops->u.qsfp;
    int reset = 0, lp = 0, irq = 0;
    return "family=qsfp " + field("present", PL_STATUS_OK, q.get_presence(o)) +
           field("reset", q.get_reset(o, &reset), reset) + field("lpMode", q.get_lp_mode(o, &lp), lp) +
           field("interrupt", q.get_interrupt(o, &irq), irq);
  }
  const pl_sfp_ops& s = o->ops->u.sfp;
  int los = 0, fault = 0, disable = 0;
  return "family=sfp " + field("present", PL_STATUS_OK, s.get_presence(o)) +
         field("rxLos", s.get_rx_los(o, &los), los) + field("txFault", s.get_tx_fault(o, &fault), fault) +
         field("txDisable", s.get_tx_disable(o, &disable), disable);
}

template <typename Object>
ObjectReport report(Object* o, const std::function<std::string(Object*)>& read) {
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
  // Handles are never released: the plug-in's objects live as long as the host.
  if (obj.kind == "system") return report<pl_system>(reinterpret_cast<pl_system* (*)(const char*)>(fn)(json), reportSystem);
  if (obj.kind == "gpio") return report<pl_gpio>(reinterpret_cast<pl_gpio* (*)(const char*)>(fn)(json), reportGpio);
  if (obj.kind == "fan") return report<pl_fan>(reinterpret_cast<pl_fan* (*)(const char*)>(fn)(json), reportFan);
  if (obj.kind == "psu") return report<pl_psu>(reinterpret_cast<pl_psu* (*)(const char*)>(fn)(json), reportPsu);
  if (obj.kind == "slot") return report<pl_slot>(reinterpret_cast<pl_slot* (*)(const char*)>(fn)(json), reportSlot);
  if (obj.kind == "xcvr") return report<pl_xcvr>(reinterpret_cast<pl_xcvr* (*)(const char*)>(fn)(json), reportXcvr);
  if (obj.kind == "led") {
    auto* led = reinterpret_cast<pl_led* (*)(const char*)>(fn)(json);
    return report<pl_led>(led, [](pl_led* o) { return field("setGood", o->ops->set_light_setting(o, PL_LED_GOOD), "ok"); });
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
