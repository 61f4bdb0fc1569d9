// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// The entry points that a fuzzer, or replay.cpp, calls (libFuzzer's FuzzerInterface.h).
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace ZELT::Fuzz {

/// Ends the process, so that the fuzzer keeps the input, unless `holds`.
inline void Expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

}  // namespace ZELT::Fuzz
