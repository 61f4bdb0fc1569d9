#include "server.h"

#include <event2/event.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <list>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "message.h"

namespace zeltdaemon {
namespace {

using Clock = std::chrono::steady_clock;

// Connections accepted before others that became ready get their turn.
constexpr int kAcceptsAtOnce = 64;

// Descriptors that waiting connections must leave to the handler's files and to the process.
constexpr rlim_t kReservedDescriptors = 24;

// How long nobody is accepted after descriptors or memory ran out: trying again at once would spin,
// and service must be back within a second.
constexpr timeval kAcceptPause{.tv_sec = 0, .tv_usec = 100000};

// At most one line about that in the log in this time: neighbours can bring it about.
constexpr std::chrono::seconds kExhaustionLogInterval{60};

// The processes of a server that was killed take a moment to close its socket.
constexpr std::chrono::milliseconds kDyingGrace{500};

// How long the close of a descriptor that a client sent along may hold up an older kernel.
constexpr timeval kLongestClose{.tv_sec = 0, .tv_usec = 20000};

// Far longer than a server needs to start.
constexpr std::chrono::milliseconds kStartLockWait{1000};

constexpr std::chrono::milliseconds kPollInterval{10};

std::runtime_error SystemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error(path + ": path too long");
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  return address;
}

int MakeSocket() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) throw SystemError("socket");
  return fd;
}

// A full backlog refuses with EAGAIN, unix(7): then somebody listens too.
bool IsServed(const std::string& path) {
  const sockaddr_un address = Address(path);
  const int fd = MakeSocket();
  const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const bool refused = result < 0 && (errno == ECONNREFUSED || errno == ENOENT);
  close(fd);
  return !refused;
}

void RemoveStaleSocket(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return;
  if (!S_ISSOCK(status.st_mode))
    throw std::runtime_error(path + " is not a socket, remove it first");
  const auto deadline = Clock::now() + kDyingGrace;
  while (IsServed(path)) {
    if (Clock::now() > deadline) throw std::runtime_error("another daemon serves " + path);
    std::this_thread::sleep_for(kPollInterval);
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) throw SystemError("cannot replace " + path);
}

// Nobody can connect before listen(2), so nobody sees the file with its first mode.
void BindAndListen(int fd, const std::string& path, int backlog) {
  const sockaddr_un address = Address(path);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      chmod(path.c_str(), 0666) != 0 || listen(fd, backlog) != 0) {
    throw SystemError("cannot listen on " + path);
  }
}

// Has the kernel refuse descriptors that a client sends along (SO_PASSRIGHTS, Linux 6.16):
// receiving them means to close them, and the last close of a TCP socket may wait as long as its
// sender has asked for (SO_LINGER, socket(7)). Accepted connections inherit it. False on older
// kernels.
bool RefuseDescriptors(int fd) {
  constexpr int kPassRights = 83;
  const int pass = 0;
  return setsockopt(fd, SOL_SOCKET, kPassRights, &pass, sizeof pass) == 0;
}

// There a signal ends the wait: the client can slow the server down, but not stop it.
void InterruptWaits() {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  sigaction(SIGALRM, &action, nullptr);
  const itimerval tick{.it_interval = kLongestClose, .it_value = kLongestClose};
  setitimer(ITIMER_REAL, &tick, nullptr);
}

// Keeps two servers that start at once from taking each other's socket for a stale one. Anybody may
// hold the lock on the folder, so it is waited for only so long: without it they are rarely at
// odds.
class StartLock {
 public:
  explicit StartLock(const std::string& path)
      : folder(open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_CLOEXEC)) {
    const auto deadline = Clock::now() + kStartLockWait;
    while (folder >= 0 && flock(folder, LOCK_EX | LOCK_NB) != 0 && Clock::now() < deadline) {
      std::this_thread::sleep_for(kPollInterval);
    }
  }
  ~StartLock() {
    if (folder >= 0) close(folder);
  }
  StartLock(const StartLock&) = delete;
  StartLock& operator=(const StartLock&) = delete;

 private:
  int folder;
};

