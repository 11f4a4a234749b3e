#include "Topology.h"

#include <sys/types.h>

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

// The node's own visit happens whatever its children answered; its answer
// only counts when none of them stopped the walk.
bool combine(bool childrenWentOn, bool selfWentOn) { return childrenWentOn && selfWentOn; }

uint32_t readUint(const rapidjson::Value& json, const char* key) { return json[key].GetUint(); }

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

// Medium-and-bus nodes carry Node twice; the label index holds the medium
// part, and a run-time cast to Bus still finds the bus part from it.
template <typename BusMedium>
std::shared_ptr<Node> asNode(const std::shared_ptr<BusMedium>& node) {
  return std::static_pointer_cast<MediumNode>(node);
}

}  // namespace

// ---- Traversal ----------------------------------------------------------

bool Component::accept(TopologyVisitor* visitor) const { return visitor->visit(this); }

bool Device::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptAll(components, visitor);
  return combine(wentOn, visitor->visit(this));
}

bool Bus::acceptBus(TopologyVisitor* visitor) const {
  const bool wentOn = acceptAll(devices, visitor) && acceptAll(muxes, visitor);
  return combine(wentOn, visitor->visit(this));
}

bool Bus::accept(TopologyVisitor* visitor) const { return acceptBus(visitor); }

bool Mux::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptAll(busses, visitor);
  return combine(wentOn, visitor->visit(this));
}

bool Accelerator::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptAll(busses, visitor);
  return combine(wentOn, visitor->visit(this));
}

bool SCD::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptAll(accelerators, visitor);
  return combine(wentOn, visitor->visit(this));
}

bool Celestica::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptAll(accelerators, visitor);
  return combine(wentOn, visitor->visit(this));
}

bool LinuxFs::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptAll(devices, visitor);
  return combine(wentOn, visitor->visit(this));
}

// A medium that is also a bus is seen twice: first as the bus, where a visitor
// picks up the bus id, then as the medium, where it learns what kind of
// controller carries the bus.
bool I2C::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptBus(visitor);
  return combine(wentOn, visitor->visit(this));
}

bool IOPort::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptBus(visitor);
  return combine(wentOn, visitor->visit(this));
}

bool PLM::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptBus(visitor);
  return combine(wentOn, visitor->visit(this));
}

bool SccSpi::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptBus(visitor);
  return combine(wentOn, visitor->visit(this));
}

bool Topology::accept(TopologyVisitor* visitor) const {
  const bool wentOn = acceptAll(media, visitor);
  return combine(wentOn, visitor->visit(this));
}

bool SearchDeviceVisitor::visit(const Device* device) {
  if (device->did != did_) return true;
  pl_trace(2, "Device %u found in topology", did_);
  device_ = device;
  found_ = true;
  return false;
}

// ---- Readers --------------------------------------------------------------

void Node::init(std::shared_ptr<Node> node, const rapidjson::Value& json) {
  if (!json.HasMember("label")) return;
  _topology_index[json["label"].GetString()] = std::move(node);
}

std::shared_ptr<Component> Component::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto component = std::make_shared<Component>();
  Node::init(component, json);
  KELDO_ASSERT(json.HasMember( "uid" ));
  component->uid = readUint(json, "uid");
  return component;
}

std::shared_ptr<Device> Device::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto device = std::make_shared<Device>();
  Node::init(device, json);
  KELDO_ASSERT(json.HasMember( "did" ));
  device->did = readUint(json, "did");
  if (json.HasMember("driver")) device->args = Drivers::DriverArgs::fromJSON(json);
  if (json.HasMember("components")) {
    for (const auto& entry : json["components"].GetArray()) {
      device->components.push_back(Component::fromJSON(entry));
    }
  }
  return device;
}

void Bus::init(std::shared_ptr<Bus> bus, const rapidjson::Value& json) {
  KELDO_ASSERT(json.HasMember( "id" ));
  bus->id = readUint(json, "id");
  if (json.HasMember("devices")) {
    for (const auto& entry : json["devices"].GetArray()) bus->devices.push_back(Device::fromJSON(entry));
  }
  if (json.HasMember("muxes")) {
    for (const auto& entry : json["muxes"].GetArray()) bus->muxes.push_back(Mux::fromJSON(entry));
  }
}

std::shared_ptr<Bus> Bus::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto bus = std::make_shared<Bus>();
  Node::init(bus, json);
  Bus::init(bus, json);
  return bus;
}

