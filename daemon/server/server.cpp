#include "server.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <ctime>
#include <exception>
#include <list>
#include <new>
#include <string_view>
#include <utility>

#include "log.h"
#include "zelttokenmanager/utils.h"

using std::chrono::milliseconds;
using ZELT::TokenManager::GetPeerCredential;
using State = zeltdaemon::MessageReader::State;

namespace {

// How long users may wait unnoticed in a backlog behind others: with no accepted connection
// waiting, and with some. In total it is twice as long, see IsOverdue().
constexpr milliseconds kTurn{2};
constexpr milliseconds kBusyTurn{1};

// How long an ending worker waits for the rest of a request.
constexpr milliseconds kPatience{1000};

constexpr timeval kSecond{.tv_sec = 1, .tv_usec = 0};

std::chrono::nanoseconds SinceBoot() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// Returns how long this thread has waited for a processor in total, the second number in its
// schedstat file; 0 if the kernel does not report it.
std::chrono::nanoseconds TimeWithoutProcessor(int schedstat) {
  std::array<char, 64> text{};
  const ssize_t size = pread(schedstat, text.data(), text.size(), 0);
  const std::string_view numbers(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
  const std::string_view waited = numbers.substr(std::min(numbers.find(' ') + 1, numbers.size()));
  std::int64_t count = 0;
  std::from_chars(waited.data(), waited.data() + waited.size(), count);
  return std::chrono::nanoseconds(count);
}

timeval TimeLeft(Connection::Clock::duration left) {
  const auto count = std::chrono::ceil<std::chrono::microseconds>(left).count();
  return {.tv_sec = count / 1000000, .tv_usec = count % 1000000};
}

bool AllRefuseDescriptors(const std::vector<Listener>& listeners) {
  const auto count = std::count_if(listeners.begin(), listeners.end(),
                                   [](const Listener& each) { return RefuseDescriptors(each.fd); });
  return static_cast<std::size_t>(count) == listeners.size();
}

EventBase MakeBase() {
  EventBase made(event_base_new());
  if (!made) throw std::bad_alloc();
  return made;
}

}  // namespace

Server::Server(const std::vector<Listener>& listeners, const ServerLimits& server_limits,
               WorkerSlot& worker_slot)
    : limits(server_limits),
      slot(worker_slot),
      base(MakeBase()),
      descriptors_refused(limits.refuse_descriptors && AllRefuseDescriptors(listeners)),
      queues(limits),
      schedstat(open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC)),
      backlog(base, listeners) {
  const auto set = [](evutil_socket_t, short, void* flag) { *static_cast<bool*>(flag) = true; };
  tick = MakeEvent(base, -1, EV_PERSIST, set, &second_passed);
  terminate = MakeEvent(base, SIGTERM, EV_SIGNAL | EV_PERSIST, set, &ending);
}

void Server::Serve(const Handler& request_handler) {
  handler = &request_handler;
  event_add(tick.get(), &kSecond);
  event_add(terminate.get(), nullptr);
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGTERM);
  sigprocmask(SIG_UNBLOCK, &handled, nullptr);
  turn_begin = Clock::now();
  while (!ending) Step();
  Drain();
  event_del(terminate.get());
}

void Server::Step() {
  now = Clock::now();
  const bool overdue = IsOverdue();
  if (overdue || accepted >= limits.backlog) return BeginTurn(overdue);
  if (Connection* const next = queues.Next()) {
    TakeTurn(*next);
  } else if (!AcceptOne()) {
    descriptors_can_arrive = !descriptors_refused || !backlog.WasEmpty();
    Wait(EVLOOP_ONCE);
  }
}

// Time without a processor does not count: such a worker would soon empty its backlog, and what it
// accepts early is lost if it dies.
bool Server::IsOverdue() {
  const auto limit = queues.AnyReady() ? kBusyTurn : kTurn;
  if (now - turn_begin < limit) return false;
  const auto own_time = now - TimeWithoutProcessor(schedstat.Get());
  turn_begin = now;
  if (!first_overdue) first_overdue = own_time;
  return own_time - *first_overdue >= limit;
}

