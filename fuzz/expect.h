// What the fuzz targets share.
#pragma once

#include <stdexcept>

namespace ZELT::Fuzz {

/// Ends the process, so that the fuzzer keeps the input, unless `holds`.
inline void Expect(bool holds, const char* what) {
  if (!holds) throw std::logic_error(what);  // which nobody catches
}

}  // namespace ZELT::Fuzz
