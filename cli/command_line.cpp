#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <utility>

#include "failure.h"
#include "token_shape.h"

namespace {

constexpr std::uint64_t kLongestLifetime = std::uint64_t{100} * 365 * 24 * 3600;  // seconds

constexpr const char* kOwnership =
    "Only the process that owns a token may revoke it; --owner transfers it.\n";

// CLI11's own conversion reads "010" as 8.
template <typename Number>
Number ParseNumber(const std::string& name, const std::string& text) {
  Number number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  if (number > 0 && std::to_string(number) == text) return number;
  throw CLI::ValidationError(name, text + " is not a number from 1 to " +
                                       std::to_string(std::numeric_limits<Number>::max()));
}

// An empty filter would match everything.
std::string CheckFilter(const std::string& text) { return text.empty() ? "is empty" : ""; }

// Rejects an option in place of a token: "revoke fastapi --json".
std::string CheckToken(const std::string& text) {
  const bool is_option =
      text.size() > 1 && text.starts_with('-') && !ZELT::TokenManager::IsTokenShaped(text);
  return is_option ? text + " is not a token" : "";
}

class Parser {
 public:
  explicit Parser(Invocation& target) : invocation(target), arguments(target.arguments) {
    app.set_version_flag("--version", "zelttoken " ZELT_VERSION);
    AddJson(&app);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(
        std::string("A TOKEN or PAYLOAD is the value itself, @FILE or - (standard input).\n") +
        kOwnership + R"(Exit status: 1 refused or not permitted, 64 bad usage, 69 no daemon.
Example: zelttoken validate fastapi @token '{"api":"Demo.Item",
         "method":"get","runner":"alice"}')");
    AddIssue();
    AddValidate();
    AddInspect();
    AddRevoke();
    AddTransfer();
    AddCommand("run", "Run a command with a token, then revoke the token:", Run);
    AddCommand("exec", "Become a command that owns a token, as services should:", Exec);
    AddList();
    AddShow();
    AddDrop();
    AddStatus();
    app.allow_extras();  // Parse() reads them
    AddJson(&after);
  }

  // Throws CLI::ParseError.
  void Parse(std::vector<std::string> words) {
    std::reverse(words.begin(), words.end());  // CLI11 expects the last word first
    app.parse(words);
    // CLI11 leaves the words after the operands.
    if (invocation.command == Validate) TakePayloads(words);
    if (!words.empty()) after.parse(words);
  }

  // Prints help or the version if that is why parsing stopped. Otherwise throws `Failure`.
  void PrintHelpOrThrow(const CLI::ParseError& error) const {
    if (error.get_exit_code() == 0) return static_cast<void>(app.exit(error));
    const auto commands = app.get_subcommands();
    if (commands.empty()) {
      throw Failure(kUsage, "name a command; see --help");
    }
    throw Failure(kUsage, std::string(error.what()) + "; see zelttoken " +
                              commands.front()->get_name() + " --help");
  }

 private:
  // Takes effect at once, so that later errors are printed as JSON too.
  void AddJson(CLI::App* command) {
    command->add_flag("--json", invocation.json, "Print the result as one JSON object")
        ->trigger_on_parse();
  }

  CLI::App* Add(const std::string& name, const std::string& description, const std::string& example,
                Command command) {
    CLI::App* added = app.add_subcommand(name, description);
    added->footer("Example: " + example);
    added->callback([this, command] { invocation.command = command; });
    return added;
  }

  void AddService(CLI::App* command) {
    command->add_option("SERVICE", arguments.service, R"("fastapi" or "taskmanager")")->required();
  }

  // One token in 64 begins with "-", so options end at SERVICE.
  void AddToken(CLI::App* command) {
    AddService(command);
    command->add_option("TOKEN", arguments.token, "The token, @FILE or -")
        ->required()
        ->check(CheckToken);
    command->positionals_at_end();
  }

  void AddPayload(CLI::App* command) {
    command->add_option("PAYLOAD", arguments.payload, "JSON, @FILE or -")->required();
  }

  static CLI::Option* AddProcess(CLI::App* command, const std::string& name, int& pid,
                                 const char* description) {
    const auto read = [&pid, name](const std::string& text) { pid = ParseNumber<int>(name, text); };
    return command->add_option_function<std::string>(name, read, description)->type_name("PID");
  }

  void AddFilter(CLI::App* command) {
    command->add_option("--user", arguments.user, "Only tokens that this user requested")
        ->check(CheckFilter)
        ->type_name("USER");
    command->add_option("--service", arguments.service, "Only tokens for this service")
        ->check(CheckFilter)
        ->type_name("SERVICE");
    command->add_flag("--orphans", arguments.orphans, "Only tokens whose owner has ended");
  }

  void AddIssue() {
    CLI::App* issue = Add("issue", "Request a token and print it",
                          R"(zelttoken issue fastapi --owner $$
         '[{"api":"Demo.Item","method":"get"}]')",
                          Issue);
    issue->footer(kOwnership + issue->get_footer());
    AddService(issue);
    AddPayload(issue);
    AddProcess(issue, "--owner", arguments.owner, "Transfer the token to this process at once");
    AddExpiry(issue);
  }

