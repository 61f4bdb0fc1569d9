#include "report.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "json_member.h"
#include "json_text.h"

using namespace ZELT::TokenManager;

namespace {

using Line = std::vector<std::string>;

std::string Cell(const Json::Value& row, const char* name) {
  return Printable(TextOf(MemberOrNull(row, name)));
}

std::string State(const Json::Value& token) {
  return TruthOf(MemberOrNull(token, "alive")) ? "alive" : "orphan";
}

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

// Returns lines whose columns are as wide as their widest cell, without a newline at the end.
std::string Table(const std::vector<Line>& lines) {
  std::vector<std::size_t> widths(lines.front().size());
  for (const Line& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  std::string text;
  for (const Line& line : lines) {
    for (std::size_t i = 0; i + 1 < line.size(); ++i) text += Padded(line[i], widths[i] + 2);
    text += line.back() + '\n';
  }
  text.pop_back();
  return text;
}

std::uint64_t Number(const Json::Value& value) { return value.isUInt64() ? value.asUInt64() : 0; }

// Returns a duration in its largest unit: "3d".
std::string Duration(const Json::Value& seconds) {
  constexpr std::array<std::pair<std::uint64_t, char>, 3> kUnits{
      {{86400, 'd'}, {3600, 'h'}, {60, 'm'}}};
  const auto count = static_cast<std::uint64_t>(std::max(0.0, seconds.asDouble()));
  for (const auto& [size, unit] : kUnits) {
    if (count >= size) return std::to_string(count / size) + unit;
  }
  return std::to_string(count) + 's';
}

std::string KiB(const Json::Value& bytes) { return std::to_string(Number(bytes) / 1024) + " KiB"; }

// Returns an upper bound of the time that `percent` of the requests took.
std::string ServiceTime(const Json::Value& times, std::uint64_t percent) {
  const Json::Value& bounds = times["bounds_us"];
  std::uint64_t total = 0;
  for (const Json::Value& count : times["counts"]) total += Number(count);
  if (total == 0) return "unknown";
  std::uint64_t seen = 0;
  for (Json::ArrayIndex i = 0; i < bounds.size(); ++i) {
    seen += Number(times["counts"][i]);
    if (seen * 100 >= total * percent) return "at most " + TextOf(bounds[i]) + " us";
  }
  return "longer";
}

std::string Escaped(const std::string& value) {
  std::string text;
  for (const char c : value) {
    if (c == '"' || c == '\\') text += '\\';
    text += c == '\n' ? "\\n" : std::string{c};
  }
  return text;
}

std::string Labels(const std::vector<std::pair<const char*, std::string>>& labels) {
  std::string text;
  for (const auto& [name, value] : labels) {
    text += std::string(text.empty() ? "{" : ",") + name + "=\"" + Escaped(value) + '"';
  }
  return text + "}";
}

// Builds text in the Prometheus exposition format 0.0.4, in which a metric's lines must be
// consecutive.
class Metrics {
 public:
  void Begin(const std::string& metric, const std::string& type, const std::string& help) {
    name = "zelttokenmgrd_" + metric;
    text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }

  void Add(const std::string& labels, const std::string& value, const char* suffix = "") {
    text += name + suffix + labels + " " + value + "\n";
  }

  std::string Take() {
    text.pop_back();
    return std::move(text);
  }

 private:
  std::string name;
  std::string text;
};

struct SingleNumber {
  const char* path;
  const char* name;
  const char* type;
  const char* help;
};
constexpr std::array kSingleNumbers{
    SingleNumber{".uptime", "uptime_seconds", "gauge", "Time since the daemon started."},
    SingleNumber{".workers.running", "workers", "gauge", "Worker processes."},
    SingleNumber{".workers.deaths", "worker_deaths_total", "counter", "Workers that died."},
    SingleNumber{".waiting", "waiting_connections", "gauge", "Connections that wait for clients."},
    SingleNumber{".lines.lost", "log_lines_lost_total", "counter",
                 "Log lines that could not be written."},
    SingleNumber{".lines.held_back", "log_lines_held_back_total", "counter",
                 "Refusals beyond what is logged in a second."},
    SingleNumber{".store.tokens", "tokens", "gauge", "Tokens in the store."},
    SingleNumber{".store.orphans", "orphans", "gauge", "Tokens whose owner had ended."},
    SingleNumber{".store.used", "store_used_bytes", "gauge", "Bytes in use in the store."},
    SingleNumber{".store.size", "store_size_bytes", "gauge", "Bytes that the store may use."},
    SingleNumber{".store.tokens_per_user", "user_tokens_limit", "gauge",
                 "Tokens that a user may hold."},
    SingleNumber{".store.bytes_per_user", "user_bytes_limit", "gauge",
                 "Bytes that a user's tokens may use."},
};

void AddRequests(Metrics& metrics, const Json::Value& requests) {
  metrics.Begin("requests_total", "counter", "Requests by type and outcome.");
  for (const std::string& type : requests.getMemberNames()) {
    for (const char* outcome : {"done", "refused"}) {
      metrics.Add(Labels({{"type", type}, {"outcome", outcome}}), TextOf(requests[type][outcome]));
    }
  }
}

void AddRefusals(Metrics& metrics, const Json::Value& refusals) {
  metrics.Begin("refusals_total", "counter", "Refused requests by kind of reason.");
  for (const std::string& kind : refusals.getMemberNames()) {
    metrics.Add(Labels({{"kind", kind}}), TextOf(refusals[kind]));
  }
}

std::string Seconds(std::uint64_t microseconds) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.begin(), text.end(), static_cast<double>(microseconds) / 1e6);
  return {text.data(), end.ptr};
}

