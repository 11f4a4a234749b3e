#pragma once
// Pluggable optical ports. Both module families share one host table layout
// (a family word, then the family's part); the drivers read and write the
// module signals.
#include "keldo/pl_host.h"

namespace Component {
namespace LogicalDevice {

class SfpXcvr {
 public:
  // `index` is the zero-based port: the object's id minus 1.
  explicit SfpXcvr(unsigned int index = 0);
  virtual ~SfpXcvr() = default;
  SfpXcvr(const SfpXcvr&) = delete;
  SfpXcvr& operator=(const SfpXcvr&) = delete;

  virtual pl_status getPresence() = 0;
  virtual pl_status getTxFault(int* value) = 0;
  virtual pl_status getRxLos(int* value) = 0;
  virtual pl_status getTxDisable(int* value) = 0;
  virtual pl_status setTxDisable(int value) = 0;

  pl_xcvr* handle() { return &xcvr_; }
  unsigned int index() const { return index_; }

  static pl_status getPresenceCallback(pl_xcvr* xcvr);
  static pl_status getTxFaultCallback(pl_xcvr* xcvr, int* value);
  static pl_status getRxLosCallback(pl_xcvr* xcvr, int* value);
  static pl_status getTxDisableCallback(pl_xcvr* xcvr, int* value);
  static pl_status setTxDisableCallback(pl_xcvr* xcvr, int value);

  static const pl_xcvr_ops ops_;

 protected:
  unsigned int index_;
  pl_xcvr xcvr_;
};

class QsfpXcvr {
 public:
  explicit QsfpXcvr(unsigned int index = 0);
  virtual ~QsfpXcvr() = default;
  QsfpXcvr(const QsfpXcvr&) = delete;
  QsfpXcvr& operator=(const QsfpXcvr&) = delete;

  virtual pl_status getPresence() = 0;
  virtual pl_status getModSel(int* value) = 0;
  virtual pl_status setModSel(int value) = 0;
  virtual pl_status getLpMode(int* value) = 0;
  virtual pl_status setLpMode(int value) = 0;
  virtual pl_status getReset(int* value) = 0;
  virtual pl_status setReset(int value) = 0;
  virtual pl_status getInterrupt(int* value) = 0;

  pl_xcvr* handle() { return &xcvr_; }
  unsigned int index() const { return index_; }

  static pl_status getPresenceCallback(pl_xcvr* xcvr);
  static pl_status getModSelCallback(pl_xcvr* xcvr, int* value);
  static pl_status setModSelCallback(pl_xcvr* xcvr, int value);
  static pl_status getLpModeCallback(pl_xcvr* xcvr, int* value);
  static pl_status setLpModeCallback(pl_xcvr* xcvr, int value);
  static pl_status getResetCallback(pl_xcvr* xcvr, int* value);
  static pl_status setResetCallback(pl_xcvr* xcvr, int value);
  static pl_status getInterruptCallback(pl_xcvr* xcvr, int* value);

  static const pl_xcvr_ops ops_;

 protected:
  unsigned int index_;
  pl_xcvr xcvr_;
};

}  // namespace LogicalDevice
}  // namespace Component
