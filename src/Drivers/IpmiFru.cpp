#include "Drivers/IpmiFru.h"

#include "Drivers/Helpers.h"
#include "keldo/pl_host.h"

namespace Drivers {

namespace {

// Common header: format version, then the offsets of the internal use,
// chassis, board, product and multirecord areas in units of 8 bytes, a pad
// byte and a checksum that makes the 8 bytes sum to zero.
constexpr size_t kHeaderBytes = 8;
constexpr size_t kProductOffsetByte = 4;
constexpr size_t kAreaUnit = 8;
// Product info area: format version, length, language code, then
// type/length-prefixed fields in this order.
constexpr size_t kFirstFieldOffset = 3;
enum ProductField { MANUFACTURER, PRODUCT_NAME, PART_MODEL_NUMBER, PRODUCT_VERSION, SERIAL_NUMBER };
// Type/length byte: the type code in bits 7-6 (3 is 8-bit ASCII in English),
// the length in bits 5-0. 0xC1 ends the fields.
constexpr unsigned kTypeAscii = 3;
constexpr uint8_t kEndOfFields = 0xC1;

}  // namespace

int readFruProductInfo(uint8_t slot, const std::string& image, bool allowInvalidCommonHeaderChecksum,
                       std::string& serial, std::string& model) {
  if (image.size() < kHeaderBytes) {
    pl_trace(0, "PsuSlot%hhu: Error reading common header", slot);
    return 1;
  }
  if (!zeroChecksum(image.substr(0, kHeaderBytes))) {
    pl_trace(0, "PsuSlot%hhu: Common header checksum error", slot);
    if (!allowInvalidCommonHeaderChecksum) return 1;
  }
  const size_t area = static_cast<uint8_t>(image[kProductOffsetByte]) * kAreaUnit;
  size_t offset = area + kFirstFieldOffset;
  for (int field = MANUFACTURER; field <= SERIAL_NUMBER; ++field) {
    if (area == 0 || offset >= image.size()) {
      pl_trace(0, "Error reading type/length byte");
      return 1;
    }
    const uint8_t typeLength = static_cast<uint8_t>(image[offset]);
    const unsigned type = typeLength >> 6;
    const size_t length = typeLength & 0x3F;
    const bool wanted = field == PART_MODEL_NUMBER || field == SERIAL_NUMBER;
    if (wanted && (type != kTypeAscii || typeLength == kEndOfFields)) {
      pl_trace(0, "Type code %d (val 0x%02x) at offset %d", static_cast<int>(type), typeLength, static_cast<int>(offset));
      pl_trace(0, "Expected type code 3 (8-bit ASCII)");
      return 1;
    }
    if (offset + 1 + length > image.size()) {
      pl_trace(0, "Error reading product info field");
      return 1;
    }
    if (field == PART_MODEL_NUMBER) model = image.substr(offset + 1, length);
    if (field == SERIAL_NUMBER) serial = image.substr(offset + 1, length);
    offset += 1 + length;
  }
  return 0;
}

}  // namespace Drivers
