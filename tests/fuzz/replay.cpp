// Runs a fuzz target on the files of a folder, built by any compiler, so that what a fuzzer once
// found is tested always. Usage: fuzz_..._replay FOLDER
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz_target.h"

int main(int, char** arguments) {
  int replayed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(arguments[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    const qm5::Bytes input(std::istreambuf_iterator<char>(file), {});
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++replayed;
  }
  std::printf("fuzz corpus: %d inputs replayed\n", replayed);
  std::fflush(nullptr);
  std::_Exit(replayed > 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}
