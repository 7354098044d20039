// How the update flows report what they are doing.
#pragma once

#include <functional>
#include <string_view>

namespace qm5 {

/// Called on the flow's own thread with a title and the percentage done, 0.0 to 100.0.
/// An empty callback is none: nothing is reported, and no title is built.
using ProgressCallback = std::function<void(std::string_view title, double progress)>;

}  // namespace qm5
