// The kinds of requests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// In the order of the counters. `kOther` is for requests without a valid "type".
enum class RequestType : std::uint8_t {
  kIssue,
  kValidate,
  kValidateMany,
  kInspect,
  kRevoke,
  kTransfer,
  kList,
  kShow,
  kDrop,
  kStatus,
  kOther
};
constexpr std::size_t kRequestTypes = static_cast<std::size_t>(RequestType::kOther) + 1;

/// The values of "type" in requests, in the same order.
constexpr std::array<const char*, kRequestTypes> kRequestTypeNames = {
    "issue", "validate", "validate_many", "inspect", "revoke", "transfer",
    "list",  "show",     "drop",          "status",  "other"};