unsigned int WaitingLimit(unsigned int wanted) {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const rlim_t spare =
      std::max(descriptors.rlim_cur, kReservedDescriptors + 1) - kReservedDescriptors;
  return static_cast<unsigned int>(std::min<rlim_t>(wanted, spare));
}

uid_t PeerUser(int fd) {
  ucred peer{};
  socklen_t length = sizeof peer;
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.uid
                                                                      : static_cast<uid_t>(-1);
}

// Sends what the client takes without waiting, and leaves the rest in `text`: nothing when the
// client is gone.
void SendSome(int fd, std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count < 0) return text.clear();
    sent += static_cast<std::size_t>(count);
  }
  text.erase(0, sent);
}

timeval TimeLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
  const auto count = std::max<std::chrono::microseconds::rep>(left.count(), 1);
  return {.tv_sec = count / 1000000, .tv_usec = count % 1000000};
}

}  // namespace

// The event loop of one process. A connection whose request is there when it is accepted is
// answered and closed without the loop ever hearing of it; every other one is kept here until its
// request is complete, then until its answer is taken.
class DomainSockServer::Loop {
 public:
  Loop(int listener_fd, const ServerLimits& server_limits, const Handler& request_handler);
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  void AddSignal(int number, std::function<void()>& action);
  void Run();
  void End(bool with_backlog);

 private:
  struct EventDeleter {
    void operator()(event* pending) const { event_free(pending); }
    void operator()(event_base* events) const { event_base_free(events); }
  };
  using Event = std::unique_ptr<event, EventDeleter>;

  struct Connection {
    Loop* loop;
    int fd;
    uid_t user;
    std::list<Connection*>::iterator place;  // in the user's list
    MessageReader reader;
    std::string answer;  // what is left of it
    Clock::time_point deadline;
    Event ready;
  };

  struct User {
    std::list<Connection*> waiting;  // the oldest first
    bool logged = false;
  };

  Event MakeEvent(evutil_socket_t fd, short what, event_callback_fn callback, void* argument);
  bool AcceptOne();
  void PauseAccepting();
  void Welcome(int fd);
  Connection& Keep(int fd);
  Connection* InTheWay(uid_t user);
  void Drop(Connection& connection);
  void Await(Connection& connection, short what);
  void Read(Connection& connection);
  void Write(Connection& connection);
  std::string Respond(int fd, const std::string& request);
  void AwaitWrite(Connection& connection, std::string answer);
  void Drain();

  int listener;
  const ServerLimits& limits;
  const Handler& handler;
  unsigned int max_waiting;
  std::unique_ptr<event_base, EventDeleter> base;
  Event acceptable;
  Event resume;
  std::vector<Event> signals;
  std::map<uid_t, User> users;  // with waiting connections
  std::map<int, Connection> connections;
  Clock::time_point next_exhaustion_log = Clock::now();
  bool ending = false;
  bool finish_backlog = false;
};

DomainSockServer::Loop::Loop(int listener_fd, const ServerLimits& server_limits,
                             const Handler& request_handler)
    : listener(listener_fd),
      limits(server_limits),
      handler(request_handler),
      max_waiting(WaitingLimit(server_limits.waiting)),
      base(event_base_new()) {
  if (!base) throw std::runtime_error("no event loop");
  const auto accept_some = [](evutil_socket_t, short, void* self) {
    for (int i = 0; i < kAcceptsAtOnce && static_cast<Loop*>(self)->AcceptOne(); ++i) {
    }
  };
  const auto go_on = [](evutil_socket_t, short, void* self) {
    event_add(static_cast<Loop*>(self)->acceptable.get(), nullptr);
  };
  acceptable = MakeEvent(listener, EV_READ | EV_PERSIST, accept_some, this);
  resume = MakeEvent(-1, 0, go_on, this);
  event_add(acceptable.get(), nullptr);
}

DomainSockServer::Loop::~Loop() {
  for (const auto& [fd, connection] : connections) close(fd);
}

DomainSockServer::Loop::Event DomainSockServer::Loop::MakeEvent(evutil_socket_t fd, short what,
                                                                event_callback_fn callback,
                                                                void* argument) {
  Event made(event_new(base.get(), fd, what, callback, argument));
  if (!made) throw std::bad_alloc();
  return made;
}

