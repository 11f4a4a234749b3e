#include "Components/Psu.h"

#include "Components/LogicalDevice.h"

namespace Component {
namespace LogicalDevice {

const pl_psu_ops Psu::ops_ = {sizeof(pl_psu_ops),
                              nullptr,
                              &Psu::get_power_ok_callback,
                              &Psu::get_input_current_callback,
                              &Psu::get_output_current_callback,
                              &Psu::get_input_voltage_callback,
                              &Psu::get_output_voltage_callback,
                              &Psu::get_input_power_callback,
                              &Psu::get_output_power_callback};

Psu::Psu() : psu_{nullptr, &ops_, this} {}

namespace {
// Each callback's trace is its own name and nothing else.
Psu* traced(const char* name, pl_psu* psu) {
  pl_trace(4, "%s", name);
  return ownerOf<Psu>(psu);
}
}  // namespace

pl_status Psu::get_power_ok_callback(pl_psu* psu, int* ok) {
  return traced("get_power_ok_callback", psu)->get_power_ok(ok);
}
pl_status Psu::get_input_current_callback(pl_psu* psu, float* value) {
  return traced("get_input_current_callback", psu)->get_input_current(value);
}
pl_status Psu::get_output_current_callback(pl_psu* psu, float* value) {
  return traced("get_output_current_callback", psu)->get_output_current(value);
}
pl_status Psu::get_input_voltage_callback(pl_psu* psu, float* value) {
  return traced("get_input_voltage_callback", psu)->get_input_voltage(value);
}
pl_status Psu::get_output_voltage_callback(pl_psu* psu, float* value) {
  return traced("get_output_voltage_callback", psu)->get_output_voltage(value);
}
pl_status Psu::get_input_power_callback(pl_psu* psu, float* value) {
  return traced("get_input_power_callback", psu)->get_input_power(value);
}
pl_status Psu::get_output_power_callback(pl_psu* psu, float* value) {
  return traced("get_output_power_callback", psu)->get_output_power(value);
}

}  // namespace LogicalDevice
}  // namespace Component

extern "C" pl_psu* pl_psu_add(const char* objectJson) {
  using namespace Component::LogicalDevice;
  // Power supplies report their failures at level 2, unlike the other kinds.
  static const AddTraces traces = {"newPsu() failed", 2, false};
  auto newPsu = [](Component::DeviceBase& device, const Component::FactoryArgs& args) { return device.newPsu(args); };
  return handleOf(addLogicalDevice(fromObject(objectJson), traces, newPsu));
}
