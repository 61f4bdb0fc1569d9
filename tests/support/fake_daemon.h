// The daemon's end of a socket, for tests of clients.
#pragma once

#include "owned_descriptor.h"
#include "support/testing.h"
#include "unix_address.h"

namespace ZELT {

using TokenManager::OwnedDescriptor;

inline OwnedDescriptor ListenAt(const std::string& path) {
  OwnedDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  fs::create_directories(fs::path(path).parent_path());
  fs::remove(path);
  Check(TokenManager::UnixAddress(path).Bind(listener.Get()), path);
  Check(listen(listener.Get(), SOMAXCONN), path);
  return listener;
}

/// Answers the next client's line, unless the answer is empty, and returns the line; what came of
/// it when the client left early.
inline std::string AnswerOne(const OwnedDescriptor& listener, const std::string& answer) {
  const OwnedDescriptor client(accept(listener.Get(), nullptr, nullptr));
  std::string request;
  for (char c = 0; read(client.Get(), &c, 1) == 1 && c != '\n';) request += c;
  if (!answer.empty()) {
    send(client.Get(), (answer + '\n').c_str(), answer.size() + 1, MSG_NOSIGNAL);
  }
  return request;
}

}  // namespace ZELT
