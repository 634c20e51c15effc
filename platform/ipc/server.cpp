#include "platform/ipc/server.h"

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <random>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/trace.h"
#include "platform/async_service/elastic_pool.h"
#include "platform/ipc/delivery.h"
#include "platform/ipc/host_socket.h"
#include "platform/ipc/io_loop.h"
#include "platform/ipc/ipc_codes.h"
#include "platform/ipc/local_socket.h"
#include "platform/ipc/server_connection.h"
#include "platform/ipc/tls.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/server"};

// Who logs in is checked by slow hashes, so that only so many are at it at a time.
constexpr std::size_t kMaxOpenings = 32;
// Connections that haven't been welcomed: all of them, and those of one network or of one user that
// isn't admitted. They don't count among the others, whom they must not keep out.
constexpr std::size_t kMaxStrangers = 256;
constexpr std::size_t kMaxStrangersOfNetwork = 64;
// Beyond the connections that are let in, those that are still to be told that there are too many.
constexpr std::size_t kMaxSurplus = 128;
constexpr int kMaxAccepts = 32;
constexpr std::chrono::milliseconds kAcceptPause{100};
constexpr std::chrono::milliseconds kMemoryPause{10};

class ServerImpl;

// A socket that is listened on. Watch and timer are the loop's.
struct Listener {
  std::unique_ptr<LocalListener> local;
  unsigned int service_id = 0;  // local
  UniqueDescriptor host;
  std::unique_ptr<TlsContext> tls;
  std::unique_ptr<IoWatch> watch;
  std::unique_ptr<IoTimer> timer;

  int GetDescriptor() const { return local != nullptr ? local->Get() : host.Get(); }
};

class ServerImpl final : public Server, public ServerCore {
 public:
  ServerImpl(ServiceHost& host, const Limits& limits)
      : host_(host), limits_(limits), next_key_(std::random_device()()) {}
  ~ServerImpl() override { Stop(); }

  void ListenLocal(unsigned int service_id) override;
  std::uint16_t ListenTls(const std::string& address, const std::string& certificate_file,
                          const std::string& key_file) override;
  void Stop() override;

  ServiceHost& GetHost() override { return host_; }
  Delivery& GetDelivery() override { return delivery_; }
  void PostOpening(std::shared_ptr<ServerConnection> connection) override;
  void NoteWelcomed(Connection& connection) override;
  bool Enter() override;
  void Leave() override;
  std::uint32_t MakeConnectionKey() override;
  void Forget(Connection& connection) override;

 private:
  void Add(std::unique_ptr<Listener> listener);
  void RunOpenings(std::shared_ptr<ServerConnection> connection);  // on the pool
  void EndStranger(std::string& network);                          // with the lock held
  // On the loop's thread.
  void WaitAccept(Listener& listener);
  void Accept(Listener& listener);
  void Admit(Listener& listener, UniqueDescriptor socket);
  void CloseAll();

  ServiceHost& host_;
  const Limits limits_;
  ElasticPool pool_;
  Delivery delivery_{pool_};
  std::unique_ptr<IoLoop> loop_;                      // from the first Listen on
  std::vector<std::unique_ptr<Listener>> listeners_;  // those who listen and stop
  bool is_stopped_ = false;
  enum class Closing { kIsUnderWay, kHasFailed, kIsDone };
  std::atomic<Closing> closing_{};

  std::mutex mutex_;  // guards what follows
  struct Entry {
    std::shared_ptr<ServerConnection> connection;
    std::string network;  // of a stranger, else empty
  };
  std::map<Connection*, Entry> connections_;
  std::map<std::string, std::size_t> strangers_;  // by their network
  std::size_t stranger_count_ = 0;
  std::size_t entered_ = 0;
  std::size_t openings_ = 0;  // of remote connections, that run
  std::deque<std::shared_ptr<ServerConnection>> waiting_openings_;  // of connections that are open
  std::uint32_t next_key_;
};

void ServerImpl::ListenLocal(unsigned int service_id) {
  auto listener = std::make_unique<Listener>();
  listener->local = std::make_unique<LocalListener>(GetRuntimeDirectory(), service_id);
  listener->service_id = service_id;
  Add(std::move(listener));
}