void DomainSockServer::Loop::AddSignal(int number, std::function<void()>& action) {
  const auto run = [](evutil_socket_t, short, void* act) {
    (*static_cast<std::function<void()>*>(act))();
  };
  signals.push_back(MakeEvent(number, EV_SIGNAL | EV_PERSIST, run, &action));
  event_add(signals.back().get(), nullptr);
}

void DomainSockServer::Loop::Run() {
  while (!ending) event_base_loop(base.get(), EVLOOP_ONCE);
  Drain();
}

void DomainSockServer::Loop::End(bool with_backlog) {
  ending = true;
  finish_backlog = with_backlog;
}

// Returns whether there may be more to accept.
bool DomainSockServer::Loop::AcceptOne() {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd >= 0) {
    Welcome(fd);
    return true;
  }
  switch (errno) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      PauseAccepting();
      return false;
    case EAGAIN:
      return false;
    default:  // the connection failed, accept(2)
      return true;
  }
}

void DomainSockServer::Loop::PauseAccepting() {
  const int error = errno;
  event_del(acceptable.get());
  event_add(resume.get(), &kAcceptPause);
  if (Clock::now() < next_exhaustion_log) return;
  next_exhaustion_log = Clock::now() + kExhaustionLogInterval;
  syslog(LOG_WARNING, "cannot accept connections for now: %s", std::strerror(error));
}

void DomainSockServer::Loop::Welcome(int fd) {
  MessageReader reader;
  const MessageReader::State state = reader.Read(fd);
  std::string unsent;
  if (state == MessageReader::State::kComplete) unsent = Respond(fd, reader.Take());
  const bool incomplete = state == MessageReader::State::kIncomplete && !ending;
  if (!incomplete && unsent.empty()) {
    close(fd);
    return;
  }
  Connection& connection = Keep(fd);
  if (!unsent.empty()) return AwaitWrite(connection, std::move(unsent));
  connection.reader = std::move(reader);
  connection.deadline = Clock::now() + limits.request_deadline;
  Await(connection, EV_READ);
}

// Takes over `fd`, and makes room for it.
DomainSockServer::Loop::Connection& DomainSockServer::Loop::Keep(int fd) {
  const uid_t user = PeerUser(fd);
  Connection* const oldest = InTheWay(user);
  Connection& kept = connections[fd];
  kept.loop = this;
  kept.fd = fd;
  kept.user = user;
  std::list<Connection*>& waiting = users[user].waiting;
  kept.place = waiting.insert(waiting.end(), &kept);
  // Only now, as a user without connections is forgotten, and would be logged again.
  if (oldest != nullptr) Drop(*oldest);
  return kept;
}

// Returns the connection that has to go for a further one of `user`, or null below the limits. Who
// has waited longest goes: an honest client waits for a moment only. At the limit for all it is the
// user with the most who loses a connection, and among such the one who has waited longest.
DomainSockServer::Loop::Connection* DomainSockServer::Loop::InTheWay(uid_t user) {
  auto full = users.find(user);
  if (full == users.end() || full->second.waiting.size() < limits.waiting_per_user) {
    if (connections.size() < max_waiting) return nullptr;
    full = std::max_element(users.begin(), users.end(), [](const auto& a, const auto& b) {
      const std::list<Connection*>& ours = a.second.waiting;
      const std::list<Connection*>& theirs = b.second.waiting;
      if (ours.size() != theirs.size()) return ours.size() < theirs.size();
      return ours.front()->deadline > theirs.front()->deadline;
    });
  }
  if (!std::exchange(full->second.logged, true)) {
    syslog(LOG_WARNING, "user %u has %zu of %zu waiting connections: the oldest make room",
           full->first, full->second.waiting.size(), connections.size());
  }
  return full->second.waiting.front();
}

void DomainSockServer::Loop::Drop(Connection& connection) {
  const auto user = users.find(connection.user);
  user->second.waiting.erase(connection.place);
  if (user->second.waiting.empty()) users.erase(user);
  const int fd = connection.fd;
  connections.erase(fd);
  close(fd);
}

