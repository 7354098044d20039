// The order in which a person looks for USB ports.
#pragma once

#include <QVersionNumber>
#include <string>

namespace qm5 {

/// Orders names of ports by their numbers: 1-2 comes before 1-10.
struct PortOrder {
  bool operator()(const std::string& one, const std::string& other) const {
    return numbersOf(one) < numbersOf(other);
  }

 private:
  static QVersionNumber numbersOf(const std::string& port) {
    return QVersionNumber::fromString(QString::fromStdString(port).replace('-', '.'));
  }
};

}  // namespace qm5