std::uint16_t ServerImpl::ListenTls(const std::string& address, const std::string& certificate_file,
                                    const std::string& key_file) {
  auto listener = std::make_unique<Listener>();
  TlsSettings settings;
  settings.is_server = true;
  settings.certificate_file = certificate_file;
  settings.key_file = key_file;
  listener->tls = CreateTlsContext(settings);
  std::uint16_t port = 0;
  listener->host = ListenHost(ParseHostAddress(address), port);
  Add(std::move(listener));
  return port;
}

void ServerImpl::Add(std::unique_ptr<Listener> listener) {
  if (is_stopped_) throw MakeError(kServerStopped, kSource.At("Add", 10));
  try {
    if (loop_ == nullptr) {
      loop_ = IoLoop::Create();
      delivery_.SetLoop(*loop_);
    }
  } catch (const std::system_error& failure) {
    throw MakeReasonedError(kNoResources, failure.what(), kSource.At("Add", 20));
  }
  Listener* const borrowed = listener.get();
  listeners_.push_back(std::move(listener));
  loop_->Post([this, borrowed] {
    borrowed->watch = loop_->CreateWatch(borrowed->GetDescriptor());
    borrowed->timer = loop_->CreateTimer();
    WaitAccept(*borrowed);
  });
}

void ServerImpl::WaitAccept(Listener& listener) {
  listener.watch->WaitReadable([this, &listener] { Accept(listener); });
}

