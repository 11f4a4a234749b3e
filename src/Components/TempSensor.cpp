#include "Components/TempSensor.h"

#include "Components/LogicalDevice.h"

namespace Component {
namespace LogicalDevice {

const pl_temp_sensor_ops TempSensor::ops_ = {sizeof(pl_temp_sensor_ops), nullptr,
                                             &TempSensor::getTemperatureCallback};

TempSensor::TempSensor() : sensor_{nullptr, &ops_, this} {}

void TempSensor::alertThresholdIs(float threshold) { alertThreshold_ = threshold; }
void TempSensor::criticalThresholdIs(float threshold) { criticalThreshold_ = threshold; }

pl_status TempSensor::getTemperatureCallback(pl_temp_sensor* sensor, float* celsius) {
  pl_trace(4, "%s(%p)", "getTemperatureCallback", static_cast<void*>(sensor));
  return ownerOf<TempSensor>(sensor)->getTemperature(celsius);
}

}  // namespace LogicalDevice
}  // namespace Component

extern "C" pl_temp_sensor* pl_temp_sensor_add(const char* objectJson, float alertThreshold,
                                              float criticalThreshold) {
  using namespace Component::LogicalDevice;
  // A failed add stays quiet here; the device layer has already said why.
  static const AddTraces traces = {"newTempSensor() failed", 0, true};
  auto newTempSensor = [](Component::DeviceBase& device, const Component::FactoryArgs& args) {
    return device.newTempSensor(args);
  };
  TempSensor* sensor = addLogicalDevice(fromObject(objectJson), traces, newTempSensor);
  if (sensor == nullptr) {
    return nullptr;
  }
  // On every add, also for a sensor that already existed: the host's
  // thresholds are the current ones.
  pl_trace(0, "setting alert threshold");
  sensor->alertThresholdIs(alertThreshold);
  pl_trace(0, "setting critical threshold");
  sensor->criticalThresholdIs(criticalThreshold);
  return sensor->handle();
}
