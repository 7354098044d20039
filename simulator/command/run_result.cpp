#include "simulator/command/run_result.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace qm5 {
namespace {

constexpr std::size_t kTextsShown = 3;  // the first ones say the most

std::string describeFlash(const Bytes& flash, const std::optional<Bytes>& expected) {
  const std::string size = " (" + std::to_string(flash.size()) + " bytes)";
  if (flash.empty()) return "the flash is empty";
  if (!expected) return "the flash was written" + size;
  return flash == *expected ? "the flash is the image" + size : "the flash is not the image" + size;
}

/// How many there are, and the first few of them.
std::string list(const std::vector<std::string>& texts, std::string_view singular,
                 std::string_view plural) {
  std::string line = std::to_string(texts.size()) + " ";
  line.append(texts.size() == 1 ? singular : plural);
  const std::size_t shown = std::min(texts.size(), kTextsShown);
  for (std::size_t i = 0; i < shown; ++i) line.append(i == 0 ? ": " : "; ").append(texts[i]);
  return line + (shown < texts.size() ? "; ..." : "");
}

std::string describeHost(const std::vector<std::string>& breaches,
                         const std::vector<std::string>& deviations) {
  std::string line = breaches.empty()
                         ? "no breach of protocol"
                         : list(breaches, "breach of protocol", "breaches of protocol");
  if (!deviations.empty()) line += ", " + list(deviations, "deviation", "deviations");
  return line;
}

}  // namespace

RunResult evaluateRun(const FaultyQm5& device, const std::optional<Bytes>& expected_flash) {
  const Bytes flash = device.flash();
  const std::vector<std::string> breaches = device.breaches();
  const std::vector<std::string> deviations = device.deviations();
  const bool signature_holds = device.signatureHolds();
  const bool flash_right = !expected_flash || flash == *expected_flash;
  return {describeFlash(flash, expected_flash) +
              (signature_holds ? ", the signature holds, " : ", the signature does not hold, ") +
              describeHost(breaches, deviations),
          flash_right && signature_holds && breaches.empty() && deviations.empty()};
}

}  // namespace qm5
