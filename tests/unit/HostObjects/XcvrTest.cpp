// Transceivers: pl_xcvr_add's id and type handling, and the thirteen
// callbacks through the host's table.
#include <stdexcept>

#include <gtest/gtest.h>

#include "HostObjectsSupport.h"

namespace {

using namespace HostObjectsTest;
using ::testing::_;
using ::testing::Return;

class XcvrAdd : public ::testing::Test {
 protected:
  XcvrAdd() : registered_(9201, &device_) { FakeHost::reset(); }
  pl_xcvr* add(const std::string& driverArgs) {
    return FakeHost::keep(pl_xcvr_add(objectJson(9201, driverArgs).c_str()));
  }

  ::testing::StrictMock<MockDevice> device_;
  Registered registered_;
  MockSfp sfp_;
  MockQsfp qsfp_;
};

TEST_F(XcvrAdd, TypeSelectsTheFamilyAndTheIdPassesOneBased) {
  EXPECT_CALL(device_, newQsfpXcvr(1, _)).WillOnce(Return(&qsfp_));
  EXPECT_CALL(device_, newQsfpXcvr(32, _)).WillOnce(Return(&qsfp_));
  EXPECT_CALL(device_, newSfpXcvr(12, _)).WillOnce(Return(&sfp_));
  EXPECT_CALL(device_, newSfpXcvr(7, _)).WillOnce(Return(nullptr));
  EXPECT_EQ(qsfp_.handle(), add(R"("type": "qsfp", "id": "1")"));
  EXPECT_EQ(qsfp_.handle(), add(R"("type": "qsfp+", "id": "32")"));
  EXPECT_EQ(sfp_.handle(), add(R"("type": "sfp", "id": "12abc")"));
  EXPECT_EQ(nullptr, add(R"("type": "sfp+", "id": "007")"));
  EXPECT_EQ(0, FakeHost::traceLevel("newSfpXcvr() failed"));
  EXPECT_FALSE(FakeHost::hasTrace("newQsfpXcvr() failed"));

  EXPECT_THROW(add(R"("type": "sfp", "id": "abc")"), std::invalid_argument);
  EXPECT_THROW(add(R"("type": "sfp", "id": "99999999999")"), std::out_of_range);
  EXPECT_EQ(nullptr, FakeHost::keep(pl_xcvr_add("{")));
  EXPECT_EQ(0, FakeHost::traceLevel("DeviceBase::create() failed"));
}

TEST_F(XcvrAdd, BoardDescriptionFaultsStopAfterTheirTrace) {
  const std::pair<const char*, const char*> cases[] = {
      {R"("type": "sfp")", "No id argument given for Xcvr"},
      {R"("id": "3")", "No type argument given for Xcvr"},
      {R"("type": "QSFP", "id": "3")", "Xcvr type QSFP not supported"},
  };
  for (const auto& [driverArgs, traced] : cases) {
    EXPECT_DEATH(
        {
          dumpTracesOnAbort();
          add(driverArgs);
        },
        std::string("Assertion `false' failed.*\\[trace 0\\] ") + traced);
  }
}

// Each callback reaches its own operation with the host's arguments, returns
// its status unchanged and traces the zero-based port.
TEST(XcvrCallbacks, ForwardAndTrace) {
  MockSfp sfp(11);
  MockQsfp qsfp(0);
  pl_xcvr* s = sfp.handle();
  pl_xcvr* q = qsfp.handle();
  const pl_sfp_ops& so = s->ops->u.sfp;
  const pl_qsfp_ops& qo = q->ops->u.qsfp;
  int v = 0;
  ::testing::InSequence order;
  EXPECT_CALL(sfp, getPresence()).WillOnce(Return(40));
  EXPECT_CALL(sfp, getTxFault(&v)).WillOnce(Return(41));
  EXPECT_CALL(sfp, getRxLos(&v)).WillOnce(Return(42));
  EXPECT_CALL(sfp, getTxDisable(&v)).WillOnce(Return(43));
  EXPECT_CALL(sfp, setTxDisable(-3)).WillOnce(Return(44));
  EXPECT_CALL(qsfp, getPresence()).WillOnce(Return(50));
  EXPECT_CALL(qsfp, getModSel(&v)).WillOnce(Return(51));
  EXPECT_CALL(qsfp, setModSel(1)).WillOnce(Return(52));
  EXPECT_CALL(qsfp, getLpMode(&v)).WillOnce(Return(53));
  EXPECT_CALL(qsfp, setLpMode(0)).WillOnce(Return(54));
  EXPECT_CALL(qsfp, getReset(&v)).WillOnce(Return(55));
  EXPECT_CALL(qsfp, setReset(7)).WillOnce(Return(56));
  EXPECT_CALL(qsfp, getInterrupt(&v)).WillOnce(Return(57));
  FakeHost::reset();
  const std::vector<pl_status> results = {
      so.get_presence(s), so.get_tx_fault(s, &v), so.get_rx_los(s, &v), so.get_tx_disable(s, &v),
      so.set_tx_disable(s, -3), qo.get_presence(q), qo.get_mod_sel(q, &v), qo.set_mod_sel(q, 1),
      qo.get_lp_mode(q, &v), qo.set_lp_mode(q, 0), qo.get_reset(q, &v), qo.set_reset(q, 7),
      qo.get_interrupt(q, &v)};
  EXPECT_EQ((std::vector<pl_status>{40, 41, 42, 43, 44, 50, 51, 52, 53, 54, 55, 56, 57}), results);
  EXPECT_EQ((std::vector<std::string>{"getPresenceCallback(11)", "getTxFaultCallback(11)", "getRxLosCallback(11)",
                                      "getTxDisableCallback(11)", "setTxDisableCallback(11, -3)",
                                      "getPresenceCallback(0)", "getModSelCallback(0)", "setModSelCallback(0, 1)",
                                      "getLpModeCallback(0)", "setLpModeCallback(0, 0)", "getResetCallback(0)",
                                      "setResetCallback(0, 7)", "getInterruptCallback(0)"}),
            FakeHost::traceTexts(4));
  EXPECT_EQ(13u, FakeHost::traces().size());
}

}  // namespace
