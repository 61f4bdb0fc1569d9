#include "check.h"

#include <pwd.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>

#include "check_grant.h"
#include "configuration.h"
#include "escaped_text.h"
#include "json_text.h"
#include "packages.h"
#include "request_log.h"
#include "services.h"
#include "strict_json.h"
#include "token_store.h"
#include "users.h"
#include "writers.h"
#include "zelttokenmanager/utils.h"

using namespace ZELT::TokenManager;

namespace {

class Findings {
 public:
  explicit Findings(std::ostream& findings_output) : output(findings_output) {}

  void Add(const std::string& finding) {
    output << Escaped(finding) << '\n';
    found = true;
  }
  void Add(const std::string& file, const std::string& what) {
    if (!what.empty()) Add(file + ": " + what);
  }
  int ExitCode() const { return found ? EXIT_FAILURE : EXIT_SUCCESS; }

 private:
  std::ostream& output;
  bool found = false;
};

// Which directory was the first to claim a name.
class Claims {
 public:
  explicit Claims(const char* claimed_kind) : kind(claimed_kind) {}

  std::string Claim(const std::string& name, const std::string& directory) {
    const auto [claim, is_first] = first.try_emplace(name, directory);
    return is_first ? ""
                    : std::string(kind) + " \"" + name + "\" is also claimed by " + claim->second;
  }

 private:
  const char* kind;
  std::map<std::string, std::string> first;
};

void CheckPackages(Findings& findings) {
  std::vector<Package> packages = ReadPackages();
  std::sort(packages.begin(), packages.end(),
            [](const Package& a, const Package& b) { return a.directory < b.directory; });
  Claims names("package");
  Claims users("user");
  for (const Package& package : packages) {
    findings.Add(package.privilege, package.problem);
    if (getpwnam(package.user.c_str()) == nullptr) {
      findings.Add(package.directory, "its user \"" + package.user + "\" does not exist");
    }
    findings.Add(package.directory, names.Claim(package.name, package.directory));
    findings.Add(package.directory, users.Claim(package.user, package.directory));
  }
}

// Returns the error of `service` for a request that no grant in `privilege` satisfies.
std::string Verdict(TokenService& service, const Json::Value& request,
                    const Json::Value& privilege) {
  try {
    service.Issue(request, privilege);
    return "";
  } catch (const std::exception& refusal) {
    return refusal.what();
  }
}

// No list admits this identity, so that the whole list is checked.
std::string ListProblem(const Json::Value& grant, const char* list_name) {
  if (!grant.isObject() || !grant.isMember(list_name)) return "";
  try {
    IsIdentityInPermittedList(std::string("@\0", 2), grant[list_name], "");
    return "";
  } catch (const std::exception& problem) {
    return std::string("\"") + list_name + "\": " + problem.what();
  }
}

class ServiceCheck {
 public:
  explicit ServiceCheck(const Service& checked)
      : service(checked.make()), keys(checked.keys), permitted_list(checked.permitted_list) {
    fromString(checked.probe, probe["payload"]);
    well_formed = Verdict(*service, probe, Json::Value(Json::arrayValue));
  }

  std::string Name() const { return service->GetName(); }

  void Check(const std::string& file, const Json::Value& privilege, Findings& findings) const {
    const std::string problem = privilege.isArray() ? "" : Verdict(*service, probe, privilege);
    findings.Add(file, problem.empty() ? "" : Name() + ": " + problem);
    for (Json::ArrayIndex i = 0; privilege.isArray() && i < privilege.size(); ++i) {
      const std::string what = GrantProblem(privilege[i]);
      findings.Add(file, what.empty() ? "" : At(i) + what);
      if (what.empty() && IsRepeated(privilege, i))
        findings.Add(file, At(i) + "an earlier grant always applies");
    }
  }

 private:
  std::string At(Json::ArrayIndex i) const { return Name() + "[" + std::to_string(i) + "]: "; }

  bool Agree(const Json::Value& a, const Json::Value& b) const {
    return a.isObject() && b.isObject() &&
           std::all_of(keys.begin(), keys.end(), [&](const char* key) { return a[key] == b[key]; });
  }

