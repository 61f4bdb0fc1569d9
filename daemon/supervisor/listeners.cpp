#include "listeners.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>

#include <filesystem>
#include <stdexcept>

#include "daemon_socket.h"
#include "listening_socket.h"
#include "log.h"

using ZELT::TokenManager::kSecondSocketPath;
using ZELT::TokenManager::kSocketPath;

namespace {

void Add(Listeners& listeners, const Listener& listener, const std::string& name) {
  listeners.sockets.push_back(listener);
  listeners.names += (listeners.names.empty() ? "" : " and ") + name;
}

void AddSecond(Listeners& listeners) {
  const std::string directory = std::filesystem::path(kSecondSocketPath).parent_path();
  const mode_t mask = umask(S_IWGRP | S_IWOTH);
  mkdir(directory.c_str(), 0755);  // it may exist, or this user may not create it
  umask(mask);
  try {
    Add(listeners, {.fd = ListenAt(kSecondSocketPath)}, kSecondSocketPath);
  } catch (const std::runtime_error& error) {
    Log(LOG_WARNING, "%s; programs with a private /tmp cannot reach the daemon", error.what());
  }
}

}  // namespace

Listeners OpenListeners() {
  Listeners listeners;
  for (const int socket : InheritedSockets()) {
    Add(listeners, {.fd = socket, .inherited = true}, AddressOf(socket));
  }
  if (!listeners.sockets.empty()) return listeners;
  Add(listeners, {.fd = ListenAt(kSocketPath)}, kSocketPath);
  AddSecond(listeners);
  return listeners;
}

// accept(2) still returns the connections that were made before.
void StopListening(const Listeners& listeners) {
  for (const Listener& listener : listeners.sockets) {
    if (!listener.inherited) shutdown(listener.fd, SHUT_RDWR);
  }
}
