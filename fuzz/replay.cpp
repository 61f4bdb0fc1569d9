// Runs a fuzz target over the files of the directories that are named as arguments.
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "support.h"

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  // Read first: the target may hide parts of the file system.
  std::vector<std::string> inputs = {""};
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : fs::directory_iterator(argv[i])) {
      inputs.push_back(ZELT::Fuzz::ReadWhole(entry.path()));
    }
  }
  LLVMFuzzerInitialize(&argc, &argv);
  for (const std::string& input : inputs) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  }
  std::cout << inputs.size() << " inputs\n";
  return inputs.size() > 1 ? 0 : 1;  // an empty corpus would test nothing
}
