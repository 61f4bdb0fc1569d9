#include "commands.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>
#include <string_view>
#include <thread>

#include "daemon.h"
#include "input.h"
#include "json_member.h"
#include "report.h"
#include "run.h"
#include "zelttokenmanager/utils.h"

using namespace ZELT::TokenManager;

namespace {

// Only their texts distinguish the library's errors.
Failure FailureOf(const std::string& error) {
  const auto is = [&error](std::string_view where) { return error.starts_with(where); };
  const std::string cause = " (" + error + ")";
  if (is("utils.cpp:108") || is("utils.cpp:110")) {
    return {kRefused, "the daemon refused" + cause + kReasonInLog};
  }
  return is("utils.cpp:62") ? Unreachable(cause) : BrokenExchange(cause);
}

// Calls the library, and translates its errors.
template <typename Exchange>
auto Ask(const Exchange& exchange) {
  try {
    return exchange();
  } catch (const Failure&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw FailureOf(error.what());
  }
}

void Demand(bool done, const std::string& what) {
  if (!done) throw Failure(kRefused, "the daemon refused to " + what + " the token" + kReasonInLog);
}

// The library's request has no lifetime.
std::string SendExpiringIssue(const Arguments& arguments, const Json::Value& payload) {
  Json::Value request;
  request["type"] = "issue";
  request["service"] = arguments.service;
  request["payload"] = payload;
  request["expires_in"] = Json::UInt64{arguments.expires_in};
  const Json::Value response = SendToDaemon(request);
  const bool issued = response["success"] == true;
  if (!issued) throw IssueRefused("", arguments.service, payload);
  return response["token"].isString() ? response["token"].asString() : "";
}

std::string SendIssue(const std::string& service, const Json::Value& payload) {
  try {
    return SendIssueRequest(service, payload);
  } catch (const std::runtime_error& error) {
    const std::string text = error.what();
    if (!text.starts_with("utils.cpp:89")) throw;
    throw IssueRefused(" (" + text + ")", service, payload);
  }
}

std::string IssueToken(const Arguments& arguments) {
  const Json::Value payload = ReadPayload(arguments.payload);
  std::string token = arguments.expires_in > 0
                          ? SendExpiringIssue(arguments, payload)
                          : Ask([&] { return SendIssue(arguments.service, payload); });
  if (token.empty()) throw Failure(kUnavailable, "the daemon answered without a token");
  return token;
}

void RevokeToken(const std::string& service, const std::string& token) {
  Demand(Ask([&] { return SendRevokeRequest(service, token); }), "revoke");
}

// Waits while the daemon is unavailable, for example during a restart, because no other process can
// revoke the token later. Does not throw, because the caller has its own result to report.
void RevokePatiently(const std::string& service, const std::string& token) {
  constexpr std::chrono::seconds kPatience{10};
  constexpr std::chrono::milliseconds kPause{100};
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (;; std::this_thread::sleep_for(kPause)) {
    try {
      return RevokeToken(service, token);
    } catch (const Failure& failure) {
      const bool is_away = failure.exit_code == kUnavailable;
      if (is_away && std::chrono::steady_clock::now() < deadline) continue;
      std::cerr << "zelttoken: " << failure.what()
                << (is_away ? "; the token stays valid until root drops it (zelttoken drop)\n"
                            : "\n");
      return;
    }
  }
}

void ExpectOneStandardInput(const Arguments& arguments) {
  const auto from_input = std::count(arguments.payloads.begin(), arguments.payloads.end(), "-") +
                          (arguments.token == "-" ? 1 : 0);
  if (from_input > 1) {
    throw Failure(kUsage, "only one of TOKEN and PAYLOAD can be standard input");
  }
}

Result ValidateOne(const std::string& service, const std::string& token,
                   const Json::Value& payload) {
  const bool permitted = Ask([&] { return SendValidateRequest(service, token, payload); });
  Result result{.text = permitted ? "permitted" : "not permitted",
                .value = {},
                .exit_code = permitted ? 0 : kRefused};
  result.value["permitted"] = permitted;
  return result;
}

void Add(Verdict verdict, Result& result) {
  constexpr std::array kTexts{"not permitted", "permitted", "malformed payload"};
  result.text +=
      (result.text.empty() ? "" : "\n") + std::string(kTexts.at(static_cast<std::size_t>(verdict)));
  const bool permitted = verdict == Verdict::kPermitted;
  result.value["permitted"].append(verdict == Verdict::kMalformed ? Json::Value() : permitted);
  if (!permitted) result.exit_code = kRefused;
}

Result ValidateMany(const std::string& service, const std::string& token,
                    const std::vector<Json::Value>& payloads) {
  Result result;
  for (const Verdict verdict :
       Ask([&] { return SendValidateManyRequest(service, token, payloads); })) {
    Add(verdict, result);
  }
  return result;
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
    RevokePatiently(arguments.service, token);
    throw;
  }
  return result;
}

void RevokeIssued(const Arguments& arguments, const Result& issued) {
  if (arguments.owner == 0) RevokePatiently(arguments.service, issued.text);
}

Result Validate(const Arguments& arguments) {
  ExpectOneStandardInput(arguments);
  std::vector<Json::Value> payloads;
  for (const std::string& payload : arguments.payloads) payloads.push_back(ReadPayload(payload));
  const std::string token = ReadToken(arguments.token);
  return payloads.size() == 1 ? ValidateOne(arguments.service, token, payloads.front())
                              : ValidateMany(arguments.service, token, payloads);
}

Result Inspect(const Arguments& arguments) {
  Json::Value request;
  request["type"] = "inspect";
  request["service"] = arguments.service;
  request["token"] = ReadToken(arguments.token);
  const Json::Value response = SendToDaemon(request);
  Demand(TruthOf(MemberOrNull(response, "success")), "inspect");
  return {.text = TokenReport(response), .value = response};
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
  Runner runner;  // blocks signals first: if one ended the process, the token would remain
  const std::string token = IssueToken(arguments);
  Result result;
  try {
    result.exit_code = runner.Run(arguments.command, token);
  } catch (...) {
    RevokePatiently(arguments.service, token);
    throw;
  }
  RevokePatiently(arguments.service, token);
  result.value["exit"] = result.exit_code;
  return result;
}

Result Exec(const Arguments& arguments) {
  const std::string token = IssueToken(arguments);
  try {
    Become(arguments.command, token);
  } catch (...) {
    RevokePatiently(arguments.service, token);
    throw;
  }
}
