// The input decides how the QM5 behaves during one run: each reply, failure, plug and unplug.
// Whatever it decides, the run ends in an outcome and a QM5 without faults is updated next.
#include <algorithm>

#include "fuzz_target.h"
#include "simulator/device/qm5_model.h"

namespace qm5::test {
namespace {

class StreamedQm5 final : public ControlEndpoint {
 public:
  explicit StreamedQm5(ByteView stream) : stream_(stream) {}

  /// The next byte. 0, which leaves the request to the model, after the end of the input.
  std::uint8_t next() {
    if (stream_.empty()) return 0;
    const std::uint8_t byte = stream_.front();
    stream_ = stream_.subspan(1);
    return byte;
  }
  void powerCycle() override { model_.powerCycle(); }
  ControlResult control(const ControlSetup& setup, ByteView data) override {
    static const ControlResult kFailures[] = {{ControlStatus::stall},
                                              {ControlStatus::gone},
                                              {ControlStatus::gone, true},
                                              {ControlStatus::pending}};
    const std::size_t decision = next();
    if (decision >= 1 && decision <= std::size(kFailures)) return kFailures[decision - 1];
    if (decision == 5) model_.hang();
    if (decision == 6) return madeUp(setup);
    if (decision == 7) return changed(model_.control(setup, data));
    return model_.control(setup, data);
  }

 private:
  ControlResult madeUp(const ControlSetup& setup) {
    Bytes reply(isRead(setup) ? std::min<std::size_t>(next(), setup.wLength) : 0);
    std::generate(reply.begin(), reply.end(), [this] { return next(); });
    return {.data = reply};
  }
  ControlResult changed(ControlResult result) {
    if (!result.data.empty()) result.data[next() % result.data.size()] = next();
    return result;
  }

  ByteView stream_;
  Qm5Model model_;
};

}  // namespace
}  // namespace qm5::test

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qm5::test;
  WholeApp& app = fuzzedApp();
  StreamedQm5 device({data, size});
  app.during_sleep = [&] {
    const std::uint8_t decision = device.next();
    if (decision == 1) app.bus.unplug();
    if (decision == 2) app.bus.plug(device);
  };
  app.bus.plug(device);
  if (app.update().title.empty()) qm5::fatal("a run without an outcome");
  app.bus.unplug();
  qm5::FaultyQm5 good;
  if (updateGoodDevice(good).title != "Firmware update successful!" || !good.signatureHolds())
    qm5::fatal("a good QM5 is not updated");
  return 0;
}
