// Work in processes of its own.
#pragma once

#include <cstdlib>
#include <exception>
#include <functional>
#include <string>

#include "start_error.h"

/// Does `work` and returns the exit status of the process: 0, that of a `StartError`, or 1. Passes
/// the text of what was thrown to `report`. Nothing leaves this function, so a forked process that
/// ends with `_exit` of the result never runs its parent's code.
template <typename Work, typename Report>
int ExitStatusOf(const Work& work, const Report& report) noexcept {
  try {
    work();
    return EXIT_SUCCESS;
  } catch (const StartError& error) {
    report(error.what());
    return error.status;
  } catch (const std::exception& error) {
    report(error.what());
  } catch (...) {
    report("an unknown exception");
  }
  return EXIT_FAILURE;
}

/// Runs `work` in a forked process and waits for it. Throws `StartError` with its exit status and
/// the text of what `work` threw. If a signal killed the process, the text has `subject`, what the
/// work uses, and the name of the signal.
void RunInChild(const std::string& subject, const std::function<void()>& work);
