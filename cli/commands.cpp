#include "commands.h"

#include <iostream>
#include <string_view>

#include "failure.h"
#include "input.h"
#include "run.h"
#include "zelttokenmanager/utils.h"

using namespace ZELT::TokenManager;

namespace {

constexpr const char* kReasonInLog = "; the daemon's log says why (journalctl -t zelttokenmgrd)";

Failure Explain(const std::string& error) {
  const auto is = [&error](std::string_view where) { return error.starts_with(where); };
  if (is("utils.cpp:89") || is("utils.cpp:108")) return {kRefused, error + kReasonInLog};
  if (is("utils.cpp:62")) {
    return {kUnavailable, error +
                              "; start the daemon with \"systemctl start zelttokenmgrd\" or "
                              "\"zelttokenmgrd --stderr\""};
  }
  return {kUnavailable, error};
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
  if (!done) throw Failure(kRefused, "token manager cannot " + what + " token" + kReasonInLog);
}

std::string IssueToken(const Arguments& arguments) {
  const Json::Value payload = ReadPayload(arguments.payload);
  return Ask([&] { return SendIssueRequest(arguments.service, payload); });
}

bool RevokeToken(const std::string& service, const std::string& token) {
  return Ask([&] { return SendRevokeRequest(service, token); });
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
  } catch (const Failure&) {
    RevokeToken(arguments.service, token);  // nobody else could
    throw;
  }
  return result;
}

Result Validate(const Arguments& arguments) {
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
  Demand(RevokeToken(arguments.service, ReadToken(arguments.token)), "revoke");
  return {};
}

Result Transfer(const Arguments& arguments) {
  TransferToken(arguments.service, ReadToken(arguments.token), arguments.pid);
  return {};
}

Result Run(const Arguments& arguments) {
  const std::string token = IssueToken(arguments);
  Result result;
  try {
    result.exit_code = RunWithToken(arguments.command, token);
  } catch (const Failure&) {
    RevokeToken(arguments.service, token);
    throw;
  }
  result.value["exit"] = result.exit_code;
  if (!RevokeToken(arguments.service, token)) {
    std::cerr << "zelttoken: token manager cannot revoke token" << kReasonInLog << '\n';
  }
  return result;
}
