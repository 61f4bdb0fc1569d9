// What the fuzz targets share.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace ZELT::Fuzz {

/// Ends the process, so that the fuzzer keeps the input, unless `holds`.
inline void Expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

}  // namespace ZELT::Fuzz
