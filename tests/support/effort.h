// How much a test that could go on for ever does: a little in every run, all of it with
// ./test --long; and the one line in which it says what came out.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

namespace qm5::test {

inline bool isLong() {
  return std::getenv("QM5_LONG") != nullptr;
}

template <typename Count>
Count effort(Count little, Count all) {
  return isLong() ? all : little;
}

/// Whether figures of time and memory are those of the program itself.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kMeasurable = false;
#else
inline constexpr bool kMeasurable = true;
#endif

/// Whether the caller's is the only thread of the process, but for one that ThreadSanitizer may
/// have.
inline bool isOnlyThread() {
#ifdef __SANITIZE_THREAD__
  constexpr std::ptrdiff_t kMost = 2;
#else
  constexpr std::ptrdiff_t kMost = 1;
#endif
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}) <= kMost;
}

/// ./test collects these lines.
inline void report(const std::string& line) {
  std::cout << "reliability: " << line << std::endl;
}

}  // namespace qm5::test
