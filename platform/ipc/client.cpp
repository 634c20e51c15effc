#include "platform/ipc/client.h"

#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "core/common/text.h"
#include "platform/async_service/elastic_pool.h"
#include "platform/ipc/client_connection.h"
#include "platform/ipc/delivery.h"
#include "platform/ipc/host_socket.h"
#include "platform/ipc/io_loop.h"
#include "platform/ipc/ipc_codes.h"
#include "platform/ipc/local_socket.h"
#include "platform/ipc/tls.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/client"};

constexpr std::chrono::milliseconds kRetryTime{100};

class ClientImpl final : public Client,
                         public ClientCore,
                         public std::enable_shared_from_this<ClientImpl> {
 public:
  explicit ClientImpl(const ClientOptions& options) : options_(options) {}

  std::unique_ptr<Binding::Binder> CreateBinder() override;
  std::unique_ptr<Binding::Browser> GetLocalBrowser(Common::Error& error) override;
  Common::Error Stop() override;

  bool BeginCall() override;
  void EndCall() override;
  void Deliver(std::shared_ptr<ClientCall> call) override { delivery_.Post(std::move(call)); }
  void EnsureDelivery() noexcept override { delivery_.EnsureRetry(); }
  void NoteBlocked() override { pool_.NoteBlocked(); }
  void Forget(Connection& connection) override;

  // Makes a connection of the socket and waits until it is welcome. Throws Common::Error.
  std::shared_ptr<ClientConnection> Connect(UniqueDescriptor socket,
                                            std::unique_ptr<TlsFilter> filter, const Hello& hello,
                                            Clock::time_point deadline);

  const ClientOptions& GetOptions() const { return options_; }
  std::string GetDirectory() const {
    return options_.runtime_directory.empty() ? GetRuntimeDirectory() : options_.runtime_directory;
  }
  Clock::time_point GetDeadline() const { return Clock::now() + options_.limits.handshake; }

 private:
  // With the lock held.
  IoLoop& GetLoop();
  bool CloseAll() noexcept;  // false: there was no memory for all

  const ClientOptions options_;
  ElasticPool pool_;
  Delivery delivery_{pool_};

  std::mutex mutex_;  // guards what follows
  std::condition_variable idle_;
  bool is_stopped_ = false;
  std::size_t open_calls_ = 0;
  std::map<Connection*, std::shared_ptr<ClientConnection>> connections_;
  std::unique_ptr<IoLoop> loop_;  // started with the first connection
};

class CallJob final : public JobManagement::Job {
 public:
  explicit CallJob(std::shared_ptr<ClientCall> call) : call_(std::move(call)) {}

  Common::Error Run(JobManagement::JobHandler*) override { return Keep()->Execute(); }
  Common::Error Start(JobManagement::JobHandler* handler) override {
    return Keep()->Start(handler);
  }
  Common::Error Cancel() override {
    Keep()->Cancel();
    return Common::Error();
  }

 private:
  // The call outlives the job, which may be deleted meanwhile.
  std::shared_ptr<ClientCall> Keep() const { return call_; }

  const std::shared_ptr<ClientCall> call_;
};

class ConnectionAccessPoint final : public Binding::AccessPoint {
 public:
  explicit ConnectionAccessPoint(std::shared_ptr<ClientConnection> connection)
      : connection_(std::move(connection)) {}
  ~ConnectionAccessPoint() override {
    try {
      connection_->Close(MakeError(kLeft, kSource.At("~ConnectionAccessPoint", 10)));
    } catch (const std::bad_alloc&) {
      // It ends with the client.
    }
  }

  Common::Error CreateJob(std::unique_ptr<Binding::Request> request,
                          std::unique_ptr<JobManagement::Job>& job) override {
    if (request == nullptr) return MakeError(kNullRequest, kSource.At("CreateJob", 20));
    Common::Error error = connection_->CheckConnected();
    if (error.IsFailure()) return error;
    try {
      job =
          std::make_unique<CallJob>(std::make_shared<ClientCall>(connection_, std::move(request)));
    } catch (const std::bad_alloc&) {
      return Common::Error::OutOfMemory();
    }
    return Common::Error();
  }

  std::uint32_t GetConnectionKey() override { return connection_->GetConnectionKey(); }

