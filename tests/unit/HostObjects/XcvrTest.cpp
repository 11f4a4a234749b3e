// Transceivers: pl_xcvr_add's id and type handling, and the thirteen
// callbacks called through the host's table.
#include <functional>
#include <stdexcept>

#include <gtest/gtest.h>

#include "HostObjectsSupport.h"

namespace {

using namespace HostObjectsTest;

class XcvrAdd : public ::testing::Test {
 protected:
  XcvrAdd() : registered_(9201, &device_) {
    FakeHost::reset();
    device_.sfp = &sfp_;
    device_.qsfp = &qsfp_;
  }
  pl_xcvr* add(const std::string& driverArgs) {
    return FakeHost::keep(pl_xcvr_add(objectJson(9201, driverArgs).c_str()));
  }

  TestDevice device_;
  Registered registered_;
  TestSfp sfp_;
  TestQsfp qsfp_;
};

TEST_F(XcvrAdd, TypeSelectsTheFamilyAndIdPassesOneBased) {
  struct Case {
    const char* type;
    const char* id;
    bool qsfp;
    unsigned int passedId;
  } cases[] = {
      {"qsfp", "1", true, 1}, {"qsfp+", "32", true, 32}, {"sfp", "12abc", false, 12}, {"sfp+", "007", false, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    device_.factoryCalls = 0;
    pl_xcvr* handle = add(std::string(R"("type": ")") + c.type + R"(", "id": ")" + c.id + "\"");
    EXPECT_EQ(c.qsfp ? qsfp_.handle() : sfp_.handle(), handle);
    EXPECT_EQ(c.passedId, device_.lastId);
    EXPECT_EQ(1, device_.factoryCalls);
    EXPECT_EQ(c.type, device_.lastArgs.driverArgs.at("type"));
  }
}

TEST_F(XcvrAdd, IdWithoutLeadingDigitsThrows) {
  EXPECT_THROW(add(R"("type": "sfp", "id": "abc")"), std::invalid_argument);
  EXPECT_THROW(add(R"("type": "sfp", "id": "99999999999")"), std::out_of_range);
  EXPECT_EQ(0, device_.factoryCalls);
}

TEST_F(XcvrAdd, NullResultsAreTraced) {
  device_.sfp = nullptr;
  device_.qsfp = nullptr;
  EXPECT_EQ(nullptr, add(R"("type": "sfp", "id": "1")"));
  EXPECT_EQ(0, FakeHost::traceLevel("newSfpXcvr() failed"));
  EXPECT_EQ(nullptr, add(R"("type": "qsfp", "id": "1")"));
  EXPECT_EQ(0, FakeHost::traceLevel("newQsfpXcvr() failed"));
  EXPECT_EQ(nullptr, FakeHost::keep(pl_xcvr_add("{")));
  EXPECT_EQ(0, FakeHost::traceLevel("DeviceBase::create() failed"));
}

TEST_F(XcvrAdd, BoardDescriptionFaultsStop) {
  struct Case {
    const char* driverArgs;
    const char* traced;
  } cases[] = {
      {R"("type": "sfp")", "No id argument given for Xcvr"},
      {R"("id": "3")", "No type argument given for Xcvr"},
      {R"("type": "QSFP", "id": "3")", "Xcvr type QSFP not supported"},
      {R"("type": "", "id": "3")", "Xcvr type  not supported"},
  };
  for (const Case& c : cases) {
    EXPECT_DEATH(
        {
          dumpTracesOnAbort();
          add(c.driverArgs);
        },
        std::string("Assertion `false' failed.*\\[trace 0\\] ") + c.traced)
        << c.driverArgs;
  }
}

// One host callback: how to call it through the table, the operation that
// should answer, and the trace it makes.
struct CallbackCase {
  const char* name;
  std::function<pl_status(pl_xcvr*, int*)> call;
  const char* expectedCall;
  bool setter;
};

void checkCallbacks(pl_xcvr* handle, Recorder& recorder, const std::vector<CallbackCase>& cases,
                    unsigned int index) {
  for (const CallbackCase& c : cases) {
    SCOPED_TRACE(c.name);
    FakeHost::reset();
    recorder.call.clear();
    recorder.result = 40 + static_cast<int>(&c - cases.data());
    int out = 0;
    EXPECT_EQ(recorder.result, c.call(handle, &out));
    EXPECT_EQ(c.expectedCall, recorder.call);
    if (!c.setter && std::string(c.name) != "getPresenceCallback") {
      EXPECT_EQ(77, out);
    }
    const std::string trace =
        std::string(c.name) + "(" + std::to_string(index) + (c.setter ? ", -3)" : ")");
    EXPECT_EQ(4, FakeHost::traceLevel(trace)) << trace;
  }
}

TEST(XcvrCallbacks, SfpSlots) {
  TestSfp sfp(11);
  const std::vector<CallbackCase> cases = {
      {"getPresenceCallback", [](pl_xcvr* x, int*) { return x->ops->u.sfp.get_presence(x); }, "getPresence",
       false},
      {"getTxFaultCallback", [](pl_xcvr* x, int* v) { return x->ops->u.sfp.get_tx_fault(x, v); }, "getTxFault",
       false},
      {"getRxLosCallback", [](pl_xcvr* x, int* v) { return x->ops->u.sfp.get_rx_los(x, v); }, "getRxLos", false},
      {"getTxDisableCallback", [](pl_xcvr* x, int* v) { return x->ops->u.sfp.get_tx_disable(x, v); },
       "getTxDisable", false},
      {"setTxDisableCallback", [](pl_xcvr* x, int*) { return x->ops->u.sfp.set_tx_disable(x, -3); },
       "setTxDisable -3", true},
  };
  checkCallbacks(sfp.handle(), sfp, cases, 11);
}

TEST(XcvrCallbacks, QsfpSlots) {
  TestQsfp qsfp(0);
  const std::vector<CallbackCase> cases = {
      {"getPresenceCallback", [](pl_xcvr* x, int*) { return x->ops->u.qsfp.get_presence(x); }, "getPresence",
       false},
      {"getModSelCallback", [](pl_xcvr* x, int* v) { return x->ops->u.qsfp.get_mod_sel(x, v); }, "getModSel",
       false},
      {"setModSelCallback", [](pl_xcvr* x, int*) { return x->ops->u.qsfp.set_mod_sel(x, -3); }, "setModSel -3",
       true},
      {"getLpModeCallback", [](pl_xcvr* x, int* v) { return x->ops->u.qsfp.get_lp_mode(x, v); }, "getLpMode",
       false},
      {"setLpModeCallback", [](pl_xcvr* x, int*) { return x->ops->u.qsfp.set_lp_mode(x, -3); }, "setLpMode -3",
       true},
      {"getResetCallback", [](pl_xcvr* x, int* v) { return x->ops->u.qsfp.get_reset(x, v); }, "getReset", false},
      {"setResetCallback", [](pl_xcvr* x, int*) { return x->ops->u.qsfp.set_reset(x, -3); }, "setReset -3", true},
      {"getInterruptCallback", [](pl_xcvr* x, int* v) { return x->ops->u.qsfp.get_interrupt(x, v); },
       "getInterrupt", false},
  };
  checkCallbacks(qsfp.handle(), qsfp, cases, 0);
}

}  // namespace
