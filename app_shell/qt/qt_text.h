// Text as Qt has it.
#pragma once

#include <QString>
#include <string_view>

namespace qm5 {

/// `text`, which is UTF-8, as a Qt string.
inline QString qtText(std::string_view text) {
  return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

}  // namespace qm5
