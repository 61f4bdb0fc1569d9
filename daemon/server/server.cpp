#include "server.h"

#include <sys/resource.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <exception>
#include <new>

#include "zelttokenmanager/utils.h"

using std::chrono::milliseconds;

namespace {

// Connections that are accepted, in some microseconds each, before requests are served; and how
// long these are served before others are looked for.
constexpr int kRound = 64;
constexpr std::chrono::microseconds kSlice{250};

// Descriptors for the store and the rest of the process.
constexpr rlim_t kReservedDescriptors = 32;

// Raises the limit on descriptors, and returns limits with no more connections than it allows.
ServerLimits Raised(ServerLimits limits) {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  setrlimit(RLIMIT_NOFILE, &descriptors);
  const auto most = std::max(descriptors.rlim_max, kReservedDescriptors + 1) - kReservedDescriptors;
  limits.worker.connections = std::min(limits.worker.connections, most);
  return limits;
}

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

Server::Server(const std::vector<int>& listeners, const ServerLimits& server_limits,
               WorkerSlot& worker_slot, LineTotal& all_lines, Handler request_handler,
               std::function<void()> periodic_work, std::function<void()> work_after_answer)
    : limits(Raised(server_limits)),
      slot(worker_slot),
      accounts(limits, all_lines),
      backlog(poll, listeners),
      signals(OpenTermination()),
      handler(std::move(request_handler)),
      every_second(std::move(periodic_work)),
      after_answer(std::move(work_after_answer)) {
  if (!poll.Control(EPOLL_CTL_ADD, signals.Get(), EPOLLIN | EPOLLET, this)) {
    throw std::system_error(errno, std::generic_category(), "signalfd");
  }
}

// What a wait that sleeps finds came alone, and is served at once. The next wait does not sleep:
// what it finds was waiting, and is accepted first. In the end, clients have a second for the rest
// of a request or to fetch an answer, which others that go on connecting must not prolong.
void Server::Serve() {
  bool busy = false;
  while (!terminating) busy = Step(!busy, busy ? kRound : 1);
  backlog.StopListening();
  backlog.SetPending(true);
  const auto end = next_second = now + std::chrono::seconds(1);
  for (busy = true; busy || (now < end && !accounts.Empty());)
    busy = Step(!busy, now < end ? kRound : 0);
  accounts.EverySecond();
}

// Accepts what is waiting, at most `round` connections, and serves some. Returns whether there were
// any.
bool Server::Step(bool sleeps, int round) {
  Wait(sleeps);
  while (round-- > 0 && accounts.MakeRoom() && AcceptOne()) {
  }
  const bool any = accounts.AnyReady();
  for (const auto end = now + kSlice; accounts.AnyReady() && now < end;) ServeNext();
  return any;
}

void Server::ServeNext() {
  Connection& connection = accounts.Next();
  Account& account = connection.account;
  try {
    connection.answer.empty() ? Read(connection) : Write(connection);
  } catch (const std::bad_alloc&) {
    Accounts::Remove(connection);
    backlog.Pause(ENOMEM);
  }
  accounts.Charge(account, Advance());
}

void Server::Wait(bool sleeps) {
  const auto wake = due.empty() ? next_second : std::min(next_second, due.front().deadline);
  const auto time = sleeps ? std::chrono::ceil<milliseconds>(wake - now) : milliseconds();
  if (!terminating) backlog.SetPending(false);
  poll.Wait(std::max(time, milliseconds()));
  Advance();
  // After a stall, the request may have arrived: it is looked for once more.
  for (; !due.empty() && due.front().deadline <= now; due.pop_front()) due.front().BecomeReady();
  if (now >= next_second) EverySecond();
}

void Server::EverySecond() {
  next_second = now + std::chrono::seconds(1);
  if (!terminating) backlog.Listen();
  slot.waiting = accounts.EverySecond();
  every_second();
  now = Clock::now();  // nobody is charged for this
}

// Returns whether there may be more to accept.
bool Server::AcceptOne() {
  ClientSocket accepted = backlog.Accept();
  if (!accepted.IsOpen()) return false;
  try {
    const Peer peer = {.credential = ZELT::TokenManager::GetPeerCredential(accepted.Get()),
                       .accepted = SinceBoot(),
                       .connection = accepted.Get()};
    Account& account = accounts.Add(std::move(accepted), peer);
    accounts.Charge(account, Advance());
  } catch (const std::bad_alloc&) {
    backlog.Pause(ENOMEM);
  } catch (const std::exception&) {  // the peer is unknown
  }
  return true;
}

void Server::Read(Connection& connection) {
  const auto state = connection.Receive();
  if (state == Connection::State::kWhole) return Respond(connection);
  if (connection.deadline == Clock::time_point()) SetDeadline(connection);
  if (state == Connection::State::kGone || now >= connection.deadline)
    return Accounts::Remove(connection);
  Await(connection);
}

void Server::Respond(Connection& connection) {
  connection.answer = handler(connection.peer, std::exchange(connection.request, {}));
  connection.answer += '\n';
  SetDeadline(connection);
  Write(connection);
  after_answer();
}

void Server::Write(Connection& connection) {
  connection.Send();
  if (connection.answer.empty() || now >= connection.deadline) return Accounts::Remove(connection);
  Await(connection);
}

void Server::SetDeadline(Connection& connection) {
  connection.deadline = Clock::now() + limits.deadline;  // the handler may have taken long
  connection.unlink();
  due.push_back(connection);
}

// A connection that cannot be waited for is served at its deadline.
void Server::Await(Connection& connection) {
  if (!connection.Await(poll)) backlog.Pause(errno);
  accounts.AwaitClient(connection);
}

// Reads the clock, which the supervisor sees too, and returns how much time has passed.
std::chrono::nanoseconds Server::Advance() {
  const auto before = std::exchange(now, Clock::now());
  slot.seen = now.time_since_epoch().count();
  return now - before;
}