  Common::Error GetInterfaceVersion(std::uint32_t component_id, std::uint32_t& version,
                                    std::uint32_t& further) override {
    Common::Error error = connection_->CheckConnected();
    if (error.IsFailure()) return error;
    for (const InterfaceVersion& interface : connection_->GetInterfaces()) {
      if (interface.component_id != component_id) continue;
      version = interface.version;
      further = interface.further;
      return Common::Error();
    }
    return MakeError(kUnknownInterface, kSource.At("GetInterfaceVersion", 30),
                     std::to_string(component_id));
  }

 private:
  const std::shared_ptr<ClientConnection> connection_;
};

// Runs `connect`, which throws, for an access point.
template <class ConnectFunction>
Common::Error MakeAccessPoint(std::unique_ptr<Binding::AccessPoint>& access_point,
                              ConnectFunction&& connect) {
  try {
    access_point = std::make_unique<ConnectionAccessPoint>(connect());
    return Common::Error();
  } catch (const Common::Error& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  } catch (const std::system_error& failure) {
    return MakeReasonedError(kNoResources, failure.what(), kSource.At("MakeAccessPoint", 40));
  }
}

class LocalBrowser final : public Binding::Browser {
 public:
  LocalBrowser(std::shared_ptr<ClientImpl> client, std::string directory)
      : client_(std::move(client)), directory_(std::move(directory)) {}

  Common::Error Connect(unsigned int service_id, unsigned int,
                        std::unique_ptr<Binding::AccessPoint>& access_point,
                        const Binding::WordPair&) override {
    return MakeAccessPoint(access_point, [&] {
      const Clock::time_point deadline = client_->GetDeadline();
      Hello hello;
      hello.service_id = service_id;
      return client_->Connect(ConnectLocalService(directory_, service_id, deadline), nullptr, hello,
                              deadline);
    });
  }

 private:
  const std::shared_ptr<ClientImpl> client_;
  const std::string directory_;
};

class HostBrowser final : public Binding::Browser {
 public:
  HostBrowser(std::shared_ptr<ClientImpl> client, HostAddress address,
              std::unique_ptr<TlsContext> tls)
      : client_(std::move(client)), address_(std::move(address)), tls_(std::move(tls)) {}

  void SetCredentials(const Common::String& user, const Common::String& password) {
    Set(user_, user);
    Set(password_, password);
  }

  Common::Error Connect(unsigned int service_id, unsigned int,
                        std::unique_ptr<Binding::AccessPoint>& access_point,
                        const Binding::WordPair&) override {
    return MakeAccessPoint(access_point, [&] {
      const Clock::time_point deadline = client_->GetDeadline();
      std::unique_ptr<TlsFilter> filter = tls_->CreateFilter();
      UniqueDescriptor socket = ConnectHost(address_, deadline);
      Hello hello;
      hello.service_id = service_id;
      hello.user.Fill() = user_.Get();
      hello.password.Fill() = password_.Get();
      return client_->Connect(std::move(socket), std::move(filter), hello, deadline);
    });
  }

 private:
  static void Set(Secret& to, const Common::String& text) {
    to.Fill().reserve(3 * text.size() + 1);  // so that it doesn't move while it is filled
    Common::ToUtf8(to.Fill(), text.data(), text.size());
    if (to.Get().size() > kMaxHelloFrame) {
      throw MakeError(kLongCredentials, kSource.At("Set", 50));
    }
  }

  const std::shared_ptr<ClientImpl> client_;
  const HostAddress address_;
  const std::unique_ptr<TlsContext> tls_;
  Secret user_;
  Secret password_;
};

class ClientBinder final : public Binding::Binder {
 public:
  explicit ClientBinder(std::shared_ptr<ClientImpl> client) : client_(std::move(client)) {}

  Common::Error Bind(const Binding::ConnectionRecord& record,
                     std::unique_ptr<Binding::Browser>& browser) override {
    try {
      HostAddress address = ParseHostAddress(record.host);
      if (address.host.empty() || address.port == 0) {
        return MakeError(kBadAddress, kSource.At("Bind", 60), record.host);
      }
      TlsSettings settings;
      settings.host = address.host;
      settings.host_is_address = address.is_address;
      settings.authorities_file = client_->GetOptions().authorities_file;
      const char* const own = std::getenv("VELORIN_IPC_CA");
      if (settings.authorities_file.empty() && own != nullptr) settings.authorities_file = own;
      auto result =
          std::make_unique<HostBrowser>(client_, std::move(address), CreateTlsContext(settings));
      result->SetCredentials(record.user, record.password);
      browser = std::move(result);
      return Common::Error();
    } catch (const Common::Error& error) {
      return error;
    } catch (const std::bad_alloc&) {
      return Common::Error::OutOfMemory();
    }
  }

