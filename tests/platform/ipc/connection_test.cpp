#include "platform/ipc/connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/async_service/elastic_pool.h"
#include "platform/ipc/delivery.h"
#include "tests/platform/ipc/raw_peer.h"
#include "tests/support/allocation_watch.h"

// What both ends have of a connection, under conditions that real peers don't bring about.

namespace Platform::Ipc::Test {
namespace {

// Flips all bits; memory is out when it says so.
class FlippingFilter final : public TlsFilter {
 public:
  explicit FlippingFilter(std::atomic<bool>& is_out) : is_out_(is_out) {}

  void Feed(std::span<const unsigned char>) override {}
  Step Handshake(Common::Error&) override { return Step::kReady; }
  bool Read(std::span<unsigned char>, std::size_t& size, Common::Error&) override {
    size = 0;
    return true;
  }
  bool Write(std::span<const unsigned char> bytes, Common::Error&) override {
    if (is_out_) throw std::bad_alloc();
    for (const unsigned char byte : bytes) output_.push_back(static_cast<unsigned char>(~byte));
    return true;
  }
  void TakeOutput(std::vector<unsigned char>& to) override {
    to.insert(to.end(), output_.begin(), output_.end());
    output_.clear();
  }

 private:
  std::atomic<bool>& is_out_;
  std::vector<unsigned char> output_;
};

class PlainConnection final : public Connection {
 public:
  PlainConnection(IoLoop& loop, UniqueDescriptor socket, std::unique_ptr<TlsFilter> filter)
      : Connection(loop, std::move(socket), std::move(filter), Side::kServer, Limits()) {}

  void Send(const std::string& text) {
    SendMessage(FrameKind::kFault, 1, std::vector<unsigned char>(text.begin(), text.end()));
  }

  std::promise<void> ready;
  std::promise<Common::Error> end;

 private:
  void OnReady() override { ready.set_value(); }
  bool OnFrame(FrameKind, std::uint64_t, Bytes) override { return true; }
  bool OnPacketStart(const PacketStart&) override { return true; }
  bool OnPacketBytes(std::uint64_t, Bytes) override { return true; }
  void OnEnd(const Common::Error& error) override { end.set_value(error); }
};

TEST(IpcConnection, SendsNothingUnencryptedWhenMemoryIsOut) {
  int sockets[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  RawPeer peer{UniqueDescriptor(sockets[1])};
  std::atomic<bool> is_out = false;
  const auto loop = IoLoop::Create();
  const auto connection = std::make_shared<PlainConnection>(
      *loop, UniqueDescriptor(sockets[0]), std::make_unique<FlippingFilter>(is_out));
  connection->Open();
  connection->ready.get_future().wait();
  connection->Send("first");
  is_out = true;
  connection->Send("second");
  connection->Send("third");
  EXPECT_EQ(connection->end.get_future().get().GetCode(), Common::kOutOfMemoryCode);
  RawPeer::Buffer expected = RawPeer::MakeFrame(FrameKind::kFault, 1, {'f', 'i', 'r', 's', 't'});
  for (unsigned char& byte : expected) byte = static_cast<unsigned char>(~byte);
  EXPECT_EQ(peer.ReadAll(), expected);
  loop->Stop();
}

TEST(IpcDelivery, KeepsWhatFindsNoMemory) {
  ElasticPool pool;
  const auto loop = IoLoop::Create();
  Delivery delivery(pool);
  delivery.SetLoop(*loop);
  struct Task final : DeliveryTask {
    void Run() override { ran.set_value(); }
    std::promise<void> ran;
  };
  const auto runs = [&](const std::shared_ptr<Task>& task) {
    return task->ran.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  };
  const auto fails_to_post = [](Delivery& to, const std::shared_ptr<Task>& task) {
    const TestSupport::AllocationWatch watch(0);
    to.Post(task);
    return watch.HasFailed();
  };
  // Tried again with the next task.
  const auto behind = std::make_shared<Task>();
  const auto tried_again = std::make_shared<Task>();
  ASSERT_TRUE(fails_to_post(delivery, tried_again));
  delivery.Post(behind);
  EXPECT_TRUE(runs(behind));
  EXPECT_TRUE(runs(tried_again));
  pool.Stop();
  delivery.PrepareStop();
  loop->Stop();
  ElasticPool second;
  Delivery at_the_end(second);
  const auto second_loop = IoLoop::Create();
  at_the_end.SetLoop(*second_loop);
  const auto flushed = std::make_shared<Task>();
  EXPECT_TRUE(fails_to_post(at_the_end, flushed));
  at_the_end.PrepareStop();
  second_loop->Stop();
  at_the_end.Flush();
  EXPECT_TRUE(runs(flushed));
}

}  // namespace
}  // namespace Platform::Ipc::Test
