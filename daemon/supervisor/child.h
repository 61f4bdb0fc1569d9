// Work that may crash.
#pragma once

#include <functional>

/// Runs `work` in a forked child and waits for it. Throws `std::runtime_error` with the text of the
/// exception that `work` threw, or with the name of the signal that killed the child.
void RunInChild(const std::function<void()>& work);