// After as many connections as the backlog can hold, everything that was in it at the beginning of
// the last turn has been accepted. If the turn is overdue, the whole backlog is accepted now.
void Server::BeginTurn(bool overdue) {
  Wait(EVLOOP_ONCE | EVLOOP_NONBLOCK);
  for (int i = 0; overdue && !ending && i < limits.backlog && AcceptOne(); ++i) {
  }
}

void Server::Wait(int flags) {
  descriptors.Flush();
  RunEvents(flags);
  accepted = 0;
  turn_begin = now;
  first_overdue.reset();
}

void Server::RunEvents(int flags) {
  event_base_loop(base.get(), flags);
  now = Clock::now();
  Set(slot.seen, now.time_since_epoch().count());
  if (!std::exchange(second_passed, false)) return;
  ReportLostLines();
  if (on_idle) on_idle();
}

// Returns whether there may be more to accept.
bool Server::AcceptOne() {
  const int fd = backlog.Accept();
  if (fd < 0) return false;
  const auto accepted_at = SinceBoot();
  ++accepted;
  std::list<Connection> connection;
  try {
    connection.emplace_back(fd, descriptors_can_arrive ? &descriptors : nullptr,
                            now + limits.request_deadline);
  } catch (const std::bad_alloc&) {
    close(fd);
    backlog.Pause(ENOMEM);
    return false;
  }
  try {
    connection.front().peer = {
        .credential = GetPeerCredential(fd), .accepted = accepted_at, .connection = fd};
    queues.Add(connection);
  } catch (const std::exception&) {  // the peer is unknown, or memory ran out
  }
  return true;
}

void Server::TakeTurn(Connection& connection) {
  try {
    connection.answer.empty() ? Read(connection) : Write(connection);
  } catch (const std::bad_alloc&) {
    queues.Remove(connection);
    backlog.Pause(ENOMEM);
  }
}

void Server::Read(Connection& connection) {
  bool more = false;
  switch (connection.Receive(more)) {
    case State::kFailed:
      return queues.Remove(connection);
    case State::kComplete:
      return Respond(connection);
    case State::kIncomplete:
      break;
  }
  queues.Account(connection);
  if (now >= connection.deadline) return queues.Remove(connection);
  more ? Queues::MakeReady(connection) : Await(connection, EV_READ);
}

void Server::Respond(Connection& connection) {
  const std::string request = connection.reader.Take();
  Set(slot.seen, now.time_since_epoch().count());
  connection.answer = (*handler)(connection.peer, request) + '\n';
  connection.deadline = now + limits.answer_deadline;
  Write(connection);
}

void Server::Write(Connection& connection) {
  connection.Send();
  if (connection.answer.empty() || now >= connection.deadline) return queues.Remove(connection);
  queues.Account(connection);
  Await(connection, EV_WRITE);
}

// Makes the connection ready when its socket is, and at its deadline. After a stall, libevent
// reports only the timeout, even if the request has arrived.
void Server::Await(Connection& connection, short what) {
  const auto go_on = [](evutil_socket_t, short, void* waiting) {
    Queues::MakeReady(*static_cast<Connection*>(waiting));
  };
  connection.awaited = MakeEvent(base, connection.Descriptor(), what, go_on, &connection);
  const timeval left = TimeLeft(connection.deadline - now);
  if (event_add(connection.awaited.get(), &left) != 0) queues.Remove(connection);
}

// Clients that connect as fast as they are accepted must not prolong this.
void Server::Drain() {
  backlog.BeginDraining();
  const auto end = Clock::now() + kPatience;
  while ((now < end && AcceptOne()) || !queues.Empty()) {
    now = Clock::now();
    if (Connection* const next = queues.Next()) {
      TakeTurn(*next);
      continue;
    }
    RunEvents(EVLOOP_ONCE);  // returns at the next tick
    if (now >= end) queues.RemoveIncomplete();
  }
}
