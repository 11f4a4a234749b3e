#pragma once
// Temperature sensors. The host gives the two thresholds with every add; the
// driver may program them into the chip or only keep them.
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

class TempSensor {
 public:
  TempSensor();
  virtual ~TempSensor() = default;
  TempSensor(const TempSensor&) = delete;
  TempSensor& operator=(const TempSensor&) = delete;

  // The defaults only remember the value.
  virtual void alertThresholdIs(float threshold);
  virtual void criticalThresholdIs(float threshold);
  virtual pl_status getTemperature(float* celsius) = 0;

  pl_temp_sensor* handle() { return &sensor_; }
  float alertThreshold() const { return alertThreshold_; }
  float criticalThreshold() const { return criticalThreshold_; }

  static pl_status getTemperatureCallback(pl_temp_sensor* sensor, float* celsius);

  static const pl_temp_sensor_ops ops_;

 protected:
  pl_temp_sensor sensor_;
  float alertThreshold_ = 0.0f;
  float criticalThreshold_ = 0.0f;
};

}  // namespace LogicalDevice
}  // namespace Component
