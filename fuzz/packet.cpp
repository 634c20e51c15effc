// Packets: SCRIPT, a line feed, the packet. The script tells the calls, one a character. Whatever a
// packet holds, calls give a value or throw one of our errors, and a value that was read is written
// and read again as the same one.
//
//   b c g e w u U i l s h H v k d   reads a value: of the type that kValues has for the character
//   n q                             reads a unit, a sequence of units
//   ( )                             begins, ends an element
//   @                               asks for the version
// The element is the next child; behind "!" strictly so, behind "-" it is "value", behind "." none.

#include <algorithm>
#include <concepts>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "enterprise/common/por/serialization/unit_serializer.h"
#include "enterprise/serialize/record.h"
#include "enterprise/serialize/xml_serializer.h"
#include "fuzz/fuzz_units.h"

using namespace Serialization;

namespace {

std::unique_ptr<Deserializer> Open(std::string_view packet) {
  return CreateXMLPacketDeserializer(reinterpret_cast<const unsigned char*>(packet.data()),
                                     packet.size(), 1);
}

template <class Write>
std::string WritePacket(Write&& write) {
  const std::unique_ptr<Serializer> to = CreateXMLPacketSerializer(0);
  write(*to);
  const CountedBytes packet = to->Finish();
  return {reinterpret_cast<const char*>(packet.data.get()), packet.size};
}

using Fuzz::IsSame;

template <std::equality_comparable T>
bool IsSame(const T& left, const T& right) {
  return left == right;
}
bool IsSame(const CountedBytes& left, const CountedBytes& right) {
  return std::equal(left.data.get(), left.data.get() + left.size, right.data.get(),
                    right.data.get() + right.size);
}
// By their byte forms.
bool IsSame(const Common::Error& left, const Common::Error& right) {
  unsigned int left_size = 0;
  unsigned int right_size = 0;
  const std::unique_ptr<unsigned char[]> left_bytes = left.Save(left_size);
  const std::unique_ptr<unsigned char[]> right_bytes = right.Save(right_size);
  return std::equal(left_bytes.get(), left_bytes.get() + left_size, right_bytes.get(),
                    right_bytes.get() + right_size);
}

// Neither writing what was read nor reading what we wrote may fail.
template <class T, class Write, class Read>
void RequireComesBack(const T& value, Write&& write, Read&& read) {
  try {
    const std::string packet = WritePacket([&](Serializer& to) { write(to, value); });
    T again{};
    read(*Open(packet), again);
    Fuzz::Require(IsSame(value, again), "a value that was read comes back");
  } catch (const Common::Error&) {
    Fuzz::Require(false, "a value that was read is written and read without a failure");
  }
}

template <class T>
void ReadValue(Deserializer& from, const MetaInfo& meta) {
  T value{};
  from.Read(meta, value);
  // 16 digits don't tell all doubles apart.
  if constexpr (!std::is_same_v<T, double>) {
    const MetaInfo plain("v");
    RequireComesBack(
        value, [&](Serializer& to, const T& written) { to.Write(plain, written); },
        [&](Deserializer& again, T& read) { again.Read(plain, read); });
  }
}

template <class T>
void ReadRecord(Deserializer& from) {
  T value{};
  RecordFormat<T>::Read(from, value);
  RequireComesBack(value, RecordFormat<T>::Write, RecordFormat<T>::Read);
}

struct ValueCall {
  char name;
  void (*read)(Deserializer&, const MetaInfo&);
};
constexpr ValueCall kValues[] = {
    {'b', ReadValue<bool>},
    {'c', ReadValue<unsigned char>},
    {'g', ReadValue<Common::Guid>},
    {'e', ReadValue<Common::Error>},
    {'w', ReadValue<Common::String>},
    {'u', ReadValue<unsigned int>},
    {'d', ReadValue<double>},
    {'U', ReadValue<unsigned long long>},
    {'i', ReadValue<int>},
    {'l', ReadValue<long long>},
    {'s', ReadValue<std::string>},
    {'h', ReadValue<short>},
    {'H', ReadValue<unsigned short>},
    {'v', ReadValue<std::vector<unsigned char>>},
    {'k', ReadValue<CountedBytes>},
};

void Call(Deserializer& from, char call, const MetaInfo& meta) {
  for (const ValueCall& value : kValues) {
    if (value.name == call) return value.read(from, meta);
  }
  if (call == 'n') ReadRecord<Por::SharedUnit>(from);
  if (call == 'q') ReadRecord<std::vector<Por::SharedUnit>>(from);
  if (call == '(') from.BeginElement(meta);
  if (call == ')') from.EndElement(meta);
  if (call == '@') from.GetSubjectVersion();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view script = input.substr(0, input.find('\n'));
  const std::unique_ptr<Deserializer> from = Open(input.substr(std::min(script.size() + 1, size)));
  std::vector<std::string> open;
  char mark = 0;
  for (const char call : script) {
    if (std::string_view("!-.").find(call) != std::string_view::npos) {
      mark = call;
      continue;
    }
    MetaInfo meta = from->PeekMetaInfo();
    meta.strict = mark == '!';
    if (mark == '-') meta.name = kValueName;
    if (mark == '.') meta.name.clear();
    if (call == ')') meta.name = open.empty() ? "" : open.back();
    mark = 0;
    try {
      Call(*from, call, meta);
      if (call == '(') open.push_back(meta.name);
      if (call == ')' && !open.empty()) open.pop_back();
    } catch (const Common::Error& error) {
      Fuzz::Require(error.IsFailure(), "a failure has a code");
    }
  }
  return 0;
}