void ServerImpl::Accept(Listener& listener) {
  for (int accepted = 0; accepted < kMaxAccepts; ++accepted) {
    UniqueDescriptor socket(
        ::accept4(listener.GetDescriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (!socket && errno == EAGAIN) break;
    if (!socket) {
      // Most likely a lack of descriptors; the client waits in the queue until one is free.
      Common::Trace(Common::kTraceWarning,
                    MakeSystemError(kListenFailed, errno, kSource.At("Accept", 30)));
      listener.timer->Wait(kAcceptPause, [this, &listener] { WaitAccept(listener); });
      return;
    }
    try {
      Admit(listener, std::move(socket));
    } catch (const Common::Error& error) {
      Common::Trace(Common::kTraceWarning, error);
    } catch (const std::exception& failure) {
      Common::Trace(Common::kTraceWarning,
                    MakeReasonedError(kNoResources, failure.what(), kSource.At("Accept", 40)));
    }
  }
  WaitAccept(listener);
}

void ServerImpl::Admit(Listener& listener, UniqueDescriptor socket) {
  ServerConnection::Origin origin;
  std::unique_ptr<TlsFilter> filter;
  std::string network;
  if (listener.local != nullptr) {
    uid_t user = 0;
    origin.is_local = true;
    origin.service_id = listener.service_id;
    origin.is_admitted = IsAdmitted(socket.Get(), user);
    origin.peer.is_local = true;
    origin.peer.user = std::to_string(user);
    origin.peer.address = "local";
    if (!origin.is_admitted) network.append("user ").append(origin.peer.user);
  } else {
    network = GetPeerNetwork(socket.Get());
    SetHostOptions(socket.Get());
    origin.peer.address = GetPeerAddress(socket.Get());
  }
  std::shared_ptr<ServerConnection> connection;
  {
    const std::lock_guard lock(mutex_);
    std::size_t of_network = 0;
    if (const auto found = strangers_.find(network); found != strangers_.end()) {
      of_network = found->second;
    }
    const bool has_room =
        network.empty()
            ? connections_.size() - stranger_count_ < limits_.max_connections + kMaxSurplus
            : stranger_count_ < kMaxStrangers && of_network < kMaxStrangersOfNetwork;
    if (!has_room) {
      throw MakeError(kTooManyConnections, kSource.At("Admit", 50), origin.peer.address);
    }
    if (listener.tls != nullptr) filter = listener.tls->CreateFilter();
    connection = std::make_shared<ServerConnection>(*this, *loop_, std::move(socket),
                                                    std::move(filter), std::move(origin), limits_);
    if (!network.empty()) strangers_[network] = of_network + 1;
    if (!network.empty()) ++stranger_count_;
    try {
      connections_.emplace(connection.get(), Entry{connection, network});
    } catch (const std::bad_alloc&) {
      EndStranger(network);
      throw;
    }
  }
  connection->Open();
}

void ServerImpl::EndStranger(std::string& network) {
  if (network.empty()) return;
  const auto found = strangers_.find(network);
  if (--found->second == 0) strangers_.erase(found);
  --stranger_count_;
  network.clear();
}

void ServerImpl::NoteWelcomed(Connection& connection) {
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(&connection);
  if (found != connections_.end()) EndStranger(found->second.network);
}

void ServerImpl::PostOpening(std::shared_ptr<ServerConnection> connection) {
  if (connection->IsLocal()) {
    delivery_.Post([connection = std::move(connection)] { connection->RunOpening(); });
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    if (openings_ == kMaxOpenings) {
      waiting_openings_.push_back(std::move(connection));
      return;
    }
    ++openings_;
  }
  try {
    delivery_.Post([this, connection] { RunOpenings(connection); });
  } catch (const std::bad_alloc&) {
    const std::lock_guard lock(mutex_);
    --openings_;
    throw;
  }
}

void ServerImpl::RunOpenings(std::shared_ptr<ServerConnection> connection) {
  // Whoever waits for a thread meanwhile is not to wait for those who log in.
  pool_.NoteBlocked();
  for (;;) {
    connection->RunOpening();
    connection.reset();
    const std::lock_guard lock(mutex_);
    if (waiting_openings_.empty()) {
      --openings_;
      return;
    }
    connection = std::move(waiting_openings_.front());
    waiting_openings_.pop_front();
  }
}

bool ServerImpl::Enter() {
  const std::lock_guard lock(mutex_);
  if (entered_ >= limits_.max_connections) return false;
  ++entered_;
  return true;
}

void ServerImpl::Leave() {
  const std::lock_guard lock(mutex_);
  --entered_;
}

std::uint32_t ServerImpl::MakeConnectionKey() {
  const std::lock_guard lock(mutex_);
  if (++next_key_ == 0) ++next_key_;
  return next_key_;
}

void ServerImpl::Forget(Connection& connection) {
  std::shared_ptr<ServerConnection> last;
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(&connection);
  if (found == connections_.end()) return;
  last = std::move(found->second.connection);
  EndStranger(found->second.network);
  connections_.erase(found);
  // There is nobody to log in any more.
  std::erase(waiting_openings_, last);
}

void ServerImpl::CloseAll() {
  for (const std::unique_ptr<Listener>& listener : listeners_) {
    listener->watch.reset();
    listener->timer.reset();
  }
  // From now on none comes.
  Closing result = Closing::kIsDone;
  {
    const Common::Error reason = MakeError(kServerStopped, kSource.At("CloseAll", 60));
    const std::lock_guard lock(mutex_);
    try {
      for (const auto& [key, entry] : connections_) entry.connection->Close(reason);
    } catch (const std::bad_alloc&) {
      result = Closing::kHasFailed;
    }
  }
  closing_ = result;
  closing_.notify_all();
}

void ServerImpl::Stop() {
  if (is_stopped_) return;
  if (loop_ != nullptr) {
    // What Close posts must be in the queue before it is closed.
    for (;;) {
      closing_ = Closing::kIsUnderWay;
      loop_->PostAtLast([this] { CloseAll(); });
      closing_.wait(Closing::kIsUnderWay);
      if (closing_ == Closing::kIsDone) break;
      std::this_thread::sleep_for(kMemoryPause);
    }
    delivery_.PrepareStop();
    loop_->Stop();
  }
  listeners_.clear();
  // What has found no thread may be what others wait for.
  delivery_.Flush();
  pool_.Stop();
  is_stopped_ = true;
}

}  // namespace

std::unique_ptr<Server> Server::Create(ServiceHost& host, const Limits& limits) {
  return std::make_unique<ServerImpl>(host, limits);
}

}  // namespace Platform::Ipc
