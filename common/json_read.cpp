#include <fcntl.h>
#include <simdjson.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "json_text.h"
#include "owned_descriptor.h"

namespace ZELT::TokenManager {
namespace {

namespace dom = simdjson::dom;

// simdjson's static objects are destroyed at exit. Creating them while this library is loaded makes
// them outlive everything that could use the library.
[[maybe_unused]] const bool kSimdjsonIsMade = simdjson::validate_utf8("", 0);

// A parser holds several times the size of the longest text that it has read. A parser that has
// grown beyond this size is not kept.
constexpr std::size_t kKeptBytes = 64U << 10;

// Creating a parser costs more than parsing, so one is kept. A plain pointer has no destructor, so
// it works in atexit handlers, in static destructors, in short-lived threads, and after fork(2).
std::atomic<dom::parser*> kept_parser{nullptr};

// The kept parser, or a new one while another thread uses it.
class BorrowedParser {
 public:
  BorrowedParser() : parser(kept_parser.exchange(nullptr)) {
    if (!parser) parser = std::make_unique<dom::parser>();
  }
  ~BorrowedParser() {
    if (parser->capacity() <= kKeptBytes) parser.reset(kept_parser.exchange(parser.release()));
  }
  BorrowedParser(const BorrowedParser&) = delete;
  BorrowedParser& operator=(const BorrowedParser&) = delete;

  dom::parser& operator*() { return *parser; }

 private:
  std::unique_ptr<dom::parser> parser;
};

template <typename Integer>
bool IsOutOfRange(std::string_view number) {
  Integer value{};
  const char* end = number.data() + number.size();
  return std::from_chars(number.data(), end, value) ==
         std::from_chars_result{end, std::errc::result_out_of_range};
}

bool IsLongInteger(std::string_view number) {
  return number.starts_with('-') ? IsOutOfRange<std::int64_t>(number)
                                 : IsOutOfRange<std::uint64_t>(number);
}

// Returns the end of the string that begins at `begin`.
std::size_t EndOfString(std::string_view text, std::size_t begin) {
  std::size_t end = text.find_first_of("\"\\", begin + 1);
  while (end != text.npos && text[end] == '\\') end = text.find_first_of("\"\\", end + 2);
  return end == text.npos ? text.size() : end + 1;
}

// simdjson rejects integers that do not fit into 64 bits, but reads them as doubles if they have a
// fraction.
std::string WithLongIntegersAsDoubles(std::string_view text) {
  std::string result;
  for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end) {
    end = text[begin] == '"' ? EndOfString(text, begin)
                             : text.find_first_not_of("-+.0123456789eE", begin);
    if (end == begin) ++end;
    const std::string_view piece = text.substr(begin, end - begin);
    result += piece;
    if (IsLongInteger(piece)) result += ".0";
    end = begin + piece.size();
  }
  return result;
}

bool Parse(dom::parser& parser, const std::string& text, dom::element& root) {
  simdjson::error_code error = parser.parse(text).get(root);
  if (error == simdjson::NUMBER_ERROR) {
    error = parser.parse(WithLongIntegersAsDoubles(text)).get(root);
  }
  if (error == simdjson::MEMALLOC) throw std::bad_alloc();
  return error == simdjson::SUCCESS;
}

// Names used in requests, answers, records and grants. jsoncpp copies all other names twice.
constexpr std::array<std::string_view, 17> kKnownNames{
    "type",   "service",   "token",      "payload", "api",      "method",
    "runner", "prefix",    "owner",      "action",  "args",     "task",
    "pid",    "requester", "created_at", "success", "permitted"};

Json::Value& Member(Json::Value& object, std::string_view name) {
  const auto known = std::find(kKnownNames.begin(), kKnownNames.end(), name);
  if (known != kKnownNames.end()) return object[Json::StaticString(known->data())];
  return *object.demand(name.data(), name.data() + name.size());
}

bool Copy(const dom::element& from, int room, Json::Value& to);

bool CopyArray(const dom::array& from, int room, Json::Value& to) {
  if (room == 0) return false;
  to = Json::Value(Json::arrayValue);
  return std::all_of(from.begin(), from.end(), [&](const dom::element& element) {
    return Copy(element, room - 1, to.append({}));
  });
}

bool CopyObject(const dom::object& from, int room, Json::Value& to) {
  if (room == 0) return false;
  to = Json::Value(Json::objectValue);
  Json::ArrayIndex count = 0;
  return std::all_of(from.begin(), from.end(), [&](const dom::key_value_pair& member) {
    Json::Value& value = Member(to, member.key);
    return to.size() == ++count && Copy(member.value, room - 1, value);
  });
}

Json::Value Scalar(const dom::element& from) {
  switch (from.type()) {
    case dom::element_type::INT64:
      return Json::Int64{from.get_int64().value_unsafe()};
    case dom::element_type::UINT64:
      return Json::UInt64{from.get_uint64().value_unsafe()};
    case dom::element_type::DOUBLE:
      return from.get_double().value_unsafe();
    case dom::element_type::BOOL:
      return from.get_bool().value_unsafe();
    case dom::element_type::STRING: {
      const std::string_view text = from.get_string().value_unsafe();
      return {text.data(), text.data() + text.size()};
    }
    default:
      return {};
  }
}

// The Copy functions copy what the parser has read. They return false for input that only the
// parser accepts: duplicate names, and nesting deeper than `room`.
bool Copy(const dom::element& from, int room, Json::Value& to) {
  switch (from.type()) {
    case dom::element_type::ARRAY:
      return CopyArray(from.get_array().value_unsafe(), room, to);
    case dom::element_type::OBJECT:
      return CopyObject(from.get_object().value_unsafe(), room, to);
    default:
      to = Scalar(from);
      return true;
  }
}

class File {
 public:
  // Without O_NONBLOCK, opening a FIFO waits for a writer (fifo(7)).
  explicit File(const std::string& path)
      : fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {}

  bool IsRegular() {
    return fd.IsOpen() && fstat(fd.Get(), &status) == 0 && S_ISREG(status.st_mode);
  }

  // The size from fstat(2) only saves a last read(2) that returns 0. The file may have changed
  // since then, and some regular files report no size (proc(5)).
  bool ReadAll(std::string& text, std::size_t max_bytes) const {
    std::array<char, 16384> chunk;  // NOLINT(*-member-init): written before it is read
    while (text.size() <= max_bytes) {
      const ssize_t count = read(fd.Get(), chunk.data(), chunk.size());
      if (count < 0 && errno != EINTR) return false;
      if (count > 0) text.append(chunk.data(), static_cast<std::size_t>(count));
      if (count == 0 || std::cmp_equal(text.size(), status.st_size))
        return text.size() <= max_bytes;
    }
    return false;
  }

 private:
  OwnedDescriptor fd;
  struct stat status {};
};

}  // namespace

bool fromString(const std::string& text, Json::Value& value) {
  BorrowedParser parser;
  dom::element root;
  Json::Value parsed;
  if (!Parse(*parser, text, root) || !Copy(root, kMaxJsonDepth, parsed)) return false;
  value = std::move(parsed);
  return true;
}

bool fromFile(const std::string& path, Json::Value& value, std::size_t max_bytes) {
  File file(path);
  std::string text;
  return file.IsRegular() && file.ReadAll(text, max_bytes) && fromString(text, value);
}

}  // namespace ZELT::TokenManager
