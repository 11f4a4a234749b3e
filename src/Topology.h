#pragma once
// The board description: a tree of typed nodes (media, accelerators, buses,
// multiplexers, devices, components), a label index over it, and the lookups
// and visitor walk that the access layer and the device registry use.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "KeldoUtil/Json.h"
#include "keldo/pl_host.h"

namespace Drivers {
struct DriverArgs;
}

namespace Topology {

// Hardware address of a device, two 32-bit words. Word 0 carries the register
// of the operation being queued (filled by the access layer). Word 1 packs:
//   bits 0-6 address, 7-13 bus, 14-20 accel, 21 read flag, 22-24 busTimeout,
//   25-26 addrSize, 27 extraDelay, 28-29 writeDelay, 30-31 readDelay.
struct AhamAddress {
  uint32_t word0 = 0;
  uint32_t word1 = 0;

  uint32_t address() const { return get(0, 7); }
  uint32_t bus() const { return get(7, 7); }
  uint32_t accel() const { return get(14, 7); }
  uint32_t readFlag() const { return get(21, 1); }
  uint32_t busTimeout() const { return get(22, 3); }
  uint32_t addrSize() const { return get(25, 2); }
  uint32_t extraDelay() const { return get(27, 1); }
  uint32_t writeDelay() const { return get(28, 2); }
  uint32_t readDelay() const { return get(30, 2); }

  // Each setter keeps only the low bits that fit the field.
  void setAddress(uint32_t v) { set(0, 7, v); }
  void setBus(uint32_t v) { set(7, 7, v); }
  void setAccel(uint32_t v) { set(14, 7, v); }
  void setReadFlag(uint32_t v) { set(21, 1, v); }
  void setBusTimeout(uint32_t v) { set(22, 3, v); }
  void setAddrSize(uint32_t v) { set(25, 2, v); }
  void setExtraDelay(uint32_t v) { set(27, 1, v); }
  void setWriteDelay(uint32_t v) { set(28, 2, v); }
  void setReadDelay(uint32_t v) { set(30, 2, v); }

  // The 8 bytes as one 64-bit value: word 0 low, word 1 high.
  uint64_t packed() const { return (uint64_t(word1) << 32) | word0; }

 private:
  static constexpr uint32_t mask(unsigned width) { return width >= 32 ? ~0u : ((1u << width) - 1); }
  uint32_t get(unsigned shift, unsigned width) const { return (word1 >> shift) & mask(width); }
  void set(unsigned shift, unsigned width, uint32_t v) {
    word1 = (word1 & ~(mask(width) << shift)) | ((v & mask(width)) << shift);
  }
};

// PCI address of the device that carries an SCD's accelerators.
struct PCIAddress {
  uint32_t value = 0;
};

class TopologyVisitor;
class Component;
class Device;
class Mux;
class Bus;
class Accelerator;
class SCD;
class I2C;
class IOPort;
class Celestica;
class PLM;
class LinuxFs;
class SccSpi;
class Topology;

class Node {
 public:
  virtual ~Node() = default;
  // Post-order walk: children first (stopping at the first child that answers
  // false), then the node's own visit. See Topology.cpp for the exact rule.
  virtual bool accept(TopologyVisitor* visitor) const = 0;
  // Registers the node under its "label", if the JSON object has one.
  static void init(std::shared_ptr<Node> node, const rapidjson::Value& json);
};

class MediumNode : public Node {
 public:
  std::string ham;  // access method for everything below this medium
};

class Component : public Node {
 public:
  uint32_t uid = 0;
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<Component> fromJSON(const rapidjson::Value& json);
};

class Device : public Node {
 public:
  uint32_t did = 0;
  std::shared_ptr<Drivers::DriverArgs> args;  // null when the JSON has no "driver"
  std::vector<std::shared_ptr<Component>> components;
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<Device> fromJSON(const rapidjson::Value& json);
};

class Bus : public Node {
 public:
  uint32_t id = 0;
  std::vector<std::shared_ptr<Device>> devices;
  std::vector<std::shared_ptr<Mux>> muxes;
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<Bus> fromJSON(const rapidjson::Value& json);
  // Fills the bus part of any bus-like node ("id", "devices", "muxes").
  static void init(std::shared_ptr<Bus> bus, const rapidjson::Value& json);

