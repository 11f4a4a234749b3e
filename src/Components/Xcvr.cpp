#include "Components/Xcvr.h"

#include <string>

#include "Components/LogicalDevice.h"
#include "KeldoUtil/Assert.h"

namespace Component {
namespace LogicalDevice {

namespace {

// The family part is a union member, and C++17 can only brace-initialise the
// first one (the SFP part); the QSFP table is therefore built by assignment.
// Both start from a zeroed table, so the three slots that SFP lacks stay null.
pl_xcvr_ops sfpOps() {
  pl_xcvr_ops ops{};
  ops.size = sizeof(pl_xcvr_ops);
  ops.family = PL_XCVR_FAMILY_SFP;
  ops.u.sfp = {sizeof(pl_sfp_ops),           &SfpXcvr::getPresenceCallback,  &SfpXcvr::getTxFaultCallback,
               &SfpXcvr::getRxLosCallback,   &SfpXcvr::getTxDisableCallback, &SfpXcvr::setTxDisableCallback};
  return ops;
}

pl_xcvr_ops qsfpOps() {
  pl_xcvr_ops ops{};
  ops.size = sizeof(pl_xcvr_ops);
  ops.family = PL_XCVR_FAMILY_QSFP;
  ops.u.qsfp = {sizeof(pl_qsfp_ops),
                &QsfpXcvr::getPresenceCallback,
                &QsfpXcvr::getModSelCallback,
                &QsfpXcvr::setModSelCallback,
                &QsfpXcvr::getLpModeCallback,
                &QsfpXcvr::setLpModeCallback,
                &QsfpXcvr::getResetCallback,
                &QsfpXcvr::setResetCallback,
                &QsfpXcvr::getInterruptCallback};
  return ops;
}

// Traces name the port by its zero-based index, as the drivers do.
template <typename Xcvr>
Xcvr* reading(const char* name, pl_xcvr* handle) {
  Xcvr* xcvr = ownerOf<Xcvr>(handle);
  pl_trace(4, "%s(%u)", name, xcvr->index());
  return xcvr;
}

template <typename Xcvr>
Xcvr* setting(const char* name, pl_xcvr* handle, int value) {
  Xcvr* xcvr = ownerOf<Xcvr>(handle);
  pl_trace(4, "%s(%u, %d)", name, xcvr->index(), value);
  return xcvr;
}

}  // namespace

const pl_xcvr_ops SfpXcvr::ops_ = sfpOps();
const pl_xcvr_ops QsfpXcvr::ops_ = qsfpOps();

SfpXcvr::SfpXcvr(unsigned int index) : index_(index), xcvr_{nullptr, &ops_, this} {}
QsfpXcvr::QsfpXcvr(unsigned int index) : index_(index), xcvr_{nullptr, &ops_, this} {}

pl_status SfpXcvr::getPresenceCallback(pl_xcvr* xcvr) {
  return reading<SfpXcvr>("getPresenceCallback", xcvr)->getPresence();
}
pl_status SfpXcvr::getTxFaultCallback(pl_xcvr* xcvr, int* value) {
  return reading<SfpXcvr>("getTxFaultCallback", xcvr)->getTxFault(value);
}
pl_status SfpXcvr::getRxLosCallback(pl_xcvr* xcvr, int* value) {
  return reading<SfpXcvr>("getRxLosCallback", xcvr)->getRxLos(value);
}
pl_status SfpXcvr::getTxDisableCallback(pl_xcvr* xcvr, int* value) {
  return reading<SfpXcvr>("getTxDisableCallback", xcvr)->getTxDisable(value);
}
pl_status SfpXcvr::setTxDisableCallback(pl_xcvr* xcvr, int value) {
  return setting<SfpXcvr>("setTxDisableCallback", xcvr, value)->setTxDisable(value);
}

pl_status QsfpXcvr::getPresenceCallback(pl_xcvr* xcvr) {
  return reading<QsfpXcvr>("getPresenceCallback", xcvr)->getPresence();
}
pl_status QsfpXcvr::getModSelCallback(pl_xcvr* xcvr, int* value) {
  return reading<QsfpXcvr>("getModSelCallback", xcvr)->getModSel(value);
}
pl_status QsfpXcvr::setModSelCallback(pl_xcvr* xcvr, int value) {
  return setting<QsfpXcvr>("setModSelCallback", xcvr, value)->setModSel(value);
}
pl_status QsfpXcvr::getLpModeCallback(pl_xcvr* xcvr, int* value) {
  return reading<QsfpXcvr>("getLpModeCallback", xcvr)->getLpMode(value);
}
pl_status QsfpXcvr::setLpModeCallback(pl_xcvr* xcvr, int value) {
  return setting<QsfpXcvr>("setLpModeCallback", xcvr, value)->setLpMode(value);
}
pl_status QsfpXcvr::getResetCallback(pl_xcvr* xcvr, int* value) {
  return reading<QsfpXcvr>("getResetCallback", xcvr)->getReset(value);
}
pl_status QsfpXcvr::setResetCallback(pl_xcvr* xcvr, int value) {
  return setting<QsfpXcvr>("setResetCallback", xcvr, value)->setReset(value);
}
pl_status QsfpXcvr::getInterruptCallback(pl_xcvr* xcvr, int* value) {
  return reading<QsfpXcvr>("getInterruptCallback", xcvr)->getInterrupt(value);
}

}  // namespace LogicalDevice
}  // namespace Component

