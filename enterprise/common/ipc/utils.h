#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/trace.h"
#include "enterprise/common/ipc/request_impl.h"
#include "enterprise/serialize/element_scope.h"
#include "enterprise/serialize/record.h"
#include "enterprise/serialize/serializer.h"

namespace Binding {

// Writes a value as an element that tells no more than its name: a number, a sequence, or whatever
// has a Serialization::RecordFormat.
template <class T>
void WriteElement(Serialization::Serializer& serializer, std::string name, const T& value) {
  if constexpr (std::is_arithmetic_v<T>) {
    serializer.Write(Serialization::MetaInfo(std::move(name)), value);
  } else {
    const Serialization::ElementWriter element(serializer,
                                               Serialization::MetaInfo(std::move(name)));
    Serialization::RecordFormat<T>::Write(serializer, value);
  }
}
template <class T>
void WriteElement(Serialization::Serializer& serializer, std::string name,
                  const std::vector<T>& values) {
  Serialization::WriteSequence(serializer, values, Serialization::MetaInfo(std::move(name)));
}

// How replies are read. What can't be read leaves its value as far as it was read, and nothing
// tells of it. What is malformed costs only itself. What is missing also uses up the child that
// stands in its place, which a strict read that follows then misses; so does a search that follows
// when that child was the last one.
template <class T>
void TryReadElement(Serialization::Deserializer& deserializer, Serialization::MetaInfo meta,
                    T& value) {
  try {
    if constexpr (std::is_arithmetic_v<T>) {
      deserializer.Read(meta, value);
    } else {
      const Serialization::ElementReader element(deserializer, std::move(meta));
      Serialization::RecordFormat<T>::Read(deserializer, value);
    }
  } catch (const Common::Error&) {
    // The next one is read.
  }
}
// The same of a field of a record, which is searched by its name. A record may be nothing but an
// end, and a reply nothing but such records: what can't be found then is not worth a throw.
template <class T>
void ReadField(Serialization::Deserializer& deserializer, const char* name, T& value) {
  if (deserializer.IsAtEnd()) return;
  TryReadElement(deserializer, Serialization::MetaInfo(name), value);
}

namespace Detail {

// Which way a parameter travels. Any greater number: neither way.
inline constexpr std::uint32_t kModeBoth = 0;
inline constexpr std::uint32_t kModeRequest = 1;
inline constexpr std::uint32_t kModeReply = 2;
inline constexpr std::uint32_t kModeRequestAndReply = 3;
// To be encrypted where it travels. No value can be: it is reported by an assertion and left out.
inline constexpr std::uint32_t kModeEncrypted = 4;

bool IsWritten(std::uint32_t mode) noexcept;
bool IsRead(std::uint32_t mode) noexcept;

// An argument of the form T or const T&: it is never read from a reply.
template <class Argument>
class Parameter {
 public:
  using Value = std::remove_cvref_t<Argument>;

  // Keeps a copy of the value.
  Parameter(const Value& value, const char* name, std::uint32_t mode)
      : value_(value), name_(name), mode_(mode) {}

  void Write(Serialization::Serializer& serializer) const {
    if (IsWritten(mode_)) WriteElement(serializer, name_, value_);
  }
  void Read(Serialization::Deserializer&) {}

 protected:
  Value value_;
  std::string name_;
  std::uint32_t mode_;
};

// One of the form T&: the value that it has when the request is made is what the request writes.
template <class T>
requires(!std::is_const_v<T>) class Parameter<T&> : public Parameter<const T&> {
 public:
  // Borrows the variable until the end of the call.
  Parameter(T& target, const char* name, std::uint32_t mode)
      : Parameter<const T&>(target, name, mode), target_(target) {}

  void Read(Serialization::Deserializer& deserializer) {
    if (!IsRead(this->mode_)) return;
    TryReadElement(deserializer, Serialization::MetaInfo(this->name_, true), target_);
  }

 private:
  T& target_;
};

// A request of a method with these arguments.
template <class Signature>
class RequestImpl;

template <class... Arguments>
class RequestImpl<void(Arguments...)> final : public RequestBase {
 public:
  explicit RequestImpl(MethodInfo method, Parameter<Arguments>... parameters)
      : RequestBase(std::move(method)), parameters_(std::move(parameters)...) {}

  void WriteArguments(Serialization::Serializer& serializer) const override {
    std::apply([&](const auto&... parameters) { (parameters.Write(serializer), ...); },
               parameters_);
  }
  void ReadResults(Serialization::Deserializer& deserializer) override {
    std::apply([&](auto&... parameters) { (parameters.Read(deserializer), ...); }, parameters_);
  }

 private:
  std::tuple<Parameter<Arguments>...> parameters_;
};

}  // namespace Detail

// Makes the request of a method whose parameters all travel both ways, named in the order of its
// signature. Variables of the form T& are borrowed until the end of the call.
// Null, and the error is traced, when a Common::Error is thrown meanwhile.
template <class... Arguments>
std::unique_ptr<Request> BuildRequest(const MethodInfo& method,
                                      const char* const (&names)[sizeof...(Arguments)],
                                      Arguments... arguments) {
  try {
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
      return std::make_unique<Detail::RequestImpl<void(Arguments...)>>(
          method, Detail::Parameter<Arguments>(arguments, names[I], Detail::kModeBoth)...);
    }
    (std::index_sequence_for<Arguments...>());
  } catch (const Common::Error& error) {
    Common::Trace(Common::kTraceDebug, error);
    return nullptr;
  }
}

}  // namespace Binding
