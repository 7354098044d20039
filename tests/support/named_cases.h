// Tables of named cases: the name of a case becomes a part of the test's name.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace qm5::test {

inline constexpr auto named = [](const auto& info) {
  std::string name(info.param.name);
  for (char& c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  }
  return name;
};

}  // namespace qm5::test

// Declares how gtest prints a case when a test fails.
#define QM5_PRINTS_NAME(Case)                                 \
  inline void PrintTo(const Case& shown, std::ostream* out) { \
    *out << shown.name;                                       \
  }