// Goes on with `connection` when its socket is ready for `what`, and a last time at its deadline:
// after a stall the loop reports the deadline alone, though the request may have come long before.
void DomainSockServer::Loop::Await(Connection& connection, short what) {
  if (Clock::now() >= connection.deadline) return Drop(connection);
  const auto go_on = [](evutil_socket_t, short, void* waiting) {
    Connection& kept = *static_cast<Connection*>(waiting);
    kept.answer.empty() ? kept.loop->Read(kept) : kept.loop->Write(kept);
  };
  connection.ready = MakeEvent(connection.fd, what, go_on, &connection);
  const timeval left = TimeLeft(connection.deadline);
  if (event_add(connection.ready.get(), &left) != 0) Drop(connection);
}

void DomainSockServer::Loop::Read(Connection& connection) {
  switch (connection.reader.Read(connection.fd)) {
    case MessageReader::State::kIncomplete:
      return ending ? Drop(connection) : Await(connection, EV_READ);
    case MessageReader::State::kFailed:
      return Drop(connection);
    case MessageReader::State::kComplete:
      break;
  }
  std::string unsent = Respond(connection.fd, connection.reader.Take());
  unsent.empty() ? Drop(connection) : AwaitWrite(connection, std::move(unsent));
}

// Returns what of the answer the client does not take yet.
std::string DomainSockServer::Loop::Respond(int fd, const std::string& request) {
  std::string answer = handler(fd, request);
  answer += '\n';
  SendSome(fd, answer);
  return answer;
}

void DomainSockServer::Loop::AwaitWrite(Connection& connection, std::string answer) {
  connection.answer = std::move(answer);
  connection.deadline = Clock::now() + limits.answer_deadline;
  Await(connection, EV_WRITE);
}

void DomainSockServer::Loop::Write(Connection& connection) {
  SendSome(connection.fd, connection.answer);
  connection.answer.empty() ? Drop(connection) : Await(connection, EV_WRITE);
}

// Finishes what has been received.
void DomainSockServer::Loop::Drain() {
  event_del(acceptable.get());
  event_del(resume.get());
  while (finish_backlog && AcceptOne()) {
  }
  for (auto next = connections.begin(); next != connections.end();) {
    Connection& connection = (next++)->second;
    if (connection.answer.empty()) Read(connection);  // its request may have become complete
  }
  while (!connections.empty()) event_base_loop(base.get(), EVLOOP_ONCE);
}

DomainSockServer::DomainSockServer(const std::string& socket_path,
                                   const ServerLimits& server_limits)
    : path(socket_path), limits(server_limits), maker(getpid()) {
  const StartLock lock(path);
  RemoveStaleSocket(path);
  listener = MakeSocket();
  refuses_descriptors = RefuseDescriptors(listener);
  try {
    BindAndListen(listener, path, limits.backlog);
  } catch (...) {
    close(listener);
    throw;
  }
  struct stat status {};
  lstat(path.c_str(), &status);
  device = status.st_dev;
  inode = status.st_ino;
}

DomainSockServer::~DomainSockServer() {
  if (getpid() == maker) RemoveSocket();
  close(listener);
}

void DomainSockServer::OnSignal(int number, std::function<void()> action) {
  signal_actions[number] = std::move(action);
}

void DomainSockServer::Serve(const Handler& handler) {
  Loop serving(listener, limits, handler);
  sigset_t handled;
  sigemptyset(&handled);
  for (auto& [number, action] : signal_actions) {
    serving.AddSignal(number, action);
    sigaddset(&handled, number);
  }
  sigprocmask(SIG_UNBLOCK, &handled, nullptr);
  if (!refuses_descriptors) InterruptWaits();
  loop = &serving;
  serving.Run();
  loop = nullptr;
}

void DomainSockServer::Stop() { loop->End(true); }

void DomainSockServer::HandOver() { loop->End(false); }

void DomainSockServer::RemoveSocket() {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return;
  if (status.st_dev == device && status.st_ino == inode) unlink(path.c_str());
}

}  // namespace zeltdaemon
