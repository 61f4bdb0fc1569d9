// A package that requests a token, uses it at a service, and revokes it.
// Usage: package SOCKET USER, where service.cpp listens on SOCKET and runs as USER.
#include <pwd.h>
#include <zelttokenmanager/utils.h>

#include <boost/asio/local/stream_protocol.hpp>
#include <exception>
#include <iostream>
#include <string>

using boost::asio::local::stream_protocol;
using namespace ZELT::TokenManager;

// A token that is revoked at the end of the scope, even after an exception.
class Token {
 public:
  explicit Token(const Json::Value& wanted) : text(SendIssueRequest("fastapi", wanted)) {}
  ~Token() {
    try {
      if (!SendRevokeRequest("fastapi", text)) std::cerr << "the daemon did not revoke the token\n";
    } catch (const std::exception& error) {
      std::cerr << "cannot revoke the token: " << error.what() << '\n';
    }
  }
  Token(const Token&) = delete;
  Token& operator=(const Token&) = delete;

  const std::string text;
};

// Whoever gets a token can use it. Another user may have created the socket and be listening. Of a
// socket that systemd has created, the kernel says that root is listening.
void ExpectListener(int connection, const std::string& user) {
  const passwd* expected = getpwnam(user.c_str());
  if (expected == nullptr) throw std::runtime_error("there is no user " + user);
  const uid_t listener = GetPeerCredential(connection).uid;
  if (listener != expected->pw_uid && listener != 0) {
    throw std::runtime_error("it is not " + user + " who is listening");
  }
}

int main(int argc, char** argv) try {
  if (argc != 3) throw std::runtime_error("usage: package SOCKET USER");
  stream_protocol::iostream service{stream_protocol::endpoint(argv[1])};
  if (!service) throw std::runtime_error("cannot connect to the service");
  ExpectListener(service.socket().native_handle(), argv[2]);

  Json::Value wanted;
  wanted[0]["api"] = "Demo.Item";
  wanted[0]["method"] = "get";
  const Token token(wanted);

  service << token.text << std::endl;
  std::string answer;
  if (!std::getline(service, answer)) throw std::runtime_error("the service does not respond");
  std::cout << answer << '\n';
  return 0;
} catch (const std::exception& error) {
  std::cerr << "package: " << error.what() << '\n';
  return 1;
}
