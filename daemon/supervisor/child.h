// Work that may crash.
#pragma once

#include <functional>
#include <string>

/// Runs `work` in a forked child and waits for it. Throws `StartError` with the text and status of
/// the exception that `work` threw, status 1 if that was another one. If a signal killed the child,
/// the text has `subject`, what the work uses, and the name of the signal.
void RunInChild(const std::string& subject, const std::function<void()>& work);
