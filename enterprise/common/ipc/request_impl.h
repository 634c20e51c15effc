#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "enterprise/common/ipc/request.h"

namespace Binding {

// The identity of a method.
struct MethodInfo {
  std::uint32_t component_id = 0;   // number of the interface
  std::uint32_t method_number = 0;  // from 1
  std::string interface_name;
  std::string method_name;
  std::uint64_t interface_version = 0;  // as the client knows the interface
  std::uint64_t since_version = 0;      // the first one that has the method
  // Of the packet: with all ones no element's own category matches.
  std::uint64_t category = ~std::uint64_t{0};
};

namespace Detail {

// What is common to the requests of all signatures. I and M are the names of interface and method:
//
//   <request_I_M> arguments </request_I_M>
//   <reply_I_M><result> Common::Error </result> results </reply_I_M>
//
// Further elements of a reply are skipped, as far as they stand behind those that are read.
class RequestBase : public Request, public RequestSerializer {
 public:
  // Under which a request finds this part of itself.
  static constexpr char kInterfaceName[] = "PN7Binding6Detail11RequestBaseE";

  explicit RequestBase(MethodInfo method);

  void SetProperty(const std::string& key, const Common::String& value) override;
  std::uint64_t GetCategory() const override { return method_.category; }
  std::uint32_t GetComponentId() const override { return method_.component_id; }
  std::uint32_t GetMethodNumber() const override { return method_.method_number; }
  std::unique_ptr<Serialization::Deserializer> CreateDeserializer(
      unsigned int version) const override;
  PropertyMap GetProperties() const override { return properties_; }
  std::uint64_t GetInterfaceVersion() const override { return method_.interface_version; }
  void Serialize(Serialization::Serializer& serializer) const override;
  void ReadReply(Serialization::Deserializer& deserializer) override;

  const MethodInfo& GetMethodInfo() const { return method_; }

 private:
  Serialization::MetaInfo MakeEnvelope(const char* kind) const;

  const MethodInfo method_;
  PropertyMap properties_;
};

}  // namespace Detail
}  // namespace Binding
