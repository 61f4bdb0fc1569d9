// A package that requests a token, uses it at a service, and revokes it.
// Usage: package SOCKET, where service.cpp listens on SOCKET.
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
      SendRevokeRequest("fastapi", text);
    } catch (const std::exception& error) {
      std::cerr << "cannot revoke the token: " << error.what() << '\n';
    }
  }
  Token(const Token&) = delete;
  Token& operator=(const Token&) = delete;

  const std::string text;
};

int main(int argc, char** argv) try {
  if (argc != 2) throw std::runtime_error("usage: package SOCKET");
  Json::Value wanted;
  wanted[0]["api"] = "Demo.Item";
  wanted[0]["method"] = "get";
  const Token token(wanted);

  stream_protocol::iostream service{stream_protocol::endpoint(argv[1])};
  service << token.text << std::endl;
  std::string answer;
  if (!std::getline(service, answer)) throw std::runtime_error("the service does not respond");
  std::cout << answer << '\n';
  return 0;
} catch (const std::exception& error) {
  std::cerr << "package: " << error.what() << '\n';
  return 1;
}
