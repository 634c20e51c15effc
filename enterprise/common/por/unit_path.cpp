#include "enterprise/common/por/unit_path.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "core/common/message_table.h"
#include "core/common/number_text.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"

namespace Por::Util {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/unit_path"};

constexpr char16_t kPropertySeparator = u'.';
constexpr char16_t kTraitSeparator = u'^';

bool IsSeparator(char16_t c) {
  return c == kPropertySeparator || c == kTraitSeparator;
}

// Replaces every `from`; an inserted text is not looked at again.
void ReplaceAll(Common::String& text, std::u16string_view from, std::u16string_view to) {
  std::size_t at = text.find(from);
  if (at == Common::String::npos) return;
  Common::String result;
  std::size_t done = 0;
  for (; at != Common::String::npos; at = text.find(from, done)) {
    result.append(text, done, at - done).append(to);
    done = at + from.size();
  }
  text = std::move(result.append(text, done));
}

Common::Error MakeError(std::uint32_t code, Common::MessageRow row, const Common::String& argument,
                        const Common::LineTag& tag) {
  Common::String text;
  Common::FormatMessage(text, Common::GetMessageText(row), argument);
  return Common::MakeTracedError(code, text.c_str(), tag);
}

// End of the token that begins at `begin`: the first single separator, or the end of the path.
std::size_t FindTokenEnd(const Common::String& path, std::size_t begin) {
  for (std::size_t at = begin; at < path.size(); ++at) {
    if (!IsSeparator(path[at])) continue;
    if (at + 1 == path.size() || path[at + 1] != path[at]) return at;
    ++at;
  }
  return path.size();
}

template <class Unit>
Unit* FindPropertyValue(Unit& unit, const Name& name) {
  auto* const property = FindProperty(unit, name);
  return property != nullptr ? &property->GetValue() : nullptr;
}

// One step by a property or an index; null if it leads nowhere.
template <class Unit>
Unit* Step(Unit& unit, const Common::String& token) {
  switch (GetValueTypeIndex(unit)) {
    case kArrayIndex: {
      std::uint64_t index = 0;
      if (!Common::ParseNumber(&index, token.c_str(), 10)) return nullptr;
      return GetArrayElement(unit, index);
    }
    case kCompositeIndex:
      return FindPropertyValue(unit, Name(token));
    default:
      return nullptr;
  }
}

Construction::Unit* StepTo(Construction::Unit& unit, const Common::String& token, bool) {
  return Step(unit, token);
}

const View::Unit* StepTo(const View::Unit& unit, const Common::String& token, bool is_trait) {
  return is_trait ? &GetUniqueTraitByName(unit, Name(token)) : Step(unit, token);
}

template <class Unit>
Unit* Resolve(const Common::String& path, Unit* unit) {
  bool is_trait = false;
  for (std::size_t at = 0; unit != nullptr && at < path.size();) {
    if (IsSeparator(path[at])) is_trait = path[at++] == kTraitSeparator;
    const std::size_t end = FindTokenEnd(path, at);
    if (end == at) break;
    unit = StepTo(*unit, UnescapePathToken(path.substr(at, end - at)), is_trait);
    at = end;
  }
  return unit;
}

// Makes the composites of a path and remembers the last token for the caller.
class PutUnitInLocationEx final : public PathWalker {
 public:
  PutUnitInLocationEx(std::shared_ptr<Construction::Unit> root,
                      const Construction::UnitFactory& factory, const Common::String& path)
      : root_(std::move(root)), factory_(factory), path_(path), current_(root_.get()) {}

  void OnProperty(const Name& name) override {
    if (!pending_.IsEmpty()) {
      Construction::Unit* next = FindPropertyValue(*current_, pending_);
      if (next == nullptr) {
        AddProperty(*current_, pending_, factory_.CreateComposite(), factory_);
        next = FindPropertyValue(*current_, pending_);
      }
      if (!IsComposite(*next)) {
        throw MakeError(kPorInternal, Common::MessageRow::PorInternal, path_,
                        kSource.At("OnProperty", 130));
      }
      current_ = next;
    }
    pending_ = name;
  }
  void OnTrait(const Name&) override {}
  void OnEmptyPath() override {}

  Construction::Unit& GetCurrent() { return *current_; }
  const Name& GetPendingName() const { return pending_; }

 private:
  const std::shared_ptr<Construction::Unit> root_;
  const Construction::UnitFactory& factory_;
  const Common::String& path_;
  Construction::Unit* current_;
  Name pending_;
};

}  // namespace

