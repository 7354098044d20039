#include "simulator/verdict.h"

#include <algorithm>
#include <vector>

namespace qm5 {
namespace {

constexpr std::size_t kBreachesNamed = 3;  // the first ones tell the most

std::string describeFlash(const Bytes& flash, const std::optional<Bytes>& expected) {
  const std::string size = " (" + std::to_string(flash.size()) + " bytes)";
  if (flash.empty()) return "the flash is empty";
  if (!expected) return "the flash was written" + size;
  return flash == *expected ? "the flash is the image" + size : "the flash is not the image" + size;
}

std::string describeBreaches(const std::vector<std::string>& breaches) {
  if (breaches.empty()) return "no breach of protocol";
  std::string text = std::to_string(breaches.size()) +
                     (breaches.size() == 1 ? " breach" : " breaches") + " of protocol: ";
  const std::size_t named = std::min(breaches.size(), kBreachesNamed);
  for (std::size_t i = 0; i < named; ++i) text += (i == 0 ? "" : "; ") + breaches[i];
  return text + (named < breaches.size() ? "; ..." : "");
}

}  // namespace

Verdict judge(const FaultyQm5& device, const std::optional<Bytes>& expected_flash) {
  const Bytes flash = device.flash();
  const std::vector<std::string> breaches = device.breaches();
  const bool signature_holds = device.signatureHolds();
  const bool flash_right = !expected_flash || flash == *expected_flash;
  return {describeFlash(flash, expected_flash) +
              (signature_holds ? ", the signature holds, " : ", the signature does not hold, ") +
              describeBreaches(breaches),
          flash_right && signature_holds && breaches.empty()};
}

}  // namespace qm5