namespace {

using Component::LogicalDevice::AddTraces;

const AddTraces kQsfpFactory = {"newQsfpXcvr() failed", 0, false};
const AddTraces kSfpFactory = {"newSfpXcvr() failed", 0, false};
// The family is known only once the device's arguments are read, so the
// factory step reports its own failure with the family's factory name.
const AddTraces kXcvr = {nullptr, 0, false};

// A missing key or an unknown type is a fault of the board description.
const std::string& requiredArg(const Drivers::DriverArgs& args, const char* key, const char* missing) {
  auto it = args.driverArgs.find(key);
  if (it == args.driverArgs.end()) {
    pl_trace(0, "%s", missing);
    KELDO_ASSERT(false);
  }
  return it->second;
}

// Exact, case-sensitive: "QSFP" is not a type.
bool isQsfpType(const std::string& type) {
  if (type == "qsfp" || type == "qsfp+") {
    return true;
  }
  if (type == "sfp" || type == "sfp+") {
    return false;
  }
  pl_trace(0, "Xcvr type %s not supported", type.c_str());
  KELDO_ASSERT(false);
  return false;
}

template <typename Xcvr>
pl_xcvr* madeXcvr(Xcvr* xcvr, const AddTraces& traces) {
  if (xcvr == nullptr) {
    Component::LogicalDevice::traceFactoryFailed(traces);
  }
  return Component::LogicalDevice::handleOf(xcvr);
}

// Leading decimal digits count and the rest is ignored ("12abc" is port 12);
// text without them throws. The drivers check the range of the one-based id.
pl_xcvr* newXcvr(Component::DeviceBase& device, const Component::FactoryArgs& args) {
  const unsigned int id = static_cast<unsigned int>(
      std::stoi(requiredArg(args, "id", "No id argument given for Xcvr"), nullptr, 10));
  if (isQsfpType(requiredArg(args, "type", "No type argument given for Xcvr"))) {
    return madeXcvr(device.newQsfpXcvr(id, args), kQsfpFactory);
  }
  return madeXcvr(device.newSfpXcvr(id, args), kSfpFactory);
}

}  // namespace

extern "C" pl_xcvr* pl_xcvr_add(const char* objectJson) {
  using namespace Component::LogicalDevice;
  return addLogicalDevice(fromObject(objectJson), kXcvr, newXcvr);
}