Common::String EscapePathToken(const Common::String& text) {
  Common::String result = text;
  ReplaceAll(result, u".", u"&d;");
  ReplaceAll(result, u"^", u"&r;");
  return result;
}

Common::String UnescapePathToken(const Common::String& text) {
  Common::String result = text;
  ReplaceAll(result, u"&d;", u".");
  ReplaceAll(result, u"&r;", u"^");
  return result;
}

Common::String JoinPath(const Common::String& path, const Name& name) {
  return path + kPropertySeparator + EscapePathToken(name.ToString());
}

Construction::Unit* ResolveUnit(const Common::String& path, Construction::Unit* unit) {
  return Resolve(path, unit);
}

const View::Unit* ResolveViewUnit(const Common::String& path, const View::Unit* unit) {
  return Resolve(path, unit);
}

bool PathExists(const Common::String& path, const View::Unit* unit) {
  return ResolveViewUnit(path, unit) != nullptr;
}

Name SplitLastToken(Common::String& path, bool* is_trait) {
  if (path.empty() || (path.size() == 1 && IsSeparator(path[0]))) return Name();
  // `at` is one behind the character that is looked at.
  std::size_t at = path.size();
  if (IsSeparator(path[at - 1])) --at;
  while (at != 0) {
    const char16_t c = path[at - 1];
    if (!IsSeparator(c)) {
      --at;
    } else if (at > 1 && path[at - 2] == c) {
      at -= 2;
    } else {
      break;
    }
  }
  Name token(UnescapePathToken(path.substr(at)));
  if (at != 0 && is_trait != nullptr) *is_trait = path[at - 1] == kTraitSeparator;
  path.resize(at != 0 ? at - 1 : 0);
  return token;
}

Construction::Unit& CheckBranchValidity(Construction::Unit* unit, const Common::String& path) {
  if (unit == nullptr) {
    throw MakeError(kPorBranchNotFound, Common::MessageRow::PorBranchNotFound, path,
                    kSource.At("CheckBranchValidity", 200));
  }
  return *unit;
}

void RemoveAtPath(Construction::Unit& unit, const Common::String& path) {
  if (ResolveUnit(path, &unit) == nullptr) return;
  Common::String branch = path;
  const Name name = SplitLastToken(branch);
  if (name.IsEmpty()) return;
  DeleteProperty(CheckBranchValidity(ResolveUnit(branch, &unit), branch), name);
}

std::shared_ptr<Construction::Unit> PutUnitInLocation(std::shared_ptr<Construction::Unit> root,
                                                      const View::Unit& unit,
                                                      const Common::String& path,
                                                      const Construction::UnitFactory& factory) {
  // A level below the root for each token.
  if (static_cast<std::size_t>(std::count(path.begin(), path.end(), kPropertySeparator)) >=
      kMaxUnitDepth) {
    throw MakeError(kPorInternal, Common::MessageRow::PorInternal, path,
                    kSource.At("PutUnitInLocation", 215));
  }
  OwnedUnit copy = CopyUnit(unit, factory);  // first: it may stand in what is removed
  if (path.empty()) return copy;
  if (root != nullptr) RemoveAtPath(*root, path);
  if (root == nullptr) root = factory.CreateComposite();
  PutUnitInLocationEx walker(root, factory, path);
  WalkPath(path, walker);
  AddProperty(walker.GetCurrent(), walker.GetPendingName(), std::move(copy), factory);
  return root;
}

void WalkPath(const Common::String& path, PathWalker& walker) {
  if (path.empty()) {
    walker.OnEmptyPath();
    return;
  }
  if (path[0] != kPropertySeparator) {
    throw MakeError(kPorInternal, Common::MessageRow::PorPathBeginSymbol, path,
                    kSource.At("WalkPath", 250));
  }
  if (path.size() == 1) {
    throw MakeError(kPorInternal, Common::MessageRow::PorPathEmptyToken, path,
                    kSource.At("WalkPath", 260));
  }
  for (std::size_t begin = 1; begin != 0;) {
    const std::size_t end = path.find(kPropertySeparator, begin);
    if (end + 1 == path.size()) {
      throw MakeError(kPorInternal, Common::MessageRow::PorPathEndSeparator, path,
                      kSource.At("AdvanceAndUnescape", 270));
    }
    walker.OnProperty(Name(UnescapePathToken(path.substr(begin, end - begin))));
    begin = end + 1;  // npos + 1: the end
  }
}

}  // namespace Por::Util
