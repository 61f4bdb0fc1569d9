// Sorting refusals.
#pragma once

#include <exception>

#include "refusal_kind.h"

/// Returns the kind of a refusal. What is not known is a failure, so that it is noticed.
RefusalKind KindOf(const std::exception& refusal);
