// The words of the question before the program ends. They speak of unfinished flashing in every
// state, also when no update has run.
#pragma once

#include <string_view>

namespace qm5 {

inline constexpr std::string_view kExitTitle = "Exit confirmation";
inline constexpr std::string_view kExitText =
    "Firmware flashing did not finish.\nDo you really want to exit?";
inline constexpr std::string_view kQuit = "Quit";
inline constexpr std::string_view kDontQuit = "Don't quit";

}  // namespace qm5
