// Running a command and taking part in its life.
#pragma once

#include <string>
#include <vector>

/// Runs `command` with `token` in the environment as ZELT_TOKEN, and waits for it. Signals that are
/// sent to this process meanwhile go on to the command. Returns its exit code, 128 + N when signal
/// N ended it, 127 when there is no such command and 126 when it cannot be run, as shells do.
int RunWithToken(std::vector<std::string> command, const std::string& token);