void AddServiceTimes(Metrics& metrics, const Json::Value& times) {
  metrics.Begin("request_duration_seconds", "histogram", "Time to serve a request.");
  std::uint64_t total = 0;
  for (Json::ArrayIndex i = 0; i < times["counts"].size(); ++i) {
    total += Number(times["counts"][i]);
    if (i >= times["bounds_us"].size()) continue;  // the bucket without a bound
    const std::string bound = Seconds(Number(times["bounds_us"][i]));
    metrics.Add(Labels({{"le", bound}}), std::to_string(total), "_bucket");
  }
  metrics.Add(Labels({{"le", "+Inf"}}), std::to_string(total), "_bucket");
  metrics.Add("", Seconds(Number(times["sum_us"])), "_sum");
  metrics.Add("", std::to_string(total), "_count");
}

// What the user has who holds the most of it: at a limit, others have room.
void AddFullest(Metrics& metrics, const Json::Value& usage, const char* member, const char* name,
                const char* help) {
  std::map<std::string, std::uint64_t> users;
  std::uint64_t most = 0;
  for (const Json::Value& row : usage) {
    most = std::max(most, users[TextOf(row["uid"])] += Number(row[member]));
  }
  metrics.Begin(name, "gauge", help);
  metrics.Add("", std::to_string(most));
}

void AddUsage(Metrics& metrics, const Json::Value& usage, const char* member, const char* name,
              const char* help) {
  metrics.Begin(name, "gauge", help);
  for (const Json::Value& row : usage) {
    metrics.Add(Labels({{"user", TextOf(row["user"])},
                        {"uid", TextOf(row["uid"])},
                        {"service", TextOf(row["service"])}}),
                TextOf(row[member]));
  }
}

}  // namespace

std::string Printable(std::string text) {
  const auto is_control = [](unsigned char c) { return c < ' ' || c > '~'; };
  std::replace_if(text.begin(), text.end(), is_control, '?');
  return text;
}

