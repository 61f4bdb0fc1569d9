// Work that may crash.
#pragma once

#include <functional>
#include <string>

/// Runs `work` in a forked child and waits for it. Throws `std::runtime_error` with the text of the
/// exception that `work` threw, or with `subject`, what the work uses, and the name of the signal
/// that killed the child.
void RunInChild(const std::string& subject, const std::function<void()>& work);