  void AddExpiry(CLI::App* issuing) {
    const std::map<std::string, std::uint64_t> units = {
        {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 24 * 3600}};
    issuing->add_option("--expires-in", arguments.expires_in, "End the token after this time")
        ->transform(CLI::AsNumberWithUnit(units, CLI::AsNumberWithUnit::UNIT_REQUIRED))
        ->check(CLI::Range(std::uint64_t{1}, kLongestLifetime))
        ->type_name("NUMBER(s|m|h|d)");
  }

  void AddValidate() {
    CLI::App* validate = Add("validate", "Check whether a token permits operations",
                             R"(zelttoken validate taskmanager @token
         '{"action":"read","args":{"task":"backup_1","owner":"alice"}}')",
                             Validate);
    AddToken(validate);
    const auto read = [this](const std::string& word) { arguments.payloads.push_back(word); };
    validate->add_option_function<std::string>("PAYLOAD", read, "JSON, @FILE or -, up to 256 times")
        ->required();
  }

  // CLI11 would read a JSON array among several payloads as a list of them.
  void TakePayloads(std::vector<std::string>& words) {
    for (; !words.empty() && !words.back().starts_with("--"); words.pop_back()) {
      arguments.payloads.push_back(words.back());
    }
  }

  void AddInspect() {
    AddToken(
        Add("inspect", "Show what a token permits", "zelttoken inspect fastapi @token", Inspect));
  }

  void AddRevoke() {
    AddToken(Add("revoke", "Delete a token that this process owns",
                 "exec zelttoken revoke fastapi @token\n         (in a script that owns the token: "
                 "exec keeps its process id)",
                 Revoke));
  }

  void AddTransfer() {
    CLI::App* transfer = Add("transfer", "Transfer a token that this process owns",
                             "exec zelttoken transfer fastapi @token 4711", Transfer);
    AddToken(transfer);
    AddProcess(transfer, "PID", arguments.pid, "The new owner")->required();
  }

  // CLI11 must not parse the words after "--", because it would read some as lists or options.
  void AddCommand(const std::string& name, const std::string& description, Command command) {
    CLI::App* added =
        Add(name, description + "\nzelttoken " + name + " SERVICE PAYLOAD -- COMMAND [ARG...]",
            "zelttoken " + name + " fastapi @payload.json -- sh -c 'echo $ZELT_TOKEN'", command);
    added->fallthrough(false)->allow_extras();
    AddJson(added);
    AddExpiry(added);
    AddService(added);
    AddPayload(added);
    const auto read = [this](const std::string& word) { arguments.command.push_back(word); };
    added
        ->add_option_function<std::string>("COMMAND", read, "A command and its arguments, after --")
        ->required();
    added->callback([this, added, command] {
      const std::vector<std::string> rest = added->remaining();
      if (rest.empty() || rest.front() != "--") throw CLI::RequiredError("-- COMMAND");
      arguments.command.insert(arguments.command.end(), rest.begin() + 1, rest.end());
      invocation.command = command;
    });
  }

  void AddList() {
    AddFilter(Add("list", "List tokens, without their text",
                  "zelttoken list --user alice --orphans", List));
  }

  void AddShow() {
    CLI::App* show = Add("show", "Show what a token grants", "zelttoken show 4711", Show);
    const auto read = [this](const std::string& id) {
      arguments.ids.push_back(ParseNumber<std::uint64_t>("ID", id));
    };
    show->add_option_function<std::string>("ID", read, "The id that list shows")->required();
  }

  void AddDrop() {
    CLI::App* drop = Add("drop", "Drop tokens of any owner", "zelttoken drop --user alice", Drop);
    const auto read = [this](const std::vector<std::string>& ids) {
      for (const std::string& id : ids)
        arguments.ids.push_back(ParseNumber<std::uint64_t>("ID", id));
    };
    drop->add_option_function<std::vector<std::string>>("ID", read, "Only tokens with these ids");
    AddFilter(drop);
    drop->add_flag("--all", arguments.all, "All tokens of all users");
    drop->callback([this] {
      const bool is_narrowed = !arguments.ids.empty() || !arguments.user.empty() ||
                               !arguments.service.empty() || arguments.orphans;
      if (is_narrowed == arguments.all) {
        throw CLI::RequiredError(
            "Either --all or at least one of ID, --user, --service, --orphans");
      }
      invocation.command = Drop;
    });
  }

  void AddStatus() {
    CLI::App* status = Add("status", "Show the daemon's counters and store",
                           "zelttoken status --prometheus", Status);
    status->add_flag("--prometheus", arguments.prometheus, "Print metrics for Prometheus")
        ->excludes(app.get_option("--json"));
  }

  Invocation& invocation;
  Arguments& arguments;
  CLI::App app{"Issues, validates, revokes, transfers and administers tokens through zelttokenmgrd",
               "zelttoken"};
  CLI::App after;
};

}  // namespace

void ReadCommandLine(std::vector<std::string> words, Invocation& invocation) {
  Parser parser(invocation);
  try {
    parser.Parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    invocation.command = nullptr;
    parser.PrintHelpOrThrow(error);
  }
}