std::string TokenTable(const Json::Value& tokens) {
  std::vector<Line> lines{
      {"ID", "SERVICE", "USER", "UID", "PID", "OWNER", "STATE", "AGE", "GRANTS"}};
  for (const Json::Value& token : tokens) {
    lines.push_back({Cell(token, "id"), Cell(token, "service"), Cell(token, "requester"),
                     Cell(token, "uid"), Cell(token, "pid"), Cell(token, "owner"), State(token),
                     Duration(MemberOrNull(token, "age")), Cell(token, "grants")});
  }
  return Table(lines);
}

std::string TokenReport(const Json::Value& token) {
  const Json::Value& expires_in = MemberOrNull(token, "expires_in");
  std::vector<Line> lines;
  for (const char* name : {"id", "service", "requester", "uid", "pid"}) {
    if (token.isMember(name)) lines.push_back({name, Cell(token, name)});
  }
  lines.insert(lines.end(),
               {
                   {"owner", TruthOf(MemberOrNull(token, "alive")) ? "alive" : "ended"},
                   {"age", Duration(MemberOrNull(token, "age"))},
                   {"expires", expires_in.isNull() ? "never" : "in " + Duration(expires_in)},
               });
  const auto add = [&lines](const Json::Value& grant) {
    lines.push_back({"grant", Printable(toString(grant))});
  };
  const Json::Value& payload = MemberOrNull(token, "payload");
  if (!payload.isArray()) add(payload);
  if (payload.isArray()) std::for_each(payload.begin(), payload.end(), add);
  return Table(lines);
}

std::string StatusReport(const Json::Value& status) {
  const Json::Value& store = status["store"];
  const Json::Value& times = status["service_times"];
  const std::vector<Line> overview{
      {"version", Cell(status, "version")},
      {"uptime", Duration(status["uptime"])},
      {"workers", Cell(status["workers"], "running")},
      {"deaths", Cell(status["workers"], "deaths")},
      {"tokens", Cell(store, "tokens")},
      {"orphans", Cell(store, "orphans")},
      {"store", KiB(store["used"]) + " of " + KiB(store["size"])},
      {"service time", "half " + ServiceTime(times, 50) + ", 99 % " + ServiceTime(times, 99)}};
  std::vector<Line> requests{{"REQUEST", "DONE", "REFUSED"}};
  for (const std::string& type : status["requests"].getMemberNames()) {
    const Json::Value& counts = status["requests"][type];
    requests.push_back({Printable(type), Cell(counts, "done"), Cell(counts, "refused")});
  }
  std::vector<Line> usage{{"USER", "UID", "SERVICE", "TOKENS", "BYTES"}};
  for (const Json::Value& row : status["usage"]) {
    usage.push_back({Cell(row, "user"), Cell(row, "uid"), Cell(row, "service"), Cell(row, "tokens"),
                     Cell(row, "bytes")});
  }
  return Table(overview) + "\n\n" + Table(requests) + "\n\n" + Table(usage);
}

std::string PrometheusMetrics(const Json::Value& status) {
  Metrics metrics;
  metrics.Begin("info", "gauge", "The daemon's version.");
  metrics.Add(Labels({{"version", TextOf(status["version"])}}), "1");
  for (const SingleNumber& number : kSingleNumbers) {
    metrics.Begin(number.name, number.type, number.help);
    metrics.Add("", std::to_string(Number(Json::Path(number.path).resolve(status))));
  }
  AddRequests(metrics, status["requests"]);
  AddRefusals(metrics, status["refusals"]);
  AddServiceTimes(metrics, status["service_times"]);
  AddFullest(metrics, status["usage"], "tokens", "fullest_user_tokens",
             "Tokens of the user who holds the most.");
  AddFullest(metrics, status["usage"], "bytes", "fullest_user_bytes",
             "Bytes of the user whose tokens use the most.");
  AddUsage(metrics, status["usage"], "tokens", "user_tokens", "Tokens by user and service.");
  AddUsage(metrics, status["usage"], "bytes", "user_bytes", "Bytes of tokens by user and service.");
  return metrics.Take();
}
