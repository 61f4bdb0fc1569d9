// Parsing of the command line.
#pragma once

#include <string>
#include <vector>

#include "commands.h"

/// The command to run.
struct Invocation {
  Arguments arguments;
  Command command = nullptr;  ///< null if help or the version was printed
  bool json = false;
};

/// Parses the words after the program's name into `invocation`. Prints help or the version on
/// request. Throws `Failure` for bad usage; `json` is then set if --json was read before.
void ReadCommandLine(std::vector<std::string> words, Invocation& invocation);
