#include "platform/store/is_index.h"

#include <algorithm>
#include <string_view>

#include "core/common/guid.h"
#include "core/common/text.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"

namespace Platform::Store {

namespace {

constexpr std::size_t kMaxTextUnits = 120;
constexpr std::size_t kMaxDemandedKeys = 8;

// Predicates that stand before `Is` in the order of traits and never raise.
constexpr std::string_view kHarmlessPredicates[] = {
    "AnyValue", "EqualValue", "ForeignKey", "Greater", "GreaterEqual", "In", "IncludedInArray"};

const Por::Name& GetIsName() {
  static const Por::Name name("Is");
  return name;
}

class KeyMaker {
 public:
  explicit KeyMaker(IsKey& key) : key_(key) {}

  template <class T>
  void operator()(const Por::View::ScalarValue<T>& value) {
    const T number = value.Get();
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      key_ += static_cast<char>(static_cast<unsigned long long>(number) >> (8 * i) & 0xFF);
    }
  }
  // Zeros of both signs are equal.
  void operator()(const Por::View::ScalarValue<double>&) {}
  void operator()(const Por::View::ComplexValue<Common::Guid>& value) {
    for (const unsigned char byte : value.Get().bytes) key_ += static_cast<char>(byte);
  }
  void operator()(const Por::View::ComplexValue<Common::String>& value) {
    const Common::String& text = value.Get();
    for (std::size_t i = 0; i < std::min(text.size(), kMaxTextUnits); ++i) {
      key_ += static_cast<char>(text[i] & 0xFF);
      key_ += static_cast<char>(text[i] >> 8);
    }
  }
  template <class Value>
  void operator()(const Value&) {}

 private:
  IsKey& key_;
};

IsKey MakeIsKey(const Por::View::Unit& value) {
  IsKey key(1, static_cast<char>(Por::Util::GetValueTypeIndex(value)));
  KeyMaker maker(key);
  Por::View::Detail::UnitVisitorAdaptor<KeyMaker> visitor(maker);
  value.Accept(visitor);
  return key;
}

Common::String GetKeyText(const IsKey& key) {
  Common::String text;
  for (std::size_t i = 1; i + 1 < key.size(); i += 2) {
    text += static_cast<char16_t>(static_cast<unsigned char>(key[i]) |
                                  static_cast<unsigned char>(key[i + 1]) << 8);
  }
  return text;
}

}  // namespace

std::vector<IsKey> GetIsKeys(const Por::View::Unit& object) {
  std::vector<IsKey> keys;
  auto collect = Por::MakeProcessor<const Por::View::Trait>(
      [&keys](const Por::View::Trait& trait) { keys.push_back(MakeIsKey(trait.GetValue())); });
  object.GetTraits().ForEach(GetIsName(), collect);
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return keys;
}

std::vector<IsKey> GetDemandedIsKeys(const Por::View::Unit& pattern) {
  bool harmless = true;
  auto check =
      Por::MakeProcessor<const Por::View::Trait>([&harmless](const Por::View::Trait& trait) {
        if (trait.GetName() == GetIsName()) return true;
        harmless =
            std::find(std::begin(kHarmlessPredicates), std::end(kHarmlessPredicates),
                      std::string_view(trait.GetName().GetText())) != std::end(kHarmlessPredicates);
        return !harmless;
      });
  pattern.GetTraits().ForEach(check);
  if (!harmless) return {};
  std::vector<IsKey> keys = GetIsKeys(pattern);
  if (keys.size() > kMaxDemandedKeys) keys.resize(kMaxDemandedKeys);
  return keys;
}

std::string GetTypeText(const Por::View::Unit& object) {
  std::string text;
  auto add = Por::MakeProcessor<const Por::View::Trait>([&text](const Por::View::Trait& trait) {
    const IsKey key = MakeIsKey(trait.GetValue());
    if (static_cast<unsigned char>(key.front()) != Por::kStringIndex) return;
    if (!text.empty()) text += ", ";
    text += DescribeIsKey(key);
  });
  object.GetTraits().ForEach(GetIsName(), add);
  return text;
}

std::string DescribeIsKey(const IsKey& key) {
  const unsigned int kind = key.empty() ? Por::kNoIndex : static_cast<unsigned char>(key.front());
  const Common::String text =
      kind == Por::kStringIndex ? GetKeyText(key) : Por::Util::GetTypeName(kind);
  std::string result;
  Common::ToUtf8(result, text.c_str(), text.size());
  return result;
}

}  // namespace Platform::Store
