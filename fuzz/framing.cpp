// Bytes on a socket, framed by the server's end and by the client's. The first byte of the input
// says in what pieces the rest arrives.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>

#include "message.h"
#include "support.h"
#include "zeltdaemon/domain_sock_connection.h"

namespace {

using namespace ZELT::Fuzz;
using zeltdaemon::kMaxMessageBytes;
using zeltdaemon::MessageReader;

constexpr std::size_t kSocketHolds = 64U << 10;  // what may be sent before anything is received

class Pair {
 public:
  Pair() { Expect(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "socketpair"); }
  ~Pair() {
    close(ends[0]);
    Finish();
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  int Reader() const { return ends[0]; }
  int Writer() const { return ends[1]; }

  void Write(std::string_view bytes) const {
    const ssize_t sent = send(ends[1], bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    Expect(sent == static_cast<ssize_t>(bytes.size()), "send");
  }

  void Finish() {
    if (ends[1] >= 0) close(ends[1]);
    ends[1] = -1;
  }

 private:
  std::array<int, 2> ends{};
};

class Client : public zeltdaemon::DomainSockConnection {
 public:
  explicit Client(int connected) : DomainSockConnection("") { fd = dup(connected); }
};

std::optional<std::string> ExpectedMessage(const std::string& stream) {
  std::string_view rest = stream;
  const std::string line = CutLine(rest);
  const bool ended = stream.size() > line.size();
  if (line.size() > kMaxMessageBytes || (line.empty() && !ended)) return std::nullopt;
  return line;
}

std::optional<std::string> ReadAsServer(const std::string& stream, std::size_t piece) {
  Pair pair;
  MessageReader reader;
  for (std::size_t sent = 0; sent < stream.size(); sent += piece) {
    Expect(reader.Read(pair.Reader()) == MessageReader::State::kIncomplete, "there is more");
    pair.Write(std::string_view(stream).substr(sent, piece));
    const auto state = reader.Read(pair.Reader());
    if (state == MessageReader::State::kComplete) return reader.Take();
    if (state == MessageReader::State::kFailed) return std::nullopt;
  }
  pair.Finish();
  const auto state = reader.Read(pair.Reader());
  Expect(state != MessageReader::State::kIncomplete, "the end of the stream ends the message");
  if (state == MessageReader::State::kFailed) return std::nullopt;
  return reader.Take();
}

std::optional<std::string> ReadAsClient(const std::string& stream) {
  Pair pair;
  pair.Write(stream);
  pair.Finish();
  std::string message = "untouched";
  if (Client(pair.Reader()).Recv(message)) return message;
  Expect(message == "untouched", "a failure leaves the message as it was");
  return std::nullopt;
}

void SendAsClient(const std::string& stream) {
  const Pair pair;
  Expect(Client(pair.Writer()).Send(stream), "there is room for the message");
  MessageReader reader;
  Expect(reader.Read(pair.Reader()) == MessageReader::State::kComplete, "a newline is sent");
  Expect(reader.Take() == ExpectedMessage(stream + '\n'), "the message is sent as it is");
}

}  // namespace

// Messages about as long as they may be take too long for every input, so they are tried once.
int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  for (const std::size_t length : {kMaxMessageBytes - 1, kMaxMessageBytes, kMaxMessageBytes + 1}) {
    for (const char* ending : {"", "\n", "\n\n", "x\n"}) {
      const std::string stream = std::string(length, '[') + ending;
      Expect(ReadAsServer(stream, kSocketHolds) == ExpectedMessage(stream), "the limit");
    }
  }
  return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string stream(reinterpret_cast<const char*>(data + 1), size - 1);
  // At most some 16 pieces, so that long inputs are as fast as short ones.
  const std::size_t piece = std::max(data[0] + std::size_t{1}, stream.size() / 16);
  const auto expected = ExpectedMessage(stream);
  Expect(ReadAsServer(stream, piece) == expected, "the server's end");
  if (stream.size() > kSocketHolds) return 0;
  Expect(ReadAsClient(stream) == expected, "the client's end");
  SendAsClient(stream);
  return 0;
}
