#include "commands.h"

#include <iostream>
#include <string_view>

#include "failure.h"
#include "input.h"
#include "run.h"
#include "zelttokenmanager/utils.h"

using namespace ZELT::TokenManager;

namespace {

constexpr const char* kReasonInLog = "; its log says why (journalctl -t zelttokenmgrd)";

// The library tells its failures apart by their texts only.
Failure Explain(const std::string& error) {
  const auto is = [&error](std::string_view where) { return error.starts_with(where); };
  const std::string cause = " (" + error + ")";
  if (is("utils.cpp:89") || is("utils.cpp:108")) {
    return {kRefused, "the daemon refused" + cause + kReasonInLog};
  }
  if (is("utils.cpp:62")) {
    return {kUnavailable, "the daemon cannot be reached" + cause +
                              "; start it with \"systemctl start zelttokenmgrd\" or "
                              "\"zelttokenmgrd --stderr\""};
  }
  return {kUnavailable, "the exchange with the daemon broke off" + cause + kReasonInLog};
}

// Makes one exchange with the daemon.
template <typename Exchange>
auto Ask(const Exchange& exchange) {
  try {
    return exchange();
  } catch (const std::runtime_error& error) {
    throw Explain(error.what());
  }
}

void Demand(bool done, const std::string& what) {
  if (!done) throw Failure(kRefused, "the daemon refused to " + what + " the token" + kReasonInLog);
}

std::string IssueToken(const Arguments& arguments) {
  const Json::Value payload = ReadPayload(arguments.payload);
  std::string token = Ask([&] { return SendIssueRequest(arguments.service, payload); });
  if (token.empty()) throw Failure(kUnavailable, "the daemon answered without a token");
  return token;
}

void RevokeToken(const std::string& service, const std::string& token) {
  Demand(Ask([&] { return SendRevokeRequest(service, token); }), "revoke");
}

// Nobody else could revoke the token. How the command ended counts more than whether this works.
void TakeBack(const std::string& service, const std::string& token) {
  try {
    RevokeToken(service, token);
  } catch (const Failure& failure) {
    std::cerr << "zelttoken: " << failure.what() << '\n';
  }
}

void TransferToken(const std::string& service, const std::string& token, int pid) {
  Demand(Ask([&] { return SendTransferRequest(service, token, pid); }), "transfer");
}

}  // namespace

Result Issue(const Arguments& arguments) {
  const std::string token = IssueToken(arguments);
  Result result{.text = token, .value = {}};
  result.value["token"] = token;
  if (arguments.owner == 0) return result;
  try {
    TransferToken(arguments.service, token, arguments.owner);
  } catch (...) {
    TakeBack(arguments.service, token);
    throw;
  }
  return result;
}

void TakeBackIssued(const Arguments& arguments, const Result& issued) {
  if (arguments.owner == 0) TakeBack(arguments.service, issued.text);
}

Result Validate(const Arguments& arguments) {
  if (arguments.token == "-" && arguments.payload == "-") {
    throw Failure(kUsage, "only one of TOKEN and PAYLOAD can be standard input");
  }
  const Json::Value payload = ReadPayload(arguments.payload);
  const std::string token = ReadToken(arguments.token);
  const bool permitted =
      Ask([&] { return SendValidateRequest(arguments.service, token, payload); });
  Result result{.text = permitted ? "permitted" : "not permitted",
                .value = {},
                .exit_code = permitted ? 0 : kRefused};
  result.value["permitted"] = permitted;
  return result;
}

Result Revoke(const Arguments& arguments) {
  RevokeToken(arguments.service, ReadToken(arguments.token));
  return {};
}

Result Transfer(const Arguments& arguments) {
  TransferToken(arguments.service, ReadToken(arguments.token), arguments.pid);
  return {};
}

Result Run(const Arguments& arguments) {
  Runner runner;  // holds signals back before there is a token that one could leave behind
  const std::string token = IssueToken(arguments);
  Result result;
  try {
    result.exit_code = runner.Run(arguments.command, token);
  } catch (...) {
    TakeBack(arguments.service, token);
    throw;
  }
  TakeBack(arguments.service, token);
  result.value["exit"] = result.exit_code;
  return result;
}
