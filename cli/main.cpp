// zelttoken, the command line of the token daemon.
#include <csignal>
#include <iostream>
#include <string>

#include "command_line.h"
#include "commands.h"
#include "failure.h"
#include "json_text.h"
#include "report.h"
#include "standard_descriptors.h"

namespace {

void Print(const Invocation& invocation, const Result& result) {
  if (invocation.json) {
    Json::Value value = result.value;
    value["success"] = true;
    std::cout << ZELT::TokenManager::toString(value) << '\n';
  } else if (!result.text.empty()) {
    std::cout << result.text << '\n';
  }
  if (!std::cout.flush()) throw Failure(kRefused, "cannot write to standard output");
}

void PrintError(const Invocation& invocation, const std::string& error) {
  if (invocation.json) {
    Json::Value value;
    value["success"] = false;
    value["error"] = Printable(error);  // what it quotes may be no UTF-8
    std::cout << ZELT::TokenManager::toString(value) << '\n';
  }
  std::cerr << "zelttoken: " << error << '\n';
}

int Execute(const Invocation& invocation) {
  // A token that cannot be printed is revoked. A closed pipe must not end the process before that.
  if (invocation.command == Issue) std::signal(SIGPIPE, SIG_IGN);
  const Result result = invocation.command(invocation.arguments);
  try {
    Print(invocation, result);
  } catch (const Failure&) {
    if (invocation.command == Issue) RevokeIssued(invocation.arguments, result);
    throw;
  }
  return result.exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  ZELT::TokenManager::OpenStandardDescriptors();
  Invocation invocation;
  try {
    ReadCommandLine({argv + 1, argv + argc}, invocation);
    return invocation.command == nullptr ? 0 : Execute(invocation);
  } catch (const Failure& failure) {
    PrintError(invocation, failure.what());
    return failure.exit_code;
  } catch (const std::exception& error) {
    PrintError(invocation, error.what());
    return kRefused;
  }
}
