#pragma once
// The product info area of an IPMI FRU image (the platform management FRU
// information storage format): where a power supply that a management
// controller knows keeps its part/model number and its serial number.
#include <cstdint>
#include <string>

namespace Drivers {

// Takes the product part/model number and the product serial number from
// `image`. 0 on success; 1, with a trace naming what was wrong, when the
// image is short, its common header does not sum to zero (tolerated when
// `allowInvalidCommonHeaderChecksum`), or a field runs past the image or is
// not 8-bit ASCII. `slot` is the PSU number the traces show.
int readFruProductInfo(uint8_t slot, const std::string& image, bool allowInvalidCommonHeaderChecksum,
                       std::string& serial, std::string& model);

}  // namespace Drivers
