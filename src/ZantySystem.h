#pragma once
// The system object: the host's handle for whole-chassis operations.
#include "keldo/pl_host.h"

namespace ZantySystem {
// The one constant table shared by every system object.
extern const pl_system_ops ops_;
}  // namespace ZantySystem