 private:
  const std::shared_ptr<ClientImpl> client_;
};

std::unique_ptr<Binding::Binder> ClientImpl::CreateBinder() {
  return std::make_unique<ClientBinder>(shared_from_this());
}

std::unique_ptr<Binding::Browser> ClientImpl::GetLocalBrowser(Common::Error& error) {
  try {
    std::string directory = GetDirectory();
    OpenRuntimeDirectory(directory);
    return std::make_unique<LocalBrowser>(shared_from_this(), std::move(directory));
  } catch (const Common::Error& failure) {
    error = failure;
  } catch (const std::bad_alloc&) {
    error = Common::Error::OutOfMemory();
  }
  return nullptr;
}

std::shared_ptr<ClientConnection> ClientImpl::Connect(UniqueDescriptor socket,
                                                      std::unique_ptr<TlsFilter> filter,
                                                      const Hello& hello,
                                                      Clock::time_point deadline) {
  std::vector<unsigned char> payload = EncodeHello(hello);
  const Common::WipeAtEnd wipe(&payload);
  if (payload.size() > kMaxHelloFrame) {
    throw MakeError(kLongCredentials, kSource.At("Connect", 70));
  }
  std::shared_ptr<ClientConnection> connection;
  {
    const std::lock_guard lock(mutex_);
    if (is_stopped_) throw MakeError(kNotStarted, kSource.At("Connect", 80));
    connection =
        std::make_shared<ClientConnection>(shared_from_this(), GetLoop(), std::move(socket),
                                           std::move(filter), options_.limits, std::move(payload));
    connections_.emplace(connection.get(), connection);
    connection->Open();
  }
  const Common::Error error = connection->WaitForWelcome(deadline);
  if (error.IsFailure()) throw error;
  return connection;
}

IoLoop& ClientImpl::GetLoop() {
  if (loop_ == nullptr) {
    loop_ = IoLoop::Create();
    delivery_.SetLoop(*loop_);
  }
  return *loop_;
}

void ClientImpl::Forget(Connection& connection) {
  std::shared_ptr<ClientConnection> last;
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(&connection);
  if (found == connections_.end()) return;
  last = std::move(found->second);
  connections_.erase(found);
}

bool ClientImpl::BeginCall() {
  const std::lock_guard lock(mutex_);
  if (is_stopped_) return false;
  ++open_calls_;
  return true;
}

void ClientImpl::EndCall() {
  const std::lock_guard lock(mutex_);
  if (--open_calls_ == 0) idle_.notify_all();
}

bool ClientImpl::CloseAll() noexcept {
  try {
    const Common::Error reason = MakeError(kNotStarted, kSource.At("CloseAll", 100));
    for (const auto& [key, connection] : connections_) connection->Close(reason);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

Common::Error ClientImpl::Stop() {
  if (pool_.IsOwnThread()) return MakeError(kDeinitInCallback, kSource.At("Stop", 90));
  std::unique_lock lock(mutex_);
  if (std::exchange(is_stopped_, true)) return Common::Error();
  // Without memory for it, it is tried again.
  bool are_closed = CloseAll();
  while (!idle_.wait_for(lock, kRetryTime, [&] { return are_closed && open_calls_ == 0; })) {
    if (!are_closed) are_closed = CloseAll();
    delivery_.EnsureRetry();
  }
  lock.unlock();
  if (loop_ != nullptr) {
    delivery_.PrepareStop();
    loop_->Stop();
  }
  pool_.Stop();
  return Common::Error();
}

}  // namespace

std::shared_ptr<Client> Client::Create(const ClientOptions& options) {
  const auto client = std::make_shared<ClientImpl>(options);
  // Those that came from it keep it, too; it is stopped all the same.
  return {client.get(), [client](Client*) { client->Stop(); }};
}

}  // namespace Platform::Ipc
