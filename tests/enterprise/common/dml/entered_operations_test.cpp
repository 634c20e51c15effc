#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "enterprise/common/por/construction_dynamic_context.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/support/text.h"

// The operations of a program that is linked as the tool is and names none of them.

namespace Por {
namespace {

// Before main, perhaps before the operations.
void DefineEarly(const Util::UnitConstructor& make) {
  make.DWord(1).End();
}
void DefineLate(const Util::UnitConstructor& make) {
  make.DWord(2).End();
}
[[maybe_unused]] const bool early = [] {
  ConstructionDynamicContext::Get().Enter(u"Early", &DefineEarly);
  return true;
}();

OwnedUnit Parse(const std::string& text) {
  Utils::InMemoryDataReader reader(Common::Utf8ToString(text.c_str()));
  Utils::UnitConstructionFormat format;
  format.SetTrace(false);
  return format.Read(reader, *GetStaticUnitFactory());
}

// In the context's order.
std::vector<std::string> GetNames(bool operations) {
  std::vector<std::string> names;
  for (const auto& [name, definition] : ConstructionDynamicContext::Get().GetEntries()) {
    if (name.starts_with(u"Dml::") == operations) names.push_back(TestSupport::Utf8(name));
  }
  return names;
}

TEST(EnteredOperations, AreAllThereWithTheirPrototypes) {
  const std::map<std::string, std::vector<std::string>> properties = {
      {"BatchOperation", {}},
      {"ConsolidateIfExists", {"Object"}},
      {"CreateIfNotExist", {"Object"}},
      {"CreateObject", {"Object"}},
      {"Definition", {}},
      {"DeleteByPattern", {"Pattern", "Options"}},
      {"DeleteObject", {"Key"}},
      {"StoreOrConsolidate", {"Object"}},
      {"StoreOrUpdate", {"Object"}},
      {"UpdateByPattern", {"Pattern", "Patch"}},
      {"UpdateObject", {"Key", "Patch"}}};
  std::vector<std::string> names;
  for (const auto& [name, own] : properties) {
    names.push_back("Dml::Operation::" + name);
    std::string expected =
        ".Composite().Trait(\"Is\").String(\"Dml::Operation::Definition\").End()"
        ".Property(\"ID\").Guid(00000000-0000-0000-0000-000000000000)"
        ".Trait(\"Nil\").Nil().End().Trait(\"PrimaryKey\").Nil().End().End()";
    if (name != "Definition") expected += ".Trait(\"Is\").String(\"" + names.back() + "\").End()";
    for (const std::string& property : own) {
      expected += ".Property(\"" + property + "\").Nil().Trait(\"Nil\").Nil().End().End()";
    }
    if (name == "BatchOperation") expected += ".Property(\"Operations\").Array().End()";
    const PrototypeDefinition definition =
        ConstructionDynamicContext::Get().Find(Common::Utf8ToString(names.back().c_str()));
    ASSERT_NE(definition, nullptr) << name;
    EXPECT_TRUE(Util::UnitEqual(*MakePrototype(definition, *GetStaticUnitFactory()),
                                *Parse(expected + ".End()")))
        << name;
  }
  EXPECT_EQ(GetNames(true), names);
}

TEST(EnteredOperations, AreOrderedByCharactersAndReplacedByName) {
  ConstructionDynamicContext& context = ConstructionDynamicContext::Get();
  for (const char16_t* name : {u"\uFFEE", u"\U0001F600", u"Early", u"EarlyOn", u"early"}) {
    context.Enter(name, &DefineLate);
  }
  EXPECT_EQ(GetNames(false),
            (std::vector<std::string>{"Early", "EarlyOn", "early", "\U0001F600", "\uFFEE"}));
  EXPECT_EQ(context.Find(u"Early"), &DefineLate);
  EXPECT_EQ(context.Find(u"Earl"), nullptr);
}

}  // namespace
}  // namespace Por
