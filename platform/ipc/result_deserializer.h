#pragma once

#include <string>
#include <vector>

#include "enterprise/serialize/serializer.h"

namespace Platform::Ipc {

// Hands everything on to another reader, and keeps what is read as the reply's "result": the
// request that reads it keeps it to itself, and a reply of 100 MB is not to be parsed for it twice.
class ResultDeserializer final : public Serialization::Deserializer {
 public:
  explicit ResultDeserializer(Serialization::Deserializer& reader) : reader_(reader) {}

  // Whether a "result" was read in the element that is the reply; the first one counts.
  bool HasResult() const { return has_result_; }
  const Common::Error& GetResult() const { return result_; }

  void* GetInterface(const char* type_name) override { return reader_.GetInterface(type_name); }

  void Read(const Serialization::MetaInfo& meta, bool& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, unsigned char& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, Common::Guid& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, Common::Error& value) override {
    reader_.Read(meta, value);
    if (depth_ != 1 || has_result_ || meta.name != "result") return;
    result_ = value;
    has_result_ = true;
  }
  void Read(const Serialization::MetaInfo& meta, Common::String& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, unsigned int& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, double& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, unsigned long long& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, int& value) override { reader_.Read(meta, value); }
  void Read(const Serialization::MetaInfo& meta, long long& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, std::string& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, short& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, unsigned short& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, std::vector<unsigned char>& value) override {
    reader_.Read(meta, value);
  }
  void Read(const Serialization::MetaInfo& meta, Serialization::CountedBytes& value) override {
    reader_.Read(meta, value);
  }

  Serialization::MetaInfo PeekMetaInfo() override { return reader_.PeekMetaInfo(); }
  void BeginElement(const Serialization::MetaInfo& meta) override {
    reader_.BeginElement(meta);
    if (!meta.name.empty()) ++depth_;
  }
  void EndElement(const Serialization::MetaInfo& meta) override {
    if (!meta.name.empty()) --depth_;
    reader_.EndElement(meta);
  }
  unsigned long long GetSubjectVersion() override { return reader_.GetSubjectVersion(); }
  bool IsAtEnd() override { return reader_.IsAtEnd(); }

 private:
  Serialization::Deserializer& reader_;
  int depth_ = 0;
  bool has_result_ = false;
  Common::Error result_;
};

}  // namespace Platform::Ipc
