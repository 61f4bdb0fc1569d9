// Work that may end its process.
#pragma once

#include <functional>

/// Runs `work` in a forked child and waits for it. Throws `std::runtime_error` with the text of
/// what it threw, or one that names the signal that ended it.
void RunInChild(const std::function<void()>& work);
