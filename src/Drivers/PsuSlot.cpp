#include "Drivers/PsuSlot.h"

#include <algorithm>
#include <memory>
#include <cctype>
#include <iterator>
#include <stdexcept>

#include "Components/Gpio.h"
#include "Drivers/Helpers.h"
#include "Drivers/IpmiFru.h"
#include "Ham/Ham.h"
#include "Ham/IpmiHam.h"
#include "KeldoUtil/Assert.h"

namespace Drivers {

namespace {

// "identificationType" texts, in the order of their values.
constexpr const char* kTypeNames[] = {"pmbus", "ipmi", "ipmitool", "ipmitool_raw", "wedge", "tlv"};

// TlvInfo EEPROM: "TlvInfo", a zero byte, format version 1, then the length
// of the records that follow in 2 bytes; each record is a type code, a
// length and that many bytes.
constexpr uint32_t kTlvHeaderBytes = 11;
constexpr uint8_t kTlvPartNumber = 0x22;  // the model name
constexpr uint8_t kTlvSerialNumber = 0x23;

// PMBus manufacturer block commands. A plain read of n bytes answers the
// byte count first, then the text.
constexpr uint32_t kMfrModel = 0x9A;
constexpr uint32_t kMfrSerial = 0x9E;

// Wedge bays share one presence register: bit 1 for PSU 1, bit 0 for PSU 2,
// set while the bay is empty. The units there carry no identity of their own.
constexpr uint32_t kWedgePresenceRegister = 8;
constexpr char kWedgeSerial[] = "N/A";
constexpr char kWedgeModel[] = "PWR-WEDGE";

// ipmitool identification: the command's prefix per type ("useApi" talks to
// the controller through the kernel's IPMI device), the keys of the values in
// its output, and its time limit.
constexpr char kIpmitoolPrefix[] = "ipmitool";
constexpr char kIpmitoolApiPrefix[] = "ipmitool -I open";
constexpr char kIpmiRawPrefix[] = "vxIpmi raw";
constexpr char kSerialKey[] = "SerialNumber";
constexpr char kModelKey[] = "ModelNumber";
constexpr unsigned int kCommandTimeoutSeconds = 30;

// The models the platform knows, and whether the host manages them. The last
// row stands for every model not listed.
struct ModelRow {
  const char* modelName;
  bool managed;
};
constexpr ModelRow kModels[] = {
    {"DPS550AB6A", true},
    {"PS-2471-1AZ1-LF", true},
    {"PWR-WEDGE", true},
    {"PWR-UNKNOWN", false},
};
const ModelRow& kUnknownModel = kModels[std::size(kModels) - 1];

// The description handed to the host for an identified unit: "fdl" names the
// model row chosen.
constexpr char kFdlTemplate[] =
    R"({"psuId": {psuId}, "modelName": "{modelName}", "serialNum": "{serialNum}", "fdl": "{fdl}", )"
    R"("managed": {managed}})";

const ModelRow& modelRow(const std::string& model) {
  for (const ModelRow& row : kModels) {
    if (model == row.modelName) return row;
  }
  return kUnknownModel;
}

// What an EEPROM or a command gives is shown to the host inside a JSON text:
// only printable characters stay, without quotes, backslashes and braces
// (which would also be template placeholders), and without blanks at either
// end (padding).
std::string cleanText(const std::string& raw) {
  std::string text;
  for (char c : raw) {
    if (c >= 0x20 && c <= 0x7E && std::string("\"\\{}").find(c) == std::string::npos) text.push_back(c);
  }
  return trim(text);
}

// The text behind "<key>=" up to the next blank or line end, where the key
// begins the output or follows a blank.
std::string valueAfter(const std::string& output, const std::string& key) {
  const std::string marker = key + "=";
  for (size_t at = output.find(marker); at != std::string::npos; at = output.find(marker, at + 1)) {
    if (at == 0 || std::isspace(static_cast<unsigned char>(output[at - 1]))) {
      const size_t start = at + marker.size();
      const size_t end = output.find_first_of(" \t\r\n", start);
      return output.substr(start, end == std::string::npos ? std::string::npos : end - start);
    }
  }
  return std::string();
}

}  // namespace

pl_status PsuSlot::Signal::read(int* value) const {
  unsigned int bit = 0;
  const pl_status status = gpio->bitRead(&bit);
  if (status == PL_STATUS_OK) *value = (bit != 0) != activeLow ? 1 : 0;
  return status;
}

Component::HardwareDevice* PsuSlot::create(const DriverArgs&, Ham::Ham* ham) { return new PsuSlot(ham); }

PsuSlot::Signal PsuSlot::signalOf(const FactoryArgs& args, const std::string& name) {
  Signal signal;
  const std::string* reg = findArg(args, name + "Reg");
  if (reg == nullptr) return signal;
  const std::string* bit = findArg(args, name + "Bit");
  if (bit == nullptr) pl_trace(0, "Error: expected '%sBit' in slot driverArgs", name.c_str());
  KELDO_ASSERT(bit != nullptr);
  const uint32_t regNumber = static_cast<uint32_t>(std::stoul(*reg)), bitNumber = static_cast<uint32_t>(std::stoul(*bit));
  const std::string* label = findArg(args, "gpioDevice");
  signal.gpio.reset(label != nullptr ? getRegGpioForDevice(label->c_str(), regNumber, bitNumber)
                                     : getRegGpioForDevice(this, regNumber, bitNumber));
  signal.activeLow = isTrueArg(args, name + "ActiveLow");
  return signal;
}

Component::LogicalDevice::Slot* PsuSlot::newSlot(const FactoryArgs& args) {
  std::unique_ptr<Slot> slot(new Slot(this, args));
  return slot->readsTheBus() && ham() == nullptr ? nullptr : slot.release();
}

Component::LogicalDevice::Psu* PsuSlot::newPsu(const FactoryArgs& args) {
  const Signal powerOk = signalOf(args, "powerOk");
  KELDO_ASSERT(powerOk.configured() && "PsuSlot power supply needs powerOkReg");
  return new Psu(powerOk);
}

PsuSlot::Slot::Slot(PsuSlot* device, const FactoryArgs& args) : device_(device), args_(args) {
  const std::string* id = findArg(args, "psuId");
  if (id == nullptr) pl_trace(0, "Error: expected 'psuId' in slot driverArgs");
  const int psuId = id != nullptr ? std::stoi(*id) : 0;
  KELDO_ASSERT(psuId == 1 || psuId == 2);
  psuIndex_ = static_cast<uint8_t>(psuId - 1);
  parseIdentificationType();
  presence_ = device->signalOf(args, "presence");
}

// An unknown type is traced and read as "pmbus", the type of a slot that
// names none.
void PsuSlot::Slot::parseIdentificationType() {
  const std::string* text = findArg(args_, "identificationType");
  const std::string name = text != nullptr ? *text : kTypeNames[PMBUS];
  pl_trace(1, "PsuSlot identification type: %s", name.c_str());
  const auto found = std::find(std::begin(kTypeNames), std::end(kTypeNames), name);
  if (found == std::end(kTypeNames)) pl_trace(0, "Invalid identification type: '%s'", name.c_str());
  type_ = found == std::end(kTypeNames) ? PMBUS : static_cast<IdentificationType>(found - std::begin(kTypeNames));

  const std::string* ipmiId = findArg(args_, "ipmiId");
  const std::string* command = findArg(args_, "ipmiCommand");
  const std::string* rawSerial = findArg(args_, "ipmiRawSerialNumber");
  const std::string* rawModel = findArg(args_, "ipmiRawModel");
  switch (type_) {
    case IPMI: {
      KELDO_ASSERT(ipmiId && "PsuSlot identification type is ipmi but ipmiId not found");
      const std::string* access = findArg(args_, "ipmiHam");
      ipmi_ = Ham::sharedIpmiHam(access != nullptr ? *access : "IpmiTool");
      KELDO_ASSERT(ipmi_ && "PsuSlot identification type is ipmi but its IPMI access cannot be created");
      break;
    }
    case IPMITOOL:
      KELDO_ASSERT(command && "PsuSlot identification type is ipmitool but ipmiCommand not found");
      ipmiCmdPrefix_ = isTrueArg(args_, "useApi") ? kIpmitoolApiPrefix : kIpmitoolPrefix;
      commands_ = {ipmiCmdPrefix_ + " " + *command};
      break;
    case IPMITOOL_RAW:
      KELDO_ASSERT(rawSerial && "PsuSlot identification type is ipmitool_raw but ipmiRawSerialNumber not found");
      KELDO_ASSERT(rawModel && "PsuSlot identification type is ipmitool_raw but ipmiRawModel not found");
      ipmiCmdPrefix_ = kIpmiRawPrefix;
      commands_ = {ipmiCmdPrefix_ + " " + *rawSerial, ipmiCmdPrefix_ + " " + *rawModel};
      break;
    default:
      break;
  }
}

Ham::Ham& PsuSlot::Slot::ham() const { return *device_->ham(); }

// Every call identifies the unit again, so that a unit swapped between two
// calls is never taken for the one before it.
pl_status PsuSlot::Slot::getPresence(char** description) {
  char* none = nullptr;
  char*& out = description != nullptr ? *description : none;
  out = nullptr;
  int present = 1;
  if (presence_.configured()) {
    const pl_status status = presence_.read(&present);
    if (status != PL_STATUS_OK) return status;
  }
  std::string serial, model;
  if (present == 1 && readSerialAndModel_(serial, model) == 0) {
    identify(serial, model);
    out = &psuFdl_[0];
    return 1;
  }
  // Without a presence line, a unit that cannot be identified is not there.
  if (!presence_.configured()) present = 0;
  if (present == 0) identified_ = false;
  return present;
}

void PsuSlot::Slot::identify(std::string serial, std::string model) {
  if (type_ == PMBUS) {  // the block reads begin with their byte count
    serial.erase(0, 1);
    model.erase(0, 1);
  }
  serial = cleanText(serial);
  model = cleanText(model);
  if (identified_ && serial == serialNum_ && model == modelName_) {
    pl_trace(0, "Using cached fdl");
    return;
  }
  pl_trace(0, "PSU serialNum = '%s'", serial.c_str());
  pl_trace(0, "PSU modelName = '%s'", model.c_str());
  const ModelRow& row = modelRow(model);
  if (&row == &kUnknownModel && model != row.modelName) {
    pl_trace(0, "Unknown modelName. PSU is unmanaged");
    const bool assertOnUnknownModelName = isTrueArg(args_, "assertOnUnknownModelName");
    KELDO_ASSERT(!assertOnUnknownModelName && "Unknown modelName. PSU is unmanaged");
  }
  FormatFdl fdl(kFdlTemplate);
  fdl.start();
  fdl.set("psuId", std::to_string(psuIndex_ + 1));
  fdl.set("modelName", model);
  fdl.set("serialNum", serial);
  fdl.set("fdl", row.modelName);
  fdl.set("managed", row.managed ? "true" : "false");
  psuFdl_ = fdl.str();
  serialNum_ = serial;
  modelName_ = model;
  identified_ = true;
}

int PsuSlot::Slot::readSerialAndModel_(std::string& serial, std::string& model) {
  pl_trace(7, "%s", "readSerialAndModel_");
  int result = 1;
  switch (type_) {
    case PMBUS:
      result = readSerialAndModelPmbus(serial, model);
      break;
    case IPMI:
      result = readSerialAndModelIpmi(serial, model);
      break;
    case IPMITOOL:
    case IPMITOOL_RAW:
      result = readSerialAndModelIpmitool(serial, model);
      break;
    case WEDGE:
      result = readSerialAndModelWedge(serial, model);
      break;
    case TLV:
      result = readSerialAndModelTlv(serial, model);
      break;
    default:
      throw std::runtime_error("unknown identification type for psu");
  }
  if (result == 0 && !serial.empty() && !model.empty()) return 0;
  pl_trace(7, "Failed to read PSU info '%s' '%s'", serial.c_str(), model.c_str());
  return 1;
}

// The end of the records takes both length bytes as signed, so a length whose
// low byte is 0x80 or above ends them 256 bytes early. Units in the field were
// identified with this rule, so it stays. A record that cannot be read stops
// the host, as a header that is not a TlvInfo one does: the board file names
// the wrong identification type.
int PsuSlot::Slot::readSerialAndModelTlv(std::string& serial, std::string& model) {
  std::string header;
  if (ham().read(0, kTlvHeaderBytes, &header, false) != PL_STATUS_OK || header.size() < kTlvHeaderBytes) return 1;
  KELDO_ASSERT(header.substr( 0, 7 ) == "TlvInfo");
  KELDO_ASSERT(header[ 7 ] == '\0');
  KELDO_ASSERT(header[ 8 ] == '\x01');
  const int length = static_cast<int8_t>(header[9]) * 256 + static_cast<int8_t>(header[10]);
  const int end = static_cast<uint16_t>(length) + static_cast<int>(kTlvHeaderBytes);
  for (int offset = kTlvHeaderBytes; offset < end && (serial.empty() || model.empty());) {
    std::string record;
    pl_status res = ham().read(static_cast<uint32_t>(offset), 2, &record, false);
    KELDO_ASSERT(res == PL_STATUS_OK);
    if (record.size() < 2) break;  // a short answer: nothing after it can be trusted
    const uint8_t type = static_cast<uint8_t>(record[0]), size = static_cast<uint8_t>(record[1]);
    std::string* text = type == kTlvSerialNumber ? &serial : type == kTlvPartNumber ? &model : nullptr;
    if (text != nullptr && size > 0) {
      res = ham().read(static_cast<uint32_t>(offset + 2), size, text, false);
      KELDO_ASSERT(res == PL_STATUS_OK);
    }
    offset += size + 2;
  }
  return serial.empty() || model.empty() ? 1 : 0;
}

// Both results keep the count byte that leads them (it is dropped when the
// unit is matched against the model table).
int PsuSlot::Slot::readSerialAndModelPmbus(std::string& serial, std::string& model) {
  pl_trace(7, "%s", "readSerialAndModelPmbus");
  Ham::Ham& bus = ham();
  bus.prepare();
  const Ham::Ham::ResponseId modelCount = bus.addRead8(kMfrModel);
  const Ham::Ham::ResponseId serialCount = bus.addRead8(kMfrSerial);
  pl_status status = bus.execute();
  if (status != PL_STATUS_OK) return status;
  const uint32_t modelBytes = bus.get8(modelCount) + 1u, serialBytes = bus.get8(serialCount) + 1u;
  bus.prepare();
  const Ham::Ham::ResponseId modelId = bus.addRead(kMfrModel, modelBytes, false);
  const Ham::Ham::ResponseId serialId = bus.addRead(kMfrSerial, serialBytes, false);
  status = bus.execute();
  if (status != PL_STATUS_OK) return status;
  model = bus.getBlock(modelId, modelBytes);
  serial = bus.getBlock(serialId, serialBytes);
  return PL_STATUS_OK;
}

int PsuSlot::Slot::readSerialAndModelWedge(std::string& serial, std::string& model) {
  uint8_t emptyBays = 0;
  if (ham().read8(kWedgePresenceRegister, &emptyBays) != PL_STATUS_OK) return 1;
  if (emptyBays & (1u << (1 - psuIndex_))) return 1;
  serial = kWedgeSerial;
  model = kWedgeModel;
  return 0;
}

int PsuSlot::Slot::readSerialAndModelIpmitool(std::string& serial, std::string& model) {
  std::string output;
  for (const std::string& command : commands_) {
    pl_trace(7, "psuSlot ipmi command: '%s'", command.c_str());
    std::string part;
    const pl_status status = runCmd(command.c_str(), part, kCommandTimeoutSeconds);
    if (status != PL_STATUS_OK) return status;
    output += part + "\n";
  }
  serial = valueAfter(output, kSerialKey);
  model = valueAfter(output, kModelKey);
  return 0;
}

int PsuSlot::Slot::readSerialAndModelIpmi(std::string& serial, std::string& model) {
  std::string image, fruName;
  const pl_status status = ipmi_->psuPresence(*findArg(args_, "ipmiId"), image, fruName);
  if (status != PL_STATUS_OK) return status;
  return readFruProductInfo(static_cast<uint8_t>(psuIndex_ + 1), image,
                            isTrueArg(args_, "allowInvalidCommonHeaderChecksum"), serial, model);
}

}  // namespace Drivers
