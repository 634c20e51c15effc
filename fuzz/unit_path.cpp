// Paths, one a line, 32 of them at most, used one after the other on the same tree. An escaped
// token comes back, and a joined path splits and walks into what it was joined of. Looking is the
// same from the reading and the changing side of a unit. A unit that was put at a place is there
// until it is removed.

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_path.h"
#include "fuzz/fuzz_units.h"
#include "tests/enterprise/common/por/make_unit.h"

using namespace Por;
using namespace Por::Test;  // NOLINT: the makers of units
using Common::String;

namespace {

bool Contains(const String& text, std::u16string_view part) {
  return text.find(part) != String::npos;
}

bool IsSeparator(char16_t c) {
  return c == u'.' || c == u'^';
}

std::shared_ptr<Construction::Unit> MakeTree() {
  OwnedUnit tree = Composite(
      "a", Composite("b", Composite("c", DWord(5), "a.b", Nil()), "x^y", Text(u"")), "Runs",
      Array(With(Byte(1), "Kind", Text(u"Task")), Array(Composite("a", Nil())), Nil()), "&d;",
      With(With(Nil(), "Twice", Byte(1)), "Twice", Byte(2)), "", Boolean(true));
  return With(std::move(tree), "Kind", Composite("a", Array(Nil())));
}

struct Collector final : Util::PathWalker {
  std::vector<Name> names;
  void OnProperty(const Name& name) override { names.push_back(name); }
  void OnTrait(const Name&) override { Fuzz::Require(false, "a walk gives no traits"); }
  void OnEmptyPath() override { Fuzz::Require(names.empty(), "an empty path has no tokens"); }
};

// The outcome of a call that gives nothing: "" or its error.
template <class Call>
std::string OutcomeOf(Call call) {
  return Fuzz::Outcome([&] {
    call();
    return OwnedUnit();
  });
}

String Join(const std::vector<Name>& names) {
  String path;
  for (const Name& name : names) path = Util::JoinPath(path, name);
  return path;
}

// As the token of a name, and as a path in front of one.
void TryToken(const String& text) {
  const Name name(text);
  const bool has_escapes = Contains(text, u"&d;") || Contains(text, u"&r;");
  if (!has_escapes) {
    const String escaped = Util::EscapePathToken(text);
    Fuzz::Require(std::none_of(escaped.begin(), escaped.end(), IsSeparator),
                  "an escaped token has no separators");
    Fuzz::Require(Util::UnescapePathToken(escaped) == text, "an escaped token comes back");
  }
  // Two separators in a row are no boundary, and one at the end is part of the token.
  const String fronts[] = {u"", u".a^b", text};
  for (const String& front : fronts) {
    if (has_escapes || name.IsEmpty() || (!front.empty() && front.back() == u'.')) continue;
    String path = Util::JoinPath(front, name);
    bool is_trait = true;
    Fuzz::Require(Util::SplitLastToken(path, &is_trait) == name && !is_trait,
                  "the name that was joined is split off");
    Fuzz::Require(path == front, "the path in front of it is left");
  }
}

// The path to walk, and whether its tokens are names that resolving sees in the same way.
bool TryWalk(const String& path) {
  Collector walked;
  if (OutcomeOf([&] { Util::WalkPath(path, walked); }) != "") return false;
  if (walked.names.empty() || walked.names.back().IsEmpty()) return false;
  Collector again;
  Util::WalkPath(Join(walked.names), again);
  Fuzz::Require(again.names == walked.names, "a path that is joined of its tokens walks alike");
  return !Contains(path, u"^") && std::none_of(walked.names.begin(), walked.names.end(),
                                               [](const Name& name) { return name.IsEmpty(); });
}

void TryResolve(const String& path, Construction::Unit& tree) {
  const std::string seen = Fuzz::Outcome([&] { return Util::ResolveViewUnit(path, &tree); });
  if (!Contains(path, u"^")) {
    Fuzz::RequireEqual(Fuzz::Outcome([&] { return Util::ResolveUnit(path, &tree); }), seen,
                       "both faces of a unit resolve alike");
    if (!path.empty() && !IsSeparator(path[0])) {
      Fuzz::RequireEqual(Fuzz::Outcome([&] { return Util::ResolveViewUnit(u"." + path, &tree); }),
                         seen, "the first separator may be left out");
    }
  }
  const std::string exists = OutcomeOf([&] {
    Fuzz::Require(Util::PathExists(path, &tree) == !seen.empty(), "what resolves exists");
  });
  Fuzz::Require(exists.empty() || exists == seen, "asking fails as resolving does");
}

void TryChanges(const String& path, bool is_plain, std::shared_ptr<Construction::Unit>& tree) {
  static const OwnedUnit kValue = With(Text(u"put"), "Kind", Nil());
  const std::string before = Fuzz::ToBytes(tree.get());
  std::shared_ptr<Construction::Unit> changed = Util::CopyUnit(*tree, Factory());
  const bool is_there = OutcomeOf([&] {
                          changed = Util::PutUnitInLocation(changed, *kValue, path, Factory());
                        }) == "";
  Fuzz::ToBytes(changed.get());  // whatever became of it, it is a unit
  if (is_there && is_plain) {
    const std::string value = Fuzz::ToBytes(kValue.get());
    Fuzz::RequireEqual(Fuzz::ToBytes(Util::ResolveUnit(path, changed.get())), value,
                       "what was put at a place is there");
    Util::RemoveAtPath(*changed, path);
    Fuzz::Require(!Util::PathExists(path, changed.get()), "what was removed is gone");
    Util::PutUnitInLocation(changed, *kValue, path, Factory());
  }
  Fuzz::RequireEqual(Fuzz::ToBytes(tree.get()), before, "a copy stands by itself");
  if (OutcomeOf([&] { Util::RemoveAtPath(*tree, path); }) != "") {
    Fuzz::RequireEqual(Fuzz::ToBytes(tree.get()), before, "a refused removal changes nothing");
  }
  if (is_there) tree = changed;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::shared_ptr<Construction::Unit> tree = MakeTree();
  for (int left = 32; left > 0; --left) {
    const std::size_t end = input.find('\n');
    const std::string line(input.substr(0, end));
    const String path = Common::Utf8ToString(line.c_str());
    TryToken(path);
    const bool is_plain = TryWalk(path);
    TryResolve(path, *tree);
    TryChanges(path, is_plain, tree);
    if (end == input.npos) break;
    input.remove_prefix(end + 1);
  }
  return 0;
}
