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

// A search for one node, the target, that then hears from every node on the
// way back to the root: the target first, then each ancestor, innermost
// first. (A stop unwinds the post-order walk through exactly those nodes.)
// The target is the component with uid `componentUid`; when that is
// Drivers::DriverArgs::NO_COMPONENT, the device with id `deviceUid`; or one
// given bus node. Nothing is heard before the target. Every visit after it
// answers false, which changes nothing: the walk is already unwinding.
class PathVisitor : public TopologyVisitor {
 public:
  PathVisitor(uint32_t componentUid, uint32_t deviceUid) : componentUid(componentUid), deviceUid(deviceUid) {}
  explicit PathVisitor(const Bus* bus) : bus_(bus) {}

  bool visit(const Component* node) final;
  bool visit(const Device* node) final;
  bool visit(const Mux* node) final;
  bool visit(const Bus* node) final;
  bool visit(const Accelerator* node) final;
  bool visit(const SCD* node) final;
  bool visit(const I2C* node) final;
  bool visit(const IOPort* node) final;
  bool visit(const Celestica* node) final;
  bool visit(const PLM* node) final;
  bool visit(const LinuxFs* node) final;
  bool visit(const SccSpi* node) final;
  bool visit(const Topology* node) final;

  uint32_t componentUid = 0;
  uint32_t deviceUid = 0;
  bool found = false;

 protected:
  ~PathVisitor() = default;

  // The nodes on the path, target first. Each does nothing unless overridden.
  virtual void onPath(const Component*) {}
  virtual void onPath(const Device*) {}
  virtual void onPath(const Mux*) {}
  virtual void onPath(const Bus*) {}
  virtual void onPath(const Accelerator*) {}
  virtual void onPath(const SCD*) {}
  virtual void onPath(const I2C*) {}
  virtual void onPath(const IOPort*) {}
  virtual void onPath(const Celestica*) {}
  virtual void onPath(const PLM*) {}
  virtual void onPath(const LinuxFs*) {}
  virtual void onPath(const SccSpi*) {}
  virtual void onPath(const Topology*) {}

 private:
  template <typename PathNode>
  bool step(const PathNode* node, bool isTarget);

  const Bus* bus_ = nullptr;
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

}  // namespace Topology