// A mux channel repeated in the board file is not an error: the first bus
// read for a channel serves it and later ones are dropped.
std::shared_ptr<Mux> Mux::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto mux = std::make_shared<Mux>();
  Node::init(mux, json);
  KELDO_ASSERT(json.HasMember( "did" ));
  mux->did = readUint(json, "did");
  if (json.HasMember("busses")) {
    const rapidjson::Value& busses = json["busses"];
    KELDO_ASSERT(busses.IsArray());
    for (const auto& entry : busses.GetArray()) {
      std::shared_ptr<Bus> bus = Bus::fromJSON(entry);
      mux->busses.emplace(bus->id, bus);
    }
  }
  return mux;
}

std::shared_ptr<Accelerator> Accelerator::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto accel = std::make_shared<Accelerator>();
  Node::init(accel, json);
  KELDO_ASSERT(json.HasMember( "id" ));
  accel->id = readUint(json, "id");
  if (json.HasMember("busses")) {
    const rapidjson::Value& busses = json["busses"];
    KELDO_ASSERT(busses.IsArray());
    for (const auto& entry : busses.GetArray()) {
      std::shared_ptr<Bus> bus = Bus::fromJSON(entry);
      KELDO_ASSERT(accel->busses.find( bus->id ) == accel->busses.end());
      accel->busses.emplace(bus->id, bus);
    }
  }
  return accel;
}

std::shared_ptr<SCD> SCD::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto scd = std::make_shared<SCD>();
  Node::init(scd, json);
  KELDO_ASSERT(json.HasMember( "pci" ));
  scd->pci = readUint(json, "pci");
  readAccelerators(scd.get(), json);
  return scd;
}

std::shared_ptr<Celestica> Celestica::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto celestica = std::make_shared<Celestica>();
  Node::init(celestica, json);
  readAccelerators(celestica.get(), json);
  return celestica;
}

std::shared_ptr<LinuxFs> LinuxFs::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto fs = std::make_shared<LinuxFs>();
  Node::init(fs, json);
  if (json.HasMember("devices")) {
    for (const auto& entry : json["devices"].GetArray()) fs->devices.push_back(Device::fromJSON(entry));
  }
  return fs;
}

std::shared_ptr<I2C> I2C::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto i2c = std::make_shared<I2C>();
  Node::init(asNode(i2c), json);
  if (json.HasMember("simulated")) i2c->simulated = json["simulated"].GetBool();
  Bus::init(i2c, json);
  return i2c;
}

std::shared_ptr<IOPort> IOPort::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto port = std::make_shared<IOPort>();
  Node::init(asNode(port), json);
  Bus::init(port, json);
  return port;
}

std::shared_ptr<PLM> PLM::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto plm = std::make_shared<PLM>();
  Node::init(asNode(plm), json);
  Bus::init(plm, json);
  return plm;
}

std::shared_ptr<SccSpi> SccSpi::fromJSON(const rapidjson::Value& json) {
  KELDO_ASSERT(json.IsObject());
  auto spi = std::make_shared<SccSpi>();
  Node::init(asNode(spi), json);
  Bus::init(spi, json);
  return spi;
}

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
pl_status loadTopology(const char* json) {
  if (_topology && _topology_json == json) {
    pl_trace(2, "topology is the same as the previously loaded one (using it)");
    return PL_STATUS_OK;
  }
  pl_trace(2, "loading topology json");
  rapidjson::Document document;
  document.Parse(json);
  if (document.HasParseError()) {
    pl_trace(2, "failed to load topology from json: %s offset %zd",
             rapidjson::GetParseError_En(document.GetParseError()),
             static_cast<ssize_t>(document.GetErrorOffset()));
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

// The fields are cut to their widths as they are stored, and the size check
// looks at what the two bits then hold: 4 arrives as 0 and is refused (the
// text still names 4), while 5 and 6 wrap to 1 and 2 and pass. Board files
// rely on this, so it stays.
void fillAddressFromJSON(const rapidjson::Value& value, AhamAddress& out) {
  KELDO_ASSERT(value.IsObject());
  KELDO_ASSERT(value.HasMember( "address" ));
  out = AhamAddress();
  out.setAddrSize(1);
  out.setAddress(readUint(value, "address"));
  if (value.HasMember("writeDelay")) out.setWriteDelay(readUint(value, "writeDelay"));
  if (value.HasMember("readDelay")) out.setReadDelay(readUint(value, "readDelay"));
  if (value.HasMember("busTimeout")) out.setBusTimeout(readUint(value, "busTimeout"));
  if (value.HasMember("extraDelay")) out.setExtraDelay(readUint(value, "extraDelay"));
  if (value.HasMember("addrSize")) {
    out.setAddrSize(readUint(value, "addrSize"));
    const struct {
      uint32_t addrSize;
    } addr = {out.addrSize()};
    KELDO_ASSERT(addr.addrSize == 1 || addr.addrSize == 2 || addr.addrSize == 4);
  }
  if (value.HasMember("accel")) out.setAccel(readUint(value, "accel"));
}

}  // namespace Topology
