// Runs a fuzz target over the files of the directory that is named as argument.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "support.h"

int main(int argc, char** argv) {
  // Read first: the target may hide parts of the file system.
  std::vector<std::string> inputs = {""};
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  LLVMFuzzerInitialize(&argc, &argv);
  for (const std::string& input : inputs) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  }
  std::cout << inputs.size() << " inputs\n";
  return inputs.size() > 1 ? 0 : 1;  // an empty corpus would test nothing
}
