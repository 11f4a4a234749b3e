#include "Topology.h"

#include <type_traits>

#include "Drivers/Drivers.h"

namespace Topology {

std::unique_ptr<Topology> _topology;
std::string _topology_json;
std::map<std::string, std::shared_ptr<Node>> _topology_index;

namespace {

// Walks the children in order and stops at the first one that answers false.
// The caller still visits itself afterwards, so a stop deep in the tree
// reaches every ancestor on the way up but none of the later siblings.
template <typename Children>
bool acceptAll(const Children& children, TopologyVisitor* visitor) {
  for (const auto& child : children) {
    if (!child->accept(visitor)) return false;
  }
  return true;
}

template <typename Key, typename Child>
bool acceptAll(const std::map<Key, std::shared_ptr<Child>>& children, TopologyVisitor* visitor) {
  for (const auto& entry : children) {
    if (!entry.second->accept(visitor)) return false;
  }
  return true;
}

// The node's own visit comes after its children's walk, whatever that
// answered; its answer only counts when none of them stopped the walk.
template <typename Self>
bool visitAfter(bool childrenWentOn, const Self* self, TopologyVisitor* visitor) {
  const bool selfWentOn = visitor->visit(self);
  return childrenWentOn && selfWentOn;
}

}  // namespace

// ---- Traversal ----------------------------------------------------------

bool Component::accept(TopologyVisitor* visitor) const { return visitor->visit(this); }
bool Device::accept(TopologyVisitor* visitor) const { return visitAfter(acceptAll(components, visitor), this, visitor); }
bool Bus::acceptBus(TopologyVisitor* visitor) const {
  return visitAfter(acceptAll(devices, visitor) && acceptAll(muxes, visitor), this, visitor);
}
bool Bus::accept(TopologyVisitor* visitor) const { return acceptBus(visitor); }
bool Mux::accept(TopologyVisitor* visitor) const { return visitAfter(acceptAll(busses, visitor), this, visitor); }
bool Accelerator::accept(TopologyVisitor* visitor) const {
  return visitAfter(acceptAll(busses, visitor), this, visitor);
}
bool SCD::accept(TopologyVisitor* visitor) const { return visitAfter(acceptAll(accelerators, visitor), this, visitor); }
bool Celestica::accept(TopologyVisitor* visitor) const {
  return visitAfter(acceptAll(accelerators, visitor), this, visitor);
}
bool LinuxFs::accept(TopologyVisitor* visitor) const { return visitAfter(acceptAll(devices, visitor), this, visitor); }
bool Topology::accept(TopologyVisitor* visitor) const { return visitAfter(acceptAll(media, visitor), this, visitor); }

// A medium that is also a bus is seen twice: first as the bus, where a visitor
// picks up the bus id, then as the medium, where it learns what kind of
// controller carries the bus.
bool I2C::accept(TopologyVisitor* visitor) const { return visitAfter(acceptBus(visitor), this, visitor); }
bool IOPort::accept(TopologyVisitor* visitor) const { return visitAfter(acceptBus(visitor), this, visitor); }
bool PLM::accept(TopologyVisitor* visitor) const { return visitAfter(acceptBus(visitor), this, visitor); }
bool SccSpi::accept(TopologyVisitor* visitor) const { return visitAfter(acceptBus(visitor), this, visitor); }

bool SearchDeviceVisitor::visit(const Device* device) {
  if (device->did != did_) return true;
  pl_trace(2, "Device %u found in topology", did_);
  device_ = device;
  found_ = true;
  return false;
}

template <typename PathNode>
bool PathVisitor::step(const PathNode* node, bool isTarget) {
  if (!found) {
    if (!isTarget) return true;
    found = true;
  }
  onPath(node);
  return false;
}

// Only a search by component or device has a component or device target.
bool PathVisitor::visit(const Component* node) { return step(node, !bus_ && node->uid == componentUid); }
bool PathVisitor::visit(const Device* node) {
  return step(node, !bus_ && componentUid == Drivers::DriverArgs::NO_COMPONENT && node->did == deviceUid);
}
bool PathVisitor::visit(const Bus* node) { return step(node, node == bus_); }
bool PathVisitor::visit(const Mux* node) { return step(node, false); }
bool PathVisitor::visit(const Accelerator* node) { return step(node, false); }
bool PathVisitor::visit(const SCD* node) { return step(node, false); }
bool PathVisitor::visit(const I2C* node) { return step(node, false); }
bool PathVisitor::visit(const IOPort* node) { return step(node, false); }
bool PathVisitor::visit(const Celestica* node) { return step(node, false); }
bool PathVisitor::visit(const PLM* node) { return step(node, false); }
bool PathVisitor::visit(const LinuxFs* node) { return step(node, false); }
bool PathVisitor::visit(const SccSpi* node) { return step(node, false); }
bool PathVisitor::visit(const Topology* node) { return step(node, false); }

// ---- Readers --------------------------------------------------------------

void Node::init(std::shared_ptr<Node> node, const rapidjson::Value& json) {
  if (!json.HasMember("label")) return;
  _topology_index[json["label"].GetString()] = std::move(node);
}

namespace {

uint32_t readUint(const rapidjson::Value& json, const char* key) { return json[key].GetUint(); }

// What every reader does first: the value must be an object, and the new
// node is registered under its "label". Medium-and-bus nodes carry Node
// twice; the index holds the medium part, and a run-time cast to Bus still
// finds the bus part from it.
template <typename NodeType>
std::shared_ptr<NodeType> newNode(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto node = std::make_shared<NodeType>();
  if constexpr (std::is_base_of_v<MediumNode, NodeType> && std::is_base_of_v<Bus, NodeType>) {
    Node::init(std::static_pointer_cast<MediumNode>(node), json);
  } else {
    Node::init(node, json);
  }
  return node;
}

// A bus, or a medium that is one: after the preamble, the bus part.
template <typename BusNode>
std::shared_ptr<BusNode> newBusNode(const rapidjson::Value& json) {
  auto node = newNode<BusNode>(json);
  Bus::init(node, json);
  return node;
}

// Each element of the optional array `key`, read in order.
template <typename Read>
void readEach(const rapidjson::Value& json, const char* key, Read read) {
  if (!json.HasMember(key)) return;
  for (const auto& entry : json[key].GetArray()) read(entry);
}

// Muxes and accelerators hold their buses by id; each decides what a repeated
// id means.
template <typename Keep>
void readBusses(const rapidjson::Value& json, Keep keep) {
  if (!json.HasMember("busses")) return;
  const rapidjson::Value& busses = json["busses"];
  KELDO_ASSERT(busses.IsArray());
  for (const auto& entry : busses.GetArray()) keep(Bus::fromJSON(entry));
}

// SCD and Celestica media hold the same accelerator map, and a repeated
// accelerator id is a board-file error in either.
template <typename Medium>
void readAccelerators(Medium* scd, const rapidjson::Value& json) {
  if (!json.HasMember("accelerators")) return;
  const rapidjson::Value& accels = json["accelerators"];
  KELDO_ASSERT(accels.IsArray());
  for (const auto& entry : accels.GetArray()) {
    std::shared_ptr<Accelerator> accel = Accelerator::fromJSON(entry);
    KELDO_ASSERT(scd->accelerators.find( accel->id ) == scd->accelerators.end());
    scd->accelerators.emplace(accel->id, accel);
  }
}

}  // namespace

std::shared_ptr<Component> Component::fromJSON(const rapidjson::Value& json) {
  auto component = newNode<Component>(json);
  KELDO_ASSERT(json.HasMember( "uid" ));
  component->uid = readUint(json, "uid");
  return component;
}

std::shared_ptr<Device> Device::fromJSON(const rapidjson::Value& json) {
  auto device = newNode<Device>(json);
  KELDO_ASSERT(json.HasMember( "did" ));
  device->did = readUint(json, "did");
  if (json.HasMember("driver")) device->args = Drivers::DriverArgs::fromJSON(json);
  readEach(json, "components", [&](const rapidjson::Value& entry) {
    device->components.push_back(Component::fromJSON(entry));
  });
  return device;
}

void Bus::init(std::shared_ptr<Bus> bus, const rapidjson::Value& json) {
  KELDO_ASSERT(json.HasMember( "id" ));
  bus->id = readUint(json, "id");
  readEach(json, "devices", [&](const rapidjson::Value& entry) { bus->devices.push_back(Device::fromJSON(entry)); });
  readEach(json, "muxes", [&](const rapidjson::Value& entry) { bus->muxes.push_back(Mux::fromJSON(entry)); });
}

std::shared_ptr<Bus> Bus::fromJSON(const rapidjson::Value& json) { return newBusNode<Bus>(json); }

// A mux channel repeated in the board file is not an error: the first bus
// read for a channel serves it and later ones are dropped.
std::shared_ptr<Mux> Mux::fromJSON(const rapidjson::Value& json) {
  auto mux = newNode<Mux>(json);
  KELDO_ASSERT(json.HasMember( "did" ));
  mux->did = readUint(json, "did");
  readBusses(json, [&](std::shared_ptr<Bus> bus) { mux->busses.emplace(bus->id, bus); });
  return mux;
}

std::shared_ptr<Accelerator> Accelerator::fromJSON(const rapidjson::Value& json) {
  auto accel = newNode<Accelerator>(json);
  KELDO_ASSERT(json.HasMember( "id" ));
  accel->id = readUint(json, "id");
  readBusses(json, [&](std::shared_ptr<Bus> bus) {
    KELDO_ASSERT(accel->busses.find( bus->id ) == accel->busses.end());
    accel->busses.emplace(bus->id, bus);
  });
  return accel;
}

std::shared_ptr<SCD> SCD::fromJSON(const rapidjson::Value& json) {
  auto scd = newNode<SCD>(json);
  KELDO_ASSERT(json.HasMember( "pci" ));
  scd->pci = readUint(json, "pci");
  readAccelerators(scd.get(), json);
  return scd;
}

std::shared_ptr<Celestica> Celestica::fromJSON(const rapidjson::Value& json) {
  auto celestica = newNode<Celestica>(json);
  readAccelerators(celestica.get(), json);
  return celestica;
}

std::shared_ptr<LinuxFs> LinuxFs::fromJSON(const rapidjson::Value& json) {
  auto fs = newNode<LinuxFs>(json);
  readEach(json, "devices", [&](const rapidjson::Value& entry) { fs->devices.push_back(Device::fromJSON(entry)); });
  return fs;
}

std::shared_ptr<I2C> I2C::fromJSON(const rapidjson::Value& json) {
  auto i2c = newNode<I2C>(json);
  if (json.HasMember("simulated")) i2c->simulated = json["simulated"].GetBool();
  Bus::init(i2c, json);
  return i2c;
}

std::shared_ptr<IOPort> IOPort::fromJSON(const rapidjson::Value& json) { return newBusNode<IOPort>(json); }

std::shared_ptr<PLM> PLM::fromJSON(const rapidjson::Value& json) { return newBusNode<PLM>(json); }

std::shared_ptr<SccSpi> SccSpi::fromJSON(const rapidjson::Value& json) { return newBusNode<SccSpi>(json); }

namespace {

std::shared_ptr<MediumNode> readMedium(const std::string& type, const rapidjson::Value& json) {
  if (type == "SCD") return SCD::fromJSON(json);
  if (type == "I2C") return I2C::fromJSON(json);
  if (type == "IOPort") return IOPort::fromJSON(json);
  if (type == "Celestica") return Celestica::fromJSON(json);
  if (type == "PLM") return PLM::fromJSON(json);
  if (type == "SccSpi") return SccSpi::fromJSON(json);
  if (type == "LinuxFs") return LinuxFs::fromJSON(json);
  // No expression to show here, so the check reports its plain text through
  // the same glibc path as every other one.
  __assert_fail("Unknown type", __FILE__, __LINE__, __PRETTY_FUNCTION__);
}

}  // namespace

// Every structural fault stops the host, so a parsed document always yields
// a tree; the null result is kept for callers that must not assume that.
Topology* Topology::fromJSON(const rapidjson::Document& json) {
  KELDO_ASSERT(json.IsArray());
  std::unique_ptr<Topology> topology(new Topology);
  for (auto it = json.Begin(); it != json.End(); ++it) {
    KELDO_ASSERT(it->IsObject());
    KELDO_ASSERT(it->HasMember( "type" ));
    KELDO_ASSERT(it->HasMember( "ham" ));
    const rapidjson::Value& type = (*it)["type"];
    std::shared_ptr<MediumNode> medium = readMedium(std::string(type.GetString(), type.GetStringLength()), *it);
    medium->ham = (*it)["ham"].GetString();
    topology->media.push_back(std::move(medium));
  }
  return topology.release();
}

// ---- Loader and lookups -------------------------------------------------

// Every init entry hands over the topology again; the same text keeps the
// tree (and every pointer into it), any other text rebuilds it from scratch.
// The tree is as deep as the text and is built, walked and destroyed one call
// per level, so a text nested beyond what any board needs is refused like
// one that does not parse, before the loaded tree is touched.
pl_status loadTopology(const char* json) {
  if (_topology && _topology_json == json) {
    pl_trace(2, "topology is the same as the previously loaded one (using it)");
    return PL_STATUS_OK;
  }
  pl_trace(2, "loading topology json");
  rapidjson::Document document;
  if (!Utils::parseJson(document, json, 2, "failed to load topology from json", Utils::kMaxJsonNesting)) {
    return PL_STATUS_BAD_INPUT;
  }
  _topology.reset();
  _topology_index.clear();
  _topology.reset(Topology::fromJSON(document));
  if (!_topology) {
    pl_trace(2, "failed to create topology tree");
    return PL_STATUS_INTERNAL;
  }
  _topology_json = json;
  return PL_STATUS_OK;
}

Node* getNodeByLabel(const char* label) {
  if (label == nullptr) return nullptr;
  auto it = _topology_index.find(label);
  return it == _topology_index.end() ? nullptr : it->second.get();
}

Bus* getBusByLabel(const char* label) { return dynamic_cast<Bus*>(getNodeByLabel(label)); }

Device* getDeviceByLabel(const char* label) { return dynamic_cast<Device*>(getNodeByLabel(label)); }

const Device* findDevice(unsigned did) {
  SearchDeviceVisitor search(did);
  _topology->accept(&search);
  return search.device_;
}

bool isDeviceObject(const char* text) { return text != nullptr && text[0] == '{'; }

}  // namespace Topology
