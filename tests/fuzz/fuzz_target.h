// Shared by both fuzz targets: the program that all inputs are run on, one after the other.
#pragma once

#include "platform/fatal.h"
#include "simulator/device/faulty_qm5.h"
#include "support/whole_app.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace qm5::test {

/// Never destroyed: its threads live as long as the process.
inline WholeApp& fuzzedApp() {
  static auto* const app = new WholeApp(smallImage());
  return *app;
}

/// Updates `device`, on which nothing may go wrong.
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
