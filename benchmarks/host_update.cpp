// host_update BLOCKS [ROUNDS [repeated]]: updates by the update engine, in process, with a
// device that is ready at once, from an image of new blocks or of one that is repeated. Writes one
// line of JSON on standard error: nanoseconds of processor time per block, and the peak of the
// resident set in kilobytes. The program's own lines go to standard output, as ever.
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "benchmarks/peak_memory.h"
#include "benchmarks/unsigned_image.h"
#include "platform/system_log.h"
#include "tests/support/ready_qm5.h"
#include "update_engine/secure_flow.h"

namespace qm5 {
namespace {

// Of this thread, in nanoseconds: nothing here waits.
double processorTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

void run(std::size_t image_blocks, std::size_t rounds, bool repeated) {
  new ReadyLink;
  Bytes image = unsignedImage(image_blocks);
  if (repeated) std::fill(image.begin() + kImagePayloadStart, image.end(), std::uint8_t{0xFF});
  double shown = 0;
  const ProgressCallback progress = [&](std::string_view, double percent) { shown = percent; };
  const double start = processorTime();
  for (std::size_t i = 0; i < rounds; ++i) {
    if (!secure_update_binary(*global_driver, image, progress, "pss", false)) std::abort();
  }
  const double time = processorTime() - start;
  const std::size_t blocks = image_blocks * rounds;
  std::fprintf(stderr, "{\"ns\": %.1f, \"kilobytes\": %ld}\n", time / static_cast<double>(blocks),
               peakMemory("self"));
}

}  // namespace
}  // namespace qm5

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  qm5::setSystemLog([](std::string_view) {});
  qm5::run(std::strtoul(argv[1], nullptr, 10), argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1,
           argc > 3);
  std::_Exit(0);  // the link's monitor may be anywhere
}
