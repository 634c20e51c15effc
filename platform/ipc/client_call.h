#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "enterprise/common/ipc/client_library.h"
#include "enterprise/serialize/output_buffer.h"
#include "platform/ipc/delivery.h"
#include "platform/ipc/frame.h"

namespace Platform::Ipc {

class ClientConnection;

// One call, apart from the job that the caller has of it and may delete in its last callback.
//
// While it is open, its connection's loop fills its reply. Who takes it out of the connection's
// open calls (a reply, a fault, a cancel, the end of the connection) ends it, so there is one end.
// Behind that the task that tells the handler, or the thread that waits, has it for itself.
class ClientCall final : public DeliveryTask, public std::enable_shared_from_this<ClientCall> {
 public:
  ClientCall(std::shared_ptr<ClientConnection> connection,
             std::unique_ptr<Binding::Request> request);

  // What the job does; see JobManagement::Job.
  Common::Error Execute();
  Common::Error Start(JobManagement::JobHandler* handler);
  void Cancel();

  // Under the lock of the connection's open calls; 0 until it is one of them.
  std::uint64_t GetId() const { return id_; }
  void SetId(std::uint64_t id) { id_ = id; }
  // Whether a cancel has come, be it before the call was open.
  bool IsCancelled() const { return use_ == Use::kIsCancelled; }

  // On the loop's thread, while it is open. They throw std::bad_alloc. False: more than announced.
  void BeginReply(std::uint64_t size);
  bool AppendReply(Bytes bytes);
  bool HasBegunReply() const { return has_begun_; }
  bool IsReplyComplete() const { return has_begun_ && reply_.GetSize() == reply_size_; }

  // The call has ended, without an error by its reply. Never fails.
  void End(const Common::Error& error);

 private:
  enum class Use { kIsNew, kIsStarted, kIsCancelled };

  void Run() override;  // tells the handler
  Common::Error Send(JobManagement::JobHandler* handler);
  // False: it has not come by then.
  bool WaitForEnd(std::chrono::steady_clock::time_point deadline);
  Common::Error Conclude();
  Common::Error ReadReply();

  const std::shared_ptr<ClientConnection> connection_;
  std::unique_ptr<Binding::Request> request_;
  std::atomic<Use> use_ = Use::kIsNew;
  std::uint64_t id_ = 0;
  JobManagement::JobHandler* handler_ = nullptr;  // null: a thread waits

  bool has_begun_ = false;
  std::uint64_t reply_size_ = 0;
  Serialization::OutputBuffer reply_;
  Common::Error error_;

  std::mutex mutex_;
  std::condition_variable end_;
  bool has_ended_ = false;
};

}  // namespace Platform::Ipc