  bool IsRepeated(const Json::Value& privilege, Json::ArrayIndex last) const {
    for (Json::ArrayIndex i = 0; i < last; ++i) {
      if (Agree(privilege[i], privilege[last])) return true;
    }
    return false;
  }

  // Checks one grant, so that the finding can name it.
  std::string GrantProblem(const Json::Value& grant) const {
    Json::Value privilege(Json::arrayValue);
    privilege.append(grant);
    std::string verdict = Verdict(*service, probe, privilege);
    if (verdict != well_formed) return verdict;
    const std::string problem = ListProblem(grant, permitted_list);
    return problem.empty() ? OddList(grant, permitted_list) : problem;
  }

  std::shared_ptr<TokenService> service;
  std::array<const char*, 2> keys;
  const char* permitted_list;
  Json::Value probe;
  std::string well_formed;  // the verdict on well-formed grants
};

// Returns none if they cannot be listed, which CheckPackages reports.
std::optional<std::set<std::string>> PackageNames() try {
  std::set<std::string> names;
  for (const Package& package : ReadPackages()) names.insert(package.name);
  return names;
} catch (const std::runtime_error&) {
  return std::nullopt;
}

void CheckConfigurations(const std::string& directory, Findings& findings) {
  const std::optional<std::set<std::string>> packages = PackageNames();
  std::map<std::string, ServiceCheck> checks;
  for (const Service& service : Services()) {
    const ServiceCheck check(service);
    checks.emplace(check.Name(), check);
  }
  for (const std::string& file : ListFiles(directory)) {
    Json::Value configuration;
    findings.Add(file, ReadConfiguration(file, configuration));
    const std::string package = file.substr(file.rfind('/') + 1);
    if (packages && !packages->contains(package))
      findings.Add(file, "there is no package \"" + package + "\"");
    if (!configuration.isObject()) continue;
    for (const std::string& service : configuration.getMemberNames()) {
      const auto found = checks.find(service);
      if (found == checks.end()) {
        findings.Add(file, "there is no service \"" + service + "\"");
      } else {
        found->second.Check(file, configuration[service], findings);
      }
    }
  }
}

// Stores only the grants of the last token.
class NoStorage : public TokenStorage {
 public:
  void Insert(const std::string& /*token*/, const Json::Value& data) override {
    ExpectSmallToken(data, toString(data));
    granted = data["payload"];
  }
  void Remove(const std::string& /*token*/) override {}
  Json::Value GetAssociatedData(const std::string& /*token*/) override { return {}; }

  Json::Value granted;
};

Json::Value WouldGrant(const std::string& installed_config, uid_t uid, const Json::Value& request) {
  const auto storage = std::make_shared<NoStorage>();
  ZELT::TokenManager::TokenManager manager(installed_config, storage, nullptr);
  AddServices(manager);
  Json::Value response;
  manager.IssueToken({.pid = getpid(), .uid = uid, .gid = 0}, request, response);
  return storage->granted;
}

}  // namespace

int CheckFiles(const std::string& installed_config, std::ostream& output) {
  Findings findings(output);
  for (const std::string& line : ForeignWriters(installed_config)) findings.Add(line);
  try {
    CheckPackages(findings);
  } catch (const std::runtime_error& unreadable) {
    findings.Add(unreadable.what());
  }
  try {
    CheckConfigurations(installed_config, findings);
  } catch (const std::runtime_error& unreadable) {
    findings.Add(unreadable.what());
  }
  return findings.ExitCode();
}

int CheckIssue(const std::string& installed_config, const std::string& user,
               const std::string& service, const std::string& payload, std::ostream& output) {
  Json::Value request;
  request["service"] = service;
  if (!ReadStrictJson(payload, request["payload"])) {
    output << "the payload is not JSON\n";
    return EX_USAGE;
  }
  try {
    output << toString(WouldGrant(installed_config, UserId(user), request)) << '\n';
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    const std::string cause = CauseOf(error);
    output << Escaped(error.what() + (cause.empty() ? "" : " (" + cause + ")")) << '\n';
    return EXIT_FAILURE;
  }
}
