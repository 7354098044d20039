// What the host's own code costs for a request and for a block, with a device that answers at
// once: time, and how often it asks for memory. The program's lines go to standard output as
// ever, so send that to the null device and have the results written by --benchmark_out.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "benchmarks/unsigned_image.h"
#include "device_link/vendor_requests.h"
#include "tests/support/allocation_count.h"
#include "tests/support/ready_qm5.h"
#include "update_engine/unsecure_flow.h"

namespace qm5 {
namespace {

ReadyLink& link() {
  static auto* const process = new ReadyLink;
  return *process;
}

// Runs `work`, which is for `blocks` blocks, and counts.
template <typename Work>
void measure(benchmark::State& state, std::size_t blocks, Work work) {
  const std::size_t requests = link().device.requestCount();
  const std::size_t allocations = allocationCount();
  for ([[maybe_unused]] auto _ : state) work();
  const auto all = static_cast<double>(state.iterations()) * static_cast<double>(blocks);
  state.counters["requests"] = static_cast<double>(link().device.requestCount() - requests) / all;
  state.counters["allocations"] = static_cast<double>(allocationCount() - allocations) / all;
  state.SetItemsProcessed(static_cast<std::int64_t>(all));
}

void writeRequest(benchmark::State& state) {
  const Bytes data(8);
  link();
  measure(state, 1, [&] {
    benchmark::DoNotOptimize(global_driver->usb_write(kVendorWrite, kRegisterWrite, 0x1F, 0, data));
  });
}
BENCHMARK(writeRequest);

void readRequest(benchmark::State& state) {
  link();
  measure(state, 1, [] {
    benchmark::DoNotOptimize(global_driver->usb_read(kVendorRead, kRegisterRead, 0x1F, 0, 5));
  });
}
BENCHMARK(readRequest);

void update(benchmark::State& state, const Bytes& payload) {
  link();
  double shown = 0;
  const ProgressCallback progress = [&](std::string_view, double percent) { shown = percent; };
  measure(state, payload.size() / 64,
          [&] { benchmark::DoNotOptimize(common_update(*global_driver, payload, progress)); });
}

BENCHMARK_CAPTURE(update, newBlocks, newBlocks(1024));
BENCHMARK_CAPTURE(update, repeatedBlocks, Bytes(std::size_t{64} * 1024, 0xFF));

}  // namespace
}  // namespace qm5

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  std::fflush(stdout);
  std::_Exit(0);
}
