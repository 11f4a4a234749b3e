// The transaction interface shared by every access method, the one-shot
// helpers that wrap a single operation in a whole transaction, and the choice
// of access method for a device from the loaded topology.
#include "Ham/Ham.h"

#include <utility>

#include "Drivers/Drivers.h"
#include "Keldo.h"
#include "KeldoUtil/Assert.h"
#include "KeldoUtil/NotImplementedException.h"
#include "Zanty.h"

namespace Ham {

// A transport overrides only what its medium can do; everything else reaches
// these defaults and surfaces to the caller as an exception naming the slot.
void Ham::init() {}
Ham::ResponseId Ham::addRecvByte() { throw NotImplementedException("addRecvByte"); }
Ham::ResponseId Ham::addRead8(uint32_t) { throw NotImplementedException("addRead8"); }
Ham::ResponseId Ham::addRead16(uint32_t) { throw NotImplementedException("addRead16"); }
Ham::ResponseId Ham::addRead32(uint32_t) { throw NotImplementedException("addRead32"); }
Ham::ResponseId Ham::addRead(uint32_t, uint32_t, bool) { throw NotImplementedException("addRead"); }
Ham::ResponseId Ham::addReadBlock(uint32_t) { throw NotImplementedException("addReadBlock"); }
Ham::ResponseId Ham::addSendByte(uint8_t, bool) { throw NotImplementedException("addSendByte"); }
Ham::ResponseId Ham::addWrite8(uint32_t, uint8_t, bool) { throw NotImplementedException("addWrite8"); }
Ham::ResponseId Ham::addWrite16(uint32_t, uint16_t, bool) { throw NotImplementedException("addWrite16"); }
Ham::ResponseId Ham::addWrite32(uint32_t, uint32_t, bool) { throw NotImplementedException("addWrite32"); }
Ham::ResponseId Ham::addWrite(uint32_t, const void*, uint32_t, bool) {
  throw NotImplementedException("addWrite");
}
Ham::ResponseId Ham::addWriteBlock(uint32_t, const void*, uint32_t, bool) {
  throw NotImplementedException("addWriteBlock");
}
Ham::ResponseId Ham::addProcessCall(uint32_t, uint16_t) { throw NotImplementedException("addProcessCall"); }
uint8_t Ham::get8(ResponseId) { throw NotImplementedException("get8"); }
uint16_t Ham::get16(ResponseId) { throw NotImplementedException("get16"); }
uint32_t Ham::get32(ResponseId) { throw NotImplementedException("get32"); }
std::string Ham::getBlock(ResponseId, uint32_t) { throw NotImplementedException("getBlock"); }

// Drivers hand over their register tables and names unconditionally; only the
// simulated access method uses them, so on a real transport this is a notice.
void Ham::setExpected(Utils::ExpectedValues*) { pl_trace(0, "virtual Ham::setExpected() invoked!!!"); }
void Ham::setDriverName(std::string, std::string) { pl_trace(0, "virtual Ham::setDriverName() invoked!!!"); }

void Ham::retryCountIs(uint32_t count) {
  retryCount = count;
  retryCountSet = true;  // a count of 0 is a request too
}

namespace {

// One queued read: the output is written only after a successful execute, so
// a caller's default value survives any failure.
template <typename Out, typename Queue, typename Fetch>
pl_status oneShotRead(Ham& ham, Out* out, Queue queue, Fetch fetch) {
  ham.prepare();
  Ham::ResponseId id = queue();
  pl_status status = ham.execute();
  if (status != PL_STATUS_OK) {
    return status;
  }
  fetch(id, out);
  return PL_STATUS_OK;
}

template <typename Queue>
pl_status oneShotWrite(Ham& ham, Queue queue) {
  ham.prepare();
  queue();
  return ham.execute();
}

}  // namespace

pl_status Ham::recvByte(uint8_t* out) {
  return oneShotRead(*this, out, [&] { return addRecvByte(); }, [&](ResponseId id, uint8_t* o) { *o = get8(id); });
}

pl_status Ham::read8(uint32_t reg, uint8_t* out) {
  return oneShotRead(*this, out, [&] { return addRead8(reg); }, [&](ResponseId id, uint8_t* o) { *o = get8(id); });
}

pl_status Ham::read16(uint32_t reg, uint16_t* out) {
  return oneShotRead(*this, out, [&] { return addRead16(reg); },
                     [&](ResponseId id, uint16_t* o) { *o = get16(id); });
}

pl_status Ham::read32(uint32_t reg, uint32_t* out) {
  return oneShotRead(*this, out, [&] { return addRead32(reg); },
                     [&](ResponseId id, uint32_t* o) { *o = get32(id); });
}

pl_status Ham::read(uint32_t reg, uint32_t length, std::string* out, bool flag) {
  return oneShotRead(*this, out, [&] { return addRead(reg, length, flag); }, [&](ResponseId id, std::string* o) {
    std::string data = getBlock(id, length);
    o->swap(data);
  });
}

pl_status Ham::readBlock(uint32_t reg, std::string* out) {
  // Length 0: a block read's length is whatever the device answers with.
  return oneShotRead(*this, out, [&] { return addReadBlock(reg); }, [&](ResponseId id, std::string* o) {
    std::string data = getBlock(id, 0);
    o->swap(data);
  });
}

pl_status Ham::processCall(uint32_t reg, uint16_t value, uint16_t* out) {
  return oneShotRead(*this, out, [&] { return addProcessCall(reg, value); },
                     [&](ResponseId id, uint16_t* o) { *o = get16(id); });
}

pl_status Ham::sendByte(uint8_t value, bool flag) {
  return oneShotWrite(*this, [&] { addSendByte(value, flag); });
}

pl_status Ham::write8(uint32_t reg, uint8_t value, bool flag) {
  return oneShotWrite(*this, [&] { addWrite8(reg, value, flag); });
}

pl_status Ham::write16(uint32_t reg, uint16_t value, bool flag) {
  return oneShotWrite(*this, [&] { addWrite16(reg, value, flag); });
}

pl_status Ham::write32(uint32_t reg, uint32_t value, bool flag) {
  return oneShotWrite(*this, [&] { addWrite32(reg, value, flag); });
}

pl_status Ham::write(uint32_t reg, const void* data, uint32_t length, bool flag) {
  return oneShotWrite(*this, [&] { addWrite(reg, data, length, flag); });
}

pl_status Ham::writeBlock(uint32_t reg, const void* data, uint32_t length, bool flag) {
  return oneShotWrite(*this, [&] { addWriteBlock(reg, data, length, flag); });
}

Ham* Ham::create(const std::string& name, const Topology::Topology& topology,
                 const Drivers::DriverArgs& driverArgs) {
  pl_trace(3, "looking up for %s in %p with %p", name.c_str(), static_cast<const void*>(&topology),
           static_cast<const void*>(&driverArgs));
  auto row = hams.find(name);
  if (row == hams.end()) {
    pl_trace(0, "Couldn't find HAM %s", name.c_str());
    return nullptr;
  }
  pl_trace(3, "calling %s factory function", name.c_str());
  Ham* ham = row->second(topology, driverArgs);
  if (ham == nullptr) {
    pl_trace(0, "Factory function returned, couldn't create HAM %s", name.c_str());
    return nullptr;
  }
  pl_trace(3, "ham initialisation");
  ham->init();
  return ham;
}

Ham* createHam(const Drivers::DriverArgs& driverArgs) {
  const Topology::Topology* topology = Topology::_topology.get();
  KELDO_ASSERT(topology);

  pl_trace(0, "looking for component %u of device %u in topology", driverArgs.uid, driverArgs.did);
  SearchVisitor visitor(driverArgs.uid, driverArgs.did);
  topology->accept(&visitor);
  if (!visitor.found) {
    pl_trace(0, "could not find component uid %d in topology", static_cast<int>(driverArgs.uid));
    return nullptr;
  }

  // The topology still has to know the device in simulation: only the
  // transport is replaced, not the lookup.
  std::string name = Utils::isInSimulation() ? std::string("SimHam") : visitor.hamName;
  pl_trace(0, "creating %s HAM using topology information", name.c_str());
  Ham* ham = Ham::create(name, *topology, driverArgs);
  if (ham == nullptr) {
    pl_trace(0, "failed to create HAM");
  }
  return ham;
}

// Every line names the node on the path, innermost first.
void SearchVisitor::onPath(const Topology::Component* node) { pl_trace(2, "Component %u found in tree", node->uid); }

void SearchVisitor::onPath(const Topology::Device* node) {
  pl_trace(2, "Device %u contain the component", node->did);
  device = node;
}

void SearchVisitor::onPath(const Topology::Mux* node) { pl_trace(2, "Mux using device %d", static_cast<int>(node->did)); }
void SearchVisitor::onPath(const Topology::Bus* node) { pl_trace(2, "BusId %u", node->id); }
void SearchVisitor::onPath(const Topology::Accelerator* node) { pl_trace(2, "AccelId %u", node->id); }

void SearchVisitor::onPath(const Topology::SCD* node) {
  medium(*node, "SCD %u %08X", static_cast<uint32_t>(node->accelerators.size()), node->pci);
}
void SearchVisitor::onPath(const Topology::I2C* node) { medium(*node, "I2C bus %u", node->id); }
void SearchVisitor::onPath(const Topology::IOPort* node) { medium(*node, "%s", "IOPort"); }
void SearchVisitor::onPath(const Topology::Celestica* node) { medium(*node, "%s", "Celestica"); }
void SearchVisitor::onPath(const Topology::PLM* node) { medium(*node, "%s", "PLM"); }
void SearchVisitor::onPath(const Topology::SccSpi* node) { medium(*node, "%s", "SccSpi"); }

}  // namespace Ham
