#include "update_run/packaged_image.h"

#include <string_view>
#include <utility>
#include <variant>

#include "computer/package.h"
#include "platform/console.h"

namespace qm5 {
namespace {

constexpr std::string_view kImageName = "QM5-combind-051723-secure-Cus-42";
constexpr std::string_view kImageExtension = "bin";

}  // namespace

std::optional<Bytes> loadPackagedImage() {
  const std::optional<std::string> path =
      applicationPackage().pathForResource(kImageName, kImageExtension);
  if (path) return loadImage(*path);
  print("No embedded file.");
  return std::nullopt;
}

std::optional<Bytes> loadImage(const std::string& path) {
  FileContents contents = applicationPackage().readFile(path);
  if (const auto* error = std::get_if<FileError>(&contents)) {
    print("Can not access file: " + error->description);
    return std::nullopt;
  }
  Bytes& image = std::get<Bytes>(contents);
  print("Got data size:" + std::to_string(image.size()));
  return std::move(image);
}

// A notice is installed beside such an image.
bool isDevelopmentImage() {
  return applicationPackage().pathForResource("development-image", "notice").has_value();
}

}  // namespace qm5
