#pragma once
// Power supplies: power-good and six electrical readings, passed between
// host and driver unchanged (the drivers decide the units).
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

class Psu {
 public:
  Psu();
  Psu(const Psu&) = delete;
  Psu& operator=(const Psu&) = delete;

  // The operations keep the host's snake-case names; the table's first slot
  // is this class's first virtual operation, with no destructor before it.
  virtual pl_status get_power_ok(int* ok) = 0;
  virtual pl_status get_input_current(float* value) = 0;
  virtual pl_status get_output_current(float* value) = 0;
  virtual pl_status get_input_voltage(float* value) = 0;
  virtual pl_status get_output_voltage(float* value) = 0;
  virtual pl_status get_input_power(float* value) = 0;
  virtual pl_status get_output_power(float* value) = 0;

  pl_psu* handle() { return &psu_; }

  static pl_status get_power_ok_callback(pl_psu* psu, int* ok);
  static pl_status get_input_current_callback(pl_psu* psu, float* value);
  static pl_status get_output_current_callback(pl_psu* psu, float* value);
  static pl_status get_input_voltage_callback(pl_psu* psu, float* value);
  static pl_status get_output_voltage_callback(pl_psu* psu, float* value);
  static pl_status get_input_power_callback(pl_psu* psu, float* value);
  static pl_status get_output_power_callback(pl_psu* psu, float* value);

  static const pl_psu_ops ops_;

 protected:
  // Never destroyed through this class (there is no virtual destructor).
  ~Psu() = default;

  pl_psu psu_;
};

}  // namespace LogicalDevice
}  // namespace Component
