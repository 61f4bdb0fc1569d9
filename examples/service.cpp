// A service that returns an item to clients whose token permits it.
// Usage: service SOCKET. A client sends the token as one line, and receives one line.
#include <pwd.h>
#include <unistd.h>
#include <zelttokenmanager/utils.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <exception>
#include <iostream>
#include <string>

using boost::asio::local::stream_protocol;
using namespace ZELT::TokenManager;

// Asks the kernel, because a client could lie about its user.
std::string UserOf(int connection) {
  const passwd* user = getpwuid(GetPeerCredential(connection).uid);
  if (user == nullptr) throw std::runtime_error("unknown user");
  return user->pw_name;
}

void Serve(stream_protocol::iostream& client) try {
  std::string token;
  std::getline(client, token);
  Json::Value use;
  use["api"] = "Demo.Item";
  use["method"] = "get";
  use["runner"] = UserOf(client.socket().native_handle());
  const bool permitted = SendValidateRequest("fastapi", token, use);
  client << (permitted ? "the item" : "not permitted") << std::endl;
} catch (const std::exception& error) {  // an invalid token permits nothing
  std::cerr << "service: " << error.what() << '\n';
  client << "not permitted" << std::endl;
}

int main(int argc, char** argv) try {
  if (argc != 2) throw std::runtime_error("usage: service SOCKET");
  boost::asio::io_context context;
  unlink(argv[1]);
  stream_protocol::acceptor acceptor(context, stream_protocol::endpoint(argv[1]));
  for (;;) {
    stream_protocol::iostream client;
    acceptor.accept(client.socket());
    client.expires_after(std::chrono::seconds(5));  // for a client that sends nothing
    Serve(client);
  }
} catch (const std::exception& error) {
  std::cerr << "service: " << error.what() << '\n';
  return 1;
}
