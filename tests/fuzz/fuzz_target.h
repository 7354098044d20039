// What both fuzz targets have in common: the program that takes all inputs one after the
// other, and what must hold after each.
#pragma once

#include "platform/fatal.h"
#include "simulator/faulty_qm5.h"
#include "support/whole_app.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace qm5::test {

/// Never destroyed: its threads live as long as the process.
inline WholeApp& fuzzedApp() {
  static auto* const app = new WholeApp(smallImage());
  return *app;
}

/// An update of a QM5 with which nothing is wrong.
inline Outcome updateGoodDevice(FaultyQm5& device) {
  WholeApp& app = fuzzedApp();
  app.during_sleep = {};
  app.bus.unplug();
  app.bus.plug(device);
  Outcome outcome = app.update();
  app.bus.unplug();
  if (testing::UnitTest::GetInstance()->Failed()) fatal("the toolkit was used wrongly");
  return outcome;
}

}  // namespace qm5::test
