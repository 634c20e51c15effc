#include "services/objprobe_service/reply_writer.h"

#include <memory>
#include <new>
#include <string>

#include "enterprise/common/ipc/utils.h"
#include "enterprise/serialize/xml_serializer.h"

namespace ObjProbeService {

namespace {

using Serialization::MetaInfo;

constexpr char kResultName[] = "result";

MetaInfo MakeEnvelope(ViewMethod method) {
  return MetaInfo(std::string("reply_ViewManager_").append(GetMethodName(method)));
}

using Packet = std::shared_ptr<const Serialization::CountedBytes>;

// The block in which it was written is what goes out.
Packet MakePacket(Serialization::Serializer& serializer) {
  return std::make_shared<const Serialization::CountedBytes>(serializer.Finish());
}
bool SendPacket(Platform::Ipc::ServerCall& call, const Packet& packet) {
  return call.ReplyShared(packet, packet->data.get(), packet->size);
}

}  // namespace

ReplyWriter::ReplyWriter(ViewMethod method)
    : serializer_(Serialization::CreateXMLPacketSerializer(0)) {
  open_.push_back(MakeEnvelope(method));
  serializer_->BeginElement(open_.back());
  serializer_->Write(MetaInfo(kResultName), Common::Error());
}

ReplyWriter::~ReplyWriter() = default;

void ReplyWriter::Begin(const char* name) {
  open_.emplace_back(name);
  serializer_->BeginElement(open_.back());
}

void ReplyWriter::WriteViewId(unsigned int id) {
  Binding::WriteElement(*serializer_, "viewID", id);
}

void ReplyWriter::WriteSubscription(unsigned int id) {
  Binding::WriteElement(*serializer_, "subscription", Dml::ViewManagement::Subscription{id});
}

void ReplyWriter::BeginSnapshot() {
  Begin("snapshot");
  Begin(Serialization::kVectorName);
}

void ReplyWriter::BeginTopic(const Dml::ViewManagement::TopicID& id) {
  Begin("topic");
  Serialization::WriteRecord(*serializer_, "ID", id);
  Begin("Content");
  Begin(Serialization::kVectorName);
}

void ReplyWriter::BeginUpdates() {
  Begin("updates");
  Begin(Serialization::kVectorName);
}

void ReplyWriter::BeginTopicUpdates() {
  Begin("updates");
  Begin("TopicUpdates");
  Begin(Serialization::kVectorName);
}

void ReplyWriter::WriteItem(const EncodedUnit& unit) {
  Serialization::WriteRecord(*serializer_, Serialization::kItemName, unit);
  items_size_ += GetPacketSize(unit);
}

void ReplyWriter::WriteItem(const EncodedUpdate& update) {
  Serialization::WriteRecord(*serializer_, Serialization::kItemName, update);
  items_size_ += GetPacketSize(update);
}

std::size_t ReplyWriter::Finish() {
  for (; !open_.empty(); open_.pop_back()) serializer_->EndElement(open_.back());
  packet_ = MakePacket(*serializer_);
  return packet_->size;
}

bool ReplyWriter::Send(Platform::Ipc::ServerCall& call) {
  if (packet_ == nullptr) Finish();
  return SendPacket(call, packet_);
}

void SendSuccess(Platform::Ipc::ServerCall& call, ViewMethod method) {
  ReplyWriter(method).Send(call);
}

void SendFailure(Platform::Ipc::ServerCall& call, ViewMethod method, const Common::Error& failure) {
  try {
    const auto serializer = Serialization::CreateXMLPacketSerializer(0);
    {
      const Serialization::ElementWriter envelope(*serializer, MakeEnvelope(method));
      serializer->Write(MetaInfo(kResultName), failure);
    }
    SendPacket(call, MakePacket(*serializer));
  } catch (const std::bad_alloc&) {
    call.Fail(Common::Error::OutOfMemory());
  }
}

}  // namespace ObjProbeService
