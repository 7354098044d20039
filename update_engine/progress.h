// The callback through which the update flows report their progress.
#pragma once

#include <functional>
#include <string_view>

namespace qm5 {

/// Called on the thread that runs the flow, with a title and the percentage done, 0.0 to 100.0.
/// With an empty callback nothing is reported.
using ProgressCallback = std::function<void(std::string_view title, double progress)>;

}  // namespace qm5
