#include "server.h"

#include <sys/signalfd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <exception>
#include <new>

#include "log.h"
#include "zelttokenmanager/utils.h"

using std::chrono::milliseconds;
using ZELT::TokenManager::GetPeerCredential;
using State = Connection::State;

namespace {

// Connections that are accepted before one is served. Accepting one takes a few microseconds.
constexpr int kRound = 64;

// How long connections may wait in a backlog unnoticed.
constexpr milliseconds kLook{1};

// How long an ending worker waits for the rest of a request.
constexpr milliseconds kPatience{1000};

std::chrono::nanoseconds SinceBoot() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

int OpenTermination() {
  sigset_t awaited;
  sigemptyset(&awaited);
  sigaddset(&awaited, SIGTERM);
  return signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

Server::Server(const std::vector<Listener>& listeners, const ServerLimits& server_limits,
               WorkerSlot& worker_slot, LineTotal& all_lines)
    : limits(server_limits),
      slot(worker_slot),
      lines(all_lines),
      accounts(limits, lines),
      backlog(poll, listeners),
      signals(OpenTermination()) {
  if (!poll.Control(EPOLL_CTL_ADD, signals.Get(), EPOLLIN | EPOLLET, &termination)) {
    throw std::system_error(errno, std::generic_category(), "signalfd");
  }
}

void Server::Serve(const Handler& request_handler, const std::function<void()>& periodic_work,
                   const std::function<void()>& work_after_answer) {
  handler = &request_handler;
  every_second = &periodic_work;
  after_answer = &work_after_answer;
  now = Clock::now();
  while (!termination.requested) Step();
  Drain();
  accounts.EverySecond();
}

// A connection that comes alone is served at once. Now and then those that are waiting are accepted
// first. As long as there are more, accepting and serving take equal time.
void Server::Step() {
  const bool sleeps = !accounts.AnyReady() && !backlog.Pending();
  const bool looks = !sleeps && now >= next_look;
  if (sleeps || looks) Wait(sleeps);
  const auto begin = now;
  if (looks || !accounts.AnyReady()) AcceptRound(looks ? kRound : 1);
  if (sleeps || looks) next_look = now + (looks && backlog.Pending() ? now - begin : kLook);
  ServeNext();
}

void Server::Wait(bool sleeps) {
  descriptors.Flush();
  const auto time =
      sleeps ? std::chrono::ceil<milliseconds>(Wake() - Clock::now()) : milliseconds();
  poll.Wait(std::max(time, milliseconds()));
  now = Clock::now();
  slot.seen = now.time_since_epoch().count();
  Expire(requests_due);
  Expire(answers_due);
  backlog.Resume(now);
  if (now >= next_second) EverySecond();
}

Server::Clock::time_point Server::Wake() {
  Clock::time_point wake = std::min(next_second, backlog.Resume(now));
  for (const Due* due : {&requests_due, &answers_due}) {
    if (!due->empty()) wake = std::min(wake, due->front().deadline);
  }
  return wake;
}

// After a stall, the request may have arrived: it is looked for once more.
void Server::Expire(Due& due) {
  while (!due.empty() && due.front().deadline <= now) {
    Connection& expired = due.front();
    due.pop_front();
    expired.BecomeReady();
  }
}

void Server::EverySecond() {
  next_second = now + std::chrono::seconds(1);
  backlog.LookAgain();
  accounts.EverySecond();
  lines.lost += ReportLostLines();
  slot.waiting = accounts.Waiting();
  if (*every_second) (*every_second)();
  now = Clock::now();  // nobody is charged for this
}

void Server::AcceptRound(int most) {
  for (int i = 0; i < most && accounts.MakeRoom() && AcceptOne(); ++i) {
  }
  now = Clock::now();
}

// Returns whether there may be more to accept.
bool Server::AcceptOne() {
  ClientSocket accepted = backlog.Accept(descriptors);
  if (!accepted.IsOpen()) return false;
  try {
    const Peer peer = {.credential = GetPeerCredential(accepted.Get()),
                       .accepted = SinceBoot(),
                       .connection = accepted.Get()};
    accounts.Add(std::move(accepted), peer);
  } catch (const std::bad_alloc&) {
    backlog.Pause(ENOMEM);
  } catch (const std::exception&) {  // the peer is unknown
  }
  return true;
}

void Server::ServeNext() {
  if (!accounts.AnyReady()) return;
  TakeTurn(accounts.Next());
  const auto end = Clock::now();
  accounts.EndTurn(end - std::exchange(now, end));
}

void Server::TakeTurn(Connection& connection) {
  try {
    connection.answer.empty() ? Read(connection) : Write(connection);
  } catch (const std::bad_alloc&) {
    Accounts::Remove(connection);
    backlog.Pause(ENOMEM);
  }
}

void Server::Read(Connection& connection) {
  const State state = connection.Receive();
  if (state == State::kWhole) return Respond(connection);
  const bool is_first = connection.deadline == Clock::time_point();
  const bool is_late = !is_first && now >= connection.deadline;
  if (state == State::kGone || is_late) return Accounts::Remove(connection);
  if (is_first) SetDeadline(connection, requests_due, limits.request_deadline);
  Await(connection);
}

void Server::Respond(Connection& connection) {
  slot.seen = now.time_since_epoch().count();
  connection.answer = (*handler)(connection.peer, std::exchange(connection.request, {}));
  connection.answer += '\n';
  SetDeadline(connection, answers_due, limits.answer_deadline);
  Write(connection);
  (*after_answer)();
}

void Server::Write(Connection& connection) {
  connection.Send();
  if (connection.answer.empty() || now >= connection.deadline) return Accounts::Remove(connection);
  Await(connection);
}

void Server::SetDeadline(Connection& connection, Due& due, milliseconds time) {
  connection.deadline = now + time;
  connection.unlink();
  due.push_back(connection);
}

void Server::Await(Connection& connection) {
  if (connection.Await(poll)) return accounts.AwaitClient(connection);
  const int error = errno;
  Accounts::Remove(connection);
  backlog.Pause(error);
}

// Clients that connect as fast as they are accepted must not prolong this.
void Server::Drain() {
  backlog.BeginDraining();
  const auto end = now + kPatience;
  while ((backlog.Pending() && now < end) || !accounts.Empty()) {
    if (now < end) AcceptRound(kRound);
    ServeNext();
    if (!accounts.AnyReady() && !accounts.Empty()) Wait(true);
    if (now >= end) accounts.RemoveIncomplete();
  }
}
