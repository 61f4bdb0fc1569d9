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

void Add(Listeners& listeners, int socket, const std::string& name) {
  listeners.sockets.push_back(socket);
  listeners.names += (listeners.names.empty() ? "" : " and ") + name;
}

void AddSecond(Listeners& listeners) {
  const std::string directory = std::filesystem::path(kSecondSocketPath).parent_path();
  const mode_t mask = umask(S_IWGRP | S_IWOTH);
  mkdir(directory.c_str(), 0755);  // it may exist, or this user may not create it
  umask(mask);
  try {
    Add(listeners, ListenAt(kSecondSocketPath), kSecondSocketPath);
  } catch (const std::runtime_error& error) {
    Log(LOG_WARNING, "%s; programs with a private /tmp cannot reach the daemon", error.what());
  }
}

}  // namespace

Listeners OpenListeners() {
  Listeners listeners;
  for (const int socket : InheritedSockets()) {
    Add(listeners, socket, AddressOf(socket));
  }
  listeners.are_inherited = !listeners.sockets.empty();
  if (listeners.are_inherited) return listeners;
  Add(listeners, ListenAt(kSocketPath), kSocketPath);
  AddSecond(listeners);
  return listeners;
}

// accept(2) still returns the connections that were made before.
void StopListening(const Listeners& listeners) {
  if (listeners.are_inherited) return;
  for (const int socket : listeners.sockets) shutdown(socket, SHUT_RDWR);
}
