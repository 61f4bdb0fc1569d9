// The command line as CLI11 reads it.
#pragma once

#include <string>
#include <vector>

#include "commands.h"

/// What is to be done.
struct Invocation {
  Arguments arguments;
  Result (*command)(const Arguments&) =
      nullptr;  ///< null: nothing, help or the version was printed
  bool json = false;
};

/// Reads the words after the program's name into `invocation`. Prints help or the version when that
/// is asked for. Throws `Failure` for bad usage; `json` is then set if --json was read before.
void ReadCommandLine(std::vector<std::string> words, Invocation& invocation);