 protected:
  // Children of the bus part, then visit(const Bus*).
  bool acceptBus(TopologyVisitor* visitor) const;
};

class Mux : public Node {
 public:
  uint32_t did = 0;
  std::map<uint32_t, std::shared_ptr<Bus>> busses;  // downstream channel -> bus
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<Mux> fromJSON(const rapidjson::Value& json);
};

class Accelerator : public Node {
 public:
  uint32_t id = 0;
  std::map<uint32_t, std::shared_ptr<Bus>> busses;
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<Accelerator> fromJSON(const rapidjson::Value& json);
};

class SCD : public MediumNode {
 public:
  uint32_t pci = 0;
  std::map<uint32_t, std::shared_ptr<Accelerator>> accelerators;
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<SCD> fromJSON(const rapidjson::Value& json);
};

class Celestica : public MediumNode {
 public:
  std::map<uint32_t, std::shared_ptr<Accelerator>> accelerators;
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<Celestica> fromJSON(const rapidjson::Value& json);
};

class LinuxFs : public MediumNode {
 public:
  std::vector<std::shared_ptr<Device>> devices;
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<LinuxFs> fromJSON(const rapidjson::Value& json);
};

// A medium and a bus at once: Node appears twice (not shared), and a cast to
// Bus adjusts to the Bus part. accept() walks the bus part (ending with
// visit(const Bus*)) and then visits the node as itself.
class I2C : public MediumNode, public Bus {
 public:
  bool simulated = false;
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<I2C> fromJSON(const rapidjson::Value& json);
};

class IOPort : public MediumNode, public Bus {
 public:
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<IOPort> fromJSON(const rapidjson::Value& json);
};

class PLM : public MediumNode, public Bus {
 public:
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<PLM> fromJSON(const rapidjson::Value& json);
};

class SccSpi : public MediumNode, public Bus {
 public:
  bool accept(TopologyVisitor* visitor) const override;
  static std::shared_ptr<SccSpi> fromJSON(const rapidjson::Value& json);
};

class Topology : public Node {
 public:
  std::vector<std::shared_ptr<MediumNode>> media;
  bool accept(TopologyVisitor* visitor) const override;
  // New tree from a parsed document (an array of media), or null.
  static Topology* fromJSON(const rapidjson::Document& json);
};

// One visit per concrete node type; true goes on, false stops the walk.
// Every default goes on, so a visitor overrides only what it cares about.
class TopologyVisitor {
 public:
  virtual bool visit(const Component*) { return true; }
  virtual bool visit(const Device*) { return true; }
  virtual bool visit(const Mux*) { return true; }
  virtual bool visit(const Bus*) { return true; }
  virtual bool visit(const Accelerator*) { return true; }
  virtual bool visit(const SCD*) { return true; }
  virtual bool visit(const I2C*) { return true; }
  virtual bool visit(const IOPort*) { return true; }
  virtual bool visit(const Celestica*) { return true; }
  virtual bool visit(const PLM*) { return true; }
  virtual bool visit(const LinuxFs*) { return true; }
  virtual bool visit(const SccSpi*) { return true; }
  virtual bool visit(const Topology*) { return true; }

 protected:
  ~TopologyVisitor() = default;  // never deleted through the base
};

class SearchDeviceVisitor : public TopologyVisitor {
 public:
  explicit SearchDeviceVisitor(uint32_t did) : did_(did) {}
  bool visit(const Device* device) override;

  uint32_t did_;
  bool found_ = false;
  const Device* device_ = nullptr;
};

// The current tree, the exact text it was built from, and its label index.
extern std::unique_ptr<Topology> _topology;
extern std::string _topology_json;
extern std::map<std::string, std::shared_ptr<Node>> _topology_index;

// Loads the tree from JSON text: 0 (built, or the same text kept), 3 (text
// does not parse; old tree kept) or 6 (no tree built).
pl_status loadTopology(const char* json);

Node* getNodeByLabel(const char* label);
Bus* getBusByLabel(const char* label);
Device* getDeviceByLabel(const char* label);
// The tree must be loaded.
const Device* findDevice(unsigned did);
// True when the text is an inline JSON object (first character "{").
bool isDeviceObject(const char* text);
void fillAddressFromJSON(const rapidjson::Value& json, AhamAddress& addr);

}  // namespace Topology
