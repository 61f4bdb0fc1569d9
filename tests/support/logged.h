// What the daemon's code logs.
#pragma once

#include "log.h"
#include "support/testing.h"

namespace ZELT {

/// Returns the lines that `use` logs, less the name and the number of the process.
inline std::string Logged(const std::function<void()>& use) {
  testing::internal::CaptureStderr();
  OpenLog(true);
  use();
  OpenLog(false);
  return std::regex_replace(testing::internal::GetCapturedStderr(),
                            std::regex(R"(zelttokenmgrd\[\d+\]: )"), "");
}

}  // namespace ZELT
