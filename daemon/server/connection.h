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

// Leaves the list that it is in when it is destroyed. Entering a list takes no memory.
using Hook =
    boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

template <typename Element>
using Queue = boost::intrusive::list<Element, boost::intrusive::constant_time_size<false>>;

/// Receives a request or sends an answer, a piece at a time and without waiting. Closes its
/// descriptor.
class Connection : public Hook {
 public:
  using Clock = std::chrono::steady_clock;

  /// `passed_descriptors` is null for a connection on which the kernel lets none through.
  Connection(int connected, PassedDescriptors* passed_descriptors,
             Clock::time_point request_deadline)
      : deadline(request_deadline), fd(connected), descriptors(passed_descriptors) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Receives a piece of the request. `more` tells whether there may be another one already.
  zeltdaemon::MessageReader::State Receive(bool& more);

  /// Sends what the client takes of `answer`, and leaves the rest in it: nothing when the client is
  /// gone.
  void Send();

  /// Bytes of memory that the client makes this process hold.
  std::size_t Held() const { return reader.Held() + answer.capacity(); }

  /// Descriptor, for waiting.
  int Descriptor() const { return fd; }

  Peer peer;
  zeltdaemon::MessageReader reader;
  std::string answer;  ///< what is left of it
  Clock::time_point deadline;
  Event awaited;

  // The queues' own.
  User* user = nullptr;
  std::list<Connection>::iterator place;
  std::size_t accounted = 0;

 private:
  int fd;
  PassedDescriptors* descriptors;
};
