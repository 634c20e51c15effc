#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/serialize/serializer.h"
#include "platform/ipc/server.h"
#include "services/objprobe_service/encoded_records.h"
#include "services/objprobe_service/view_request.h"

namespace ObjProbeService {

// The reply of a call that has succeeded, written piece by piece into the one buffer that goes out.
// Used once, by one thread after the other. Throws std::bad_alloc; the reply is of no use then.
class ReplyWriter : public Common::NonCopyable {
 public:
  explicit ReplyWriter(ViewMethod method);
  ~ReplyWriter();

  // The results of the method in their order. A sequence is begun, then its items follow, and
  // nothing but the end of the reply comes behind it.
  void WriteViewId(unsigned int id);
  void WriteSubscription(unsigned int id);
  void BeginSnapshot();
  void BeginTopic(const Dml::ViewManagement::TopicID& id);
  void BeginUpdates();       // of a view
  void BeginTopicUpdates();  // of a transmission
  void WriteItem(const EncodedUnit& unit);
  void WriteItem(const EncodedUpdate& update);

  // Bytes of the items so far, or a few less.
  std::size_t GetItemsSize() const { return items_size_; }

  // Ends the reply and tells its size in bytes. Once; nothing is written behind that.
  std::size_t Finish();
  // Sends the reply, ended or not. False when the client won't get it. Throws nothing when it was
  // ended before.
  bool Send(Platform::Ipc::ServerCall& call);

 private:
  void Begin(const char* name);

  const std::unique_ptr<Serialization::Serializer> serializer_;
  std::vector<Serialization::MetaInfo> open_;
  std::size_t items_size_ = 0;
  std::shared_ptr<const Serialization::CountedBytes> packet_;  // the ended reply
};

// A reply without results.
void SendSuccess(Platform::Ipc::ServerCall& call, ViewMethod method);
// A reply whose result is a failure.
void SendFailure(Platform::Ipc::ServerCall& call, ViewMethod method, const Common::Error& failure);

}  // namespace ObjProbeService
