// The firmware image that an update writes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/bytes.h"

namespace qm5 {

/// Reads the image of the application's package into memory, and prints its size, or why there is
/// none. It is neither parsed nor checked: the update engine does that. Any thread.
std::optional<Bytes> loadPackagedImage();

/// The same for the image in the file of that path.
std::optional<Bytes> loadImage(const std::string& path);

/// Whether the packaged image was made for the software QM5 alone. Any thread.
bool isDevelopmentImage();
inline constexpr std::string_view kDevelopmentImageText =
    "A development image: it is for the software QM5 alone.";

}  // namespace qm5
