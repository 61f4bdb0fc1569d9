// zelttoken, the command line of the token daemon.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "json_text.h"

namespace {

using Command = Result (*)(const Arguments&);

struct Invocation {
  Arguments arguments;
  Command command = nullptr;
  bool json = false;
};

constexpr const char* kOwnership =
    "Only the process that asked for a token may revoke it; --owner hands it on.\n";

// What CLI11 would take for options although it is a token: one in 64 begins with "-".
bool IsTokenWithDash(std::string_view word) {
  constexpr std::size_t kShortestToken = 32;
  const auto is_safe = [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_'; };
  return word.size() >= kShortestToken && word.starts_with('-') &&
         std::all_of(word.begin(), word.end(), is_safe);
}

// Returns what is wrong with `text`. CLI11 itself would take "010" for 8 and "0x10" for 16.
std::string CheckProcessId(const std::string& text) {
  const auto is_digit = [](unsigned char c) { return std::isdigit(c) != 0; };
  const bool is_number = !text.starts_with('0') && std::all_of(text.begin(), text.end(), is_digit);
  return is_number && !text.empty() ? "" : text + " is not a process id";
}

// Put before such a token while CLI11 has it; no word that a person types begins with it.
constexpr char kEscape = '\n';

class Parser {
 public:
  explicit Parser(Invocation& target) : invocation(target), arguments(target.arguments) {
    app.set_version_flag("--version", "zelttoken " ZELT_VERSION);
    app.add_flag("--json", invocation.json, "Print the result as one JSON object");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(
        std::string("A TOKEN or PAYLOAD is the value itself, @FILE or - (standard input).\n") +
        kOwnership + R"(Exit codes: 0, 1 refused or not permitted, 64 bad usage, 69 no daemon.
Example: zelttoken validate fastapi @token '{"api":"Demo.Item",
         "method":"get","runner":"alice"}')");
    AddIssue();
    AddValidate();
    AddRevoke();
    AddTransfer();
    AddRun();
  }

  // Throws CLI::ParseError.
  void Parse(std::vector<std::string> words) {
    TakeCommand(words);
    // CLI11 sets the flag only when nothing else is wrong.
    invocation.json = std::find(words.begin(), words.end(), "--json") != words.end();
    for (std::string& word : words) {
      if (IsTokenWithDash(word)) word.insert(0, 1, kEscape);
    }
    std::reverse(words.begin(), words.end());  // as CLI11 wants them
    app.parse(words);
    if (arguments.token.starts_with(kEscape)) arguments.token.erase(0, 1);
  }

  // Prints help or the version, when that is what stopped CLI11. Throws `Failure` otherwise.
  int Exit(const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    const auto commands = app.get_subcommands();
    if (commands.empty()) {
      throw Failure(kUsage, "name a command: issue, validate, revoke, transfer or run; see --help");
    }
    throw Failure(kUsage, std::string(error.what()) + "; see zelttoken " +
                              commands.front()->get_name() + " --help");
  }

 private:
  // CLI11 would read a word in brackets as a list, so it does not get to see the command to run.
  void TakeCommand(std::vector<std::string>& words) {
    const auto is_command = [](const std::string& word) { return !word.starts_with('-'); };
    const auto first = std::find_if(words.begin(), words.end(), is_command);
    if (first == words.end() || *first != "run") return;
    const auto mark = std::find(first, words.end(), "--");
    if (mark == words.end()) return;
    arguments.command.assign(mark + 1, words.end());
    words.erase(mark, words.end());
  }

  CLI::App* Add(const char* name, const char* description, const char* example, Command command) {
    CLI::App* added = app.add_subcommand(name, description);
    added->add_option("SERVICE", arguments.service, R"("fastapi" or "taskmanager")")->required();
    added->footer(std::string("Example: ") + example);
    added->callback([this, command] { invocation.command = command; });
    return added;
  }

  void AddToken(CLI::App* command) {
    command->add_option("TOKEN", arguments.token, "The token, @FILE or -")->required();
  }

  void AddPayload(CLI::App* command) {
    command->add_option("PAYLOAD", arguments.payload, "JSON, @FILE or -")->required();
  }

  void AddIssue() {
    CLI::App* issue = Add("issue", "Ask for a token and print it",
                          R"(zelttoken issue fastapi --owner $$
         '[{"api":"Demo.Item","method":"get"}]')",
                          Issue);
    issue->footer(kOwnership + issue->get_footer());
    AddPayload(issue);
    issue->add_option("--owner", arguments.owner, "Hand the token to this process at once")
        ->check(CheckProcessId)
        ->type_name("PID");
  }

  void AddValidate() {
    CLI::App* validate = Add("validate", "Ask whether a token permits something",
                             R"(zelttoken validate taskmanager @token
         '{"action":"read","args":{"task":"backup_1","owner":"alice"}}')",
                             Validate);
    AddToken(validate);
    AddPayload(validate);
  }

  void AddRevoke() {
    AddToken(Add("revoke", "Delete a token that this process owns",
                 "exec zelttoken revoke fastapi @token\n         (in a script that owns the token: "
                 "exec keeps its process id)",
                 Revoke));
  }

  void AddTransfer() {
    CLI::App* transfer = Add("transfer", "Hand on a token that this process owns",
                             "exec zelttoken transfer fastapi @token 4711", Transfer);
    AddToken(transfer);
    transfer->add_option("PID", arguments.pid, "The new owner")->check(CheckProcessId)->required();
  }

  void AddRun() {
    CLI::App* run = Add("run",
                        "Run a command with a token, then revoke the token:\n"
                        "zelttoken run SERVICE PAYLOAD -- COMMAND [ARG...]",
                        "zelttoken run fastapi @payload.json -- sh -c 'echo $ZELT_TOKEN'", Run);
    AddPayload(run);
    run->callback([this] {
      if (arguments.command.empty()) throw CLI::RequiredError("-- COMMAND");
      invocation.command = Run;
    });
  }

  Invocation& invocation;
  Arguments& arguments;
  CLI::App app{"Issues, validates, revokes and transfers tokens through zelttokenmgrd",
               "zelttoken"};
};

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
    value["error"] = error;
    std::cout << ZELT::TokenManager::toString(value) << '\n';
  }
  std::cerr << "zelttoken: " << error << '\n';
}

int Execute(const Invocation& invocation) {
  const Result result = invocation.command(invocation.arguments);
  try {
    Print(invocation, result);
  } catch (const Failure&) {
    if (invocation.command == Issue) TakeBackIssued(invocation.arguments, result);
    throw;
  }
  return result.exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  Invocation invocation;
  try {
    Parser parser(invocation);
    try {
      parser.Parse({argv + 1, argv + argc});
    } catch (const CLI::ParseError& error) {
      return parser.Exit(error);
    }
    return Execute(invocation);
  } catch (const Failure& failure) {
    PrintError(invocation, failure.what());
    return failure.exit_code;
  } catch (const std::exception& error) {
    PrintError(invocation, error.what());
    return kRefused;
  }
}
