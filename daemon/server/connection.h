// One accepted connection.
#pragma once

#include <boost/intrusive/list.hpp>
#include <chrono>
#include <list>
#include <string>

#include "events.h"
#include "message.h"
#include "passed_descriptors.h"
#include "peer.h"

struct User;

// Removes itself from its list when it is destroyed. Adding it to a list allocates no memory.
using Hook =
    boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

template <typename Element>
using Queue = boost::intrusive::list<Element, boost::intrusive::constant_time_size<false>>;

/// Receives a request or sends an answer, a piece at a time and without waiting. Closes its
/// descriptor.
class Connection : public Hook {
 public:
  using Clock = std::chrono::steady_clock;

  /// `passed_descriptors` is null if the kernel lets no descriptors through on this connection.
  Connection(int connected, PassedDescriptors* passed_descriptors,
             Clock::time_point request_deadline)
      : deadline(request_deadline), fd(connected), descriptors(passed_descriptors) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Receives a piece of the request. Sets `more` if another piece may already be there.
  zeltdaemon::MessageReader::State Receive(bool& more);

  /// Sends as much of `answer` as the client takes without waiting, and leaves the rest in it.
  /// Clears `answer` if the client is gone.
  void Send();

  /// Bytes of memory held for the client.
  std::size_t Held() const { return reader.Held() + answer.capacity(); }

  /// For polling.
  int Descriptor() const { return fd; }

  Peer peer;
  zeltdaemon::MessageReader reader;
  std::string answer;  ///< the part that is not sent yet
  Clock::time_point deadline;
  Event awaited;

  // Maintained by `Queues`.
  User* user = nullptr;
  std::list<Connection>::iterator place;
  std::size_t accounted = 0;

 private:
  int fd;
  PassedDescriptors* descriptors;
};
