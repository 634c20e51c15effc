#include "platform/store/operation_applier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>

#include "core/common/error.h"
#include "core/common/number_text.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/por/unit_blob.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/support/text.h"

namespace Platform::Store {

namespace {

// Unit text in short: {} [] composite and array, a= property, @a= trait, #1 number, 'a' text, ~
// nil.
std::string Expand(std::string text) {
  for (const auto& [form, replacement] : {std::pair{"\\{", ".Composite()"},
                                          {"\\[", ".Array()"},
                                          {"[\\]}]", ".End()"},
                                          {"@(\\w+)=", ".Trait(\"$1\")"},
                                          {"(\\w+)=", ".Property(\"$1\")"},
                                          {"#(\\d+)", ".DWord($1).End()"},
                                          {"'([^']*)'", ".String(\"$1\").End()"},
                                          {"~", ".Nil().End()"}}) {
    text = std::regex_replace(text, std::regex(form), replacement);
  }
  return text;
}

// In short: an operation, an object and its key.
std::string Operation(const std::string& name, const std::string& properties) {
  return "{@Is='Dml::Operation::" + name + "'" + properties + "}";
}
std::string Object(int number, const std::string& type, const std::string& more) {
  return MakeObject(number, type, Expand(more));
}
std::string Key(int number) {
  return "Key=.Guid(" + MakeId(number) + ").End()";
}

constexpr char kNotSet[] = ".Nil().Trait(\"Nil\")~.End()";

class StoreOperations : public StoreTest {
 protected:
  // A line for each operation, or the code and the messages of the failure.
  std::string Apply(const std::string& operations) {
    SqliteStoreWriter writer(path_);
    writer.Begin();
    OperationApplier applier(writer, *Por::GetStaticUnitFactory());
    std::string text;
    try {
      applier.Apply(*Parse(Expand(operations)));
    } catch (const Common::Error& error) {
      text = Common::NumberToHex(error.GetCode());
      for (Common::Error link = error; link.IsFailure(); link = link.GetNextError()) {
        text.append("|").append(TestSupport::Utf8(link.GetMessage()));
      }
      return text;
    }
    writer.Commit();
    for (const OperationOutcome& outcome : applier.GetOutcomes()) {
      for (const std::string& word : {outcome.place, outcome.name, outcome.result}) {
        text.append(word).append("|");
      }
      text.append(outcome.object).append("\n");
    }
    return text;
  }
  // What one operation came to, without its object; the code and the last message of a failure.
  std::string ApplyOne(const std::string& name, const std::string& properties) {
    const std::string text = Apply(Operation(name, properties));
    const std::size_t last = text.rfind('|');
    const std::string head = "1|" + name + "|";
    return text.starts_with(head) ? text.substr(head.size(), last - head.size())
                                  : text.substr(0, text.find('|')) + " " + text.substr(last + 1);
  }
  // Whether exactly this is stored.
  bool Holds(const std::string& object) {
    std::vector<unsigned char> bytes, stored;
    Por::Util::WriteUnitBlob(*Parse(object), bytes);
    SqliteStoreWriter writer(path_);
    return writer.Read(Dml::GetKeyGuid(Dml::FindObjectKey(*Parse(object))), stored) &&
           stored == bytes;
  }
  // Kind and number of the object of each change.
  std::string GetChanges() {
    return Query(path_, "SELECT group_concat(kind || substr(hex(id), 1, 2), ' ') FROM changes");
  }
};

TEST_F(StoreOperations, AnObjectThatIsThereAndOneThatIsNot) {
  struct Case {
    std::string name, missing, there, changes;
  };
  const std::string refused = "0xfc0001 The store already holds object " + MakeId(1) + ".";
  for (const Case& c : {Case{"CreateObject", "created", refused, "001 002\n"},
                        {"CreateIfNotExist", "created", "exists", "001 002\n"},
                        {"StoreOrUpdate", "created", "updated", "001 002 101\n"},
                        {"StoreOrConsolidate", "created", "consolidated", "001 002 101\n"},
                        {"ConsolidateIfExists", "absent", "consolidated", "001 101\n"}}) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(path_);
    Store({Object(1, "A", "X=#1 Y=#1")});
    const auto apply = [&](int number) {
      return ApplyOne(c.name, "Object=" + Object(number, "A", "X=#2"));
    };
    EXPECT_EQ(apply(2), c.missing);
    EXPECT_EQ(Holds(Object(2, "A", "X=#2")), c.missing == "created");
    EXPECT_EQ(apply(1), c.there);
    const bool changes = c.there.ends_with("ated");
    EXPECT_TRUE(Holds(Object(1, "A", changes ? "X=#2 Y=#1" : "X=#1 Y=#1")));
    EXPECT_EQ(apply(1), changes ? "unchanged" : c.there);
    EXPECT_EQ(GetChanges(), c.changes);
  }
}

TEST_F(StoreOperations, AnUpdateFitsTheObjectAndLeavesItsKey) {
  const std::string object = Expand("{Key={@PrimaryKey=~DmlTimeStamp=#5 ID=#7} X=#1}");
  Store({object});
  // The key as a copy of what marks it in the object, whose time stamp doesn't count.
  const std::string key = "Key={@PrimaryKey=~ID=#7}";
  const auto patch = [&](const std::string& content) {
    return ApplyOne("UpdateObject", key + "Patch={" + content + "}");
  };
  EXPECT_EQ(patch("Y=#1"), "0xfa0010 POR: Cannot assign units with different properties.");
  EXPECT_EQ(patch("Key={ID=#8}"), "0xfc0001 It would get another key.");
  EXPECT_TRUE(Holds(object));
  EXPECT_EQ(patch("Key={DmlTimeStamp=#6} X=#2"), "updated");
  EXPECT_TRUE(Holds(Expand("{Key={@PrimaryKey=~DmlTimeStamp=#6 ID=#7} X=#2}")));
  EXPECT_EQ(patch("X=#2"), "unchanged");

  const std::string none = "0xfc0001 The store holds no object " + MakeId(9) + ".";
  EXPECT_EQ(ApplyOne("UpdateObject", Key(9) + "Patch={}"), none);
  EXPECT_EQ(ApplyOne("DeleteObject", Key(9)), none);
  EXPECT_EQ(ApplyOne("DeleteObject", key), "deleted");
  EXPECT_EQ(Query(path_, "SELECT count(*) FROM objects"), "0\n");
}

TEST_F(StoreOperations, PatternsMeetWhatTheOperationsBeforeThemLeft) {
  Store({MakeObject(1, "A"), Object(2, "B", "X=#1"), Object(3, "B", "X=#5")});
  const std::string b = "Pattern={@Is='B'}", all = "Pattern=~", x5 = "Patch={X=#5}";
  const std::string update = Operation("UpdateByPattern", b + x5);
  EXPECT_EQ(Apply("[" + Operation("CreateObject", "Object=" + Object(4, "B", "X=#1")) + update +
                  update + "]"),
            "1|CreateObject|created|" + MakeId(4) +
                "\n2|UpdateByPattern|2 updated, 1 unchanged|\n"
                "3|UpdateByPattern|0 updated, 3 unchanged|\n");
  EXPECT_EQ(GetChanges(), "001 002 003 004 102 104\n");
  // A patch must fit all that match.
  EXPECT_EQ(Apply(Operation("UpdateByPattern", all + x5)),
            "0xfa0010|Operation 1 (UpdateByPattern) has failed.|Object " + MakeId(1) +
                " can't be changed.|POR: Cannot assign units with different properties.");

  const auto remove = [&](const std::string& options) {
    return ApplyOne("DeleteByPattern", b + "Options=" + options);
  };
  EXPECT_EQ(remove("{LimitOption=#1}"),
            "0xfc0001 The property \"Options\" can't have a property \"LimitOption\".");
  EXPECT_EQ(remove("{LimitOptions=#0}"), "0 deleted");
  EXPECT_EQ(remove("{LimitOptions=#2}"), "2 deleted");
  EXPECT_EQ(remove(kNotSet), "1 deleted");
  EXPECT_EQ(ApplyOne("DeleteByPattern", all), "1 deleted");
  EXPECT_EQ(GetChanges(), "001 002 003 004 102 104 202 203 204 201\n");
}

TEST_F(StoreOperations, BatchesNestAndAFailureInThemLeavesEverythingAsItWas) {
  Store({MakeObject(1, "A")});
  const std::string create = Operation("CreateObject", "Object=" + MakeObject(2, "A"));
  const std::string remove = Operation("DeleteObject", Key(1));
  const auto batch = [](const std::string& operations) {
    return Operation("BatchOperation", "Operations=[" + operations + "]");
  };
  EXPECT_EQ(Apply("[" + batch("") + batch(create + remove + remove) + "]"),
            "0xfc0001|Operation 2.3 (DeleteObject) has failed.|The store holds no object " +
                MakeId(1) + ".");
  EXPECT_EQ(GetChanges(), "001\n");
  EXPECT_EQ(Apply(batch(remove + create)),
            "1|BatchOperation|2 operations|\n1.1|DeleteObject|deleted|" + MakeId(1) +
                "\n1.2|CreateObject|created|" + MakeId(2) + "\n");
  std::string nested;
  for (int i = 0; i < 400; ++i) nested = batch(nested);
  const std::string text = Apply(nested);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 400);
}

TEST_F(StoreOperations, WhatIsNoWholeOperationIsRefused) {
  Store({MakeObject(1, "A")});
  EXPECT_EQ(Apply("{@Is='Task'}"),
            "0xfc0001|Operation 1 has failed.|No trait \"Is\" names an operation.");
  EXPECT_EQ(Apply(".Nil()@Is='Dml::Operation::DeleteObject'.End()"),
            "0xfc0001|Operation 1 (DeleteObject) has failed.|The operation must be a composite.");
  EXPECT_EQ(ApplyOne("Explode", Key(1)),
            "0xfc0001 There is no operation \"Dml::Operation::Explode\".");
  EXPECT_EQ(ApplyOne("DeleteObject", "@Is='Dml::Operation::CreateObject'" + Key(1)),
            "0xfc0001 The traits \"Is\" name more than one operation.");
  EXPECT_EQ(ApplyOne("DeleteObject", Key(1) + "Kee=#1"),
            "0xfc0001 The operation can't have a property \"Kee\".");
  EXPECT_EQ(ApplyOne("UpdateObject", Key(1)), "0xfc0031 DML: Unproper use. Missing Patch.");
  EXPECT_EQ(ApplyOne("DeleteByPattern", std::string("Pattern=") + kNotSet),
            "0xfc0031 DML: Unproper use. Missing Pattern.");
  EXPECT_EQ(ApplyOne("CreateObject", "Object={}"),
            "0xfc000a DML: Object identification cannot be found.");
  EXPECT_EQ(ApplyOne("BatchOperation", "Operations=#1").substr(0, 8), "0xfa000a");
  EXPECT_EQ(GetChanges(), "001\n");
}

TEST_F(StoreOperations, ConsolidationKeepsWhatOnlyOneSideKnows) {
  const std::string one = ".DWord(1)@Old=~.End()", not_set = kNotSet;
  Store({Object(1, "A",
                "Both={L=#1 M=#1} Kind=" + one + "List=[#1#2] Nil1=" + one + "Nil2=" + not_set)});
  const std::string given =
      "Both={M=#2 R=#2} Kind=.QWord(2)@New=~.End() List=[#3] Nil1=" + not_set + "Nil2=#2";
  EXPECT_EQ(ApplyOne("ConsolidateIfExists", "Object=" + Object(1, "B", given)), "consolidated");
  EXPECT_TRUE(Holds(Object(1, "A",
                           "@Is='B' Both={L=#1 M=#2 R=#2} Kind=.QWord(2)@New=~@Old=~.End()"
                           "List=[#3] Nil1=" +
                               one + "Nil2=#2")));
  // The index follows the traits.
  EXPECT_EQ(Match(Expand("{@Is='B'}")), (std::vector<unsigned int>{1}));
}

// The time stamp is no part of the identification: both are the same key.
TEST_F(StoreOperations, ConsolidationLeavesOneKey) {
  for (const std::string& form : {std::string("{@PrimaryKey={DmlTimeStamp=# ID=#7} X=# L=[]}"),
                                  std::string("[@PrimaryKey={DmlTimeStamp=# ID=#7} #]")}) {
    const auto make = [&](const std::string& number) {
      return Expand(std::regex_replace(form, std::regex("#( |\\])"), "#" + number + "$1"));
    };
    std::filesystem::remove(path_);
    Store({make("5")});
    EXPECT_EQ(ApplyOne("StoreOrConsolidate", "Object=" + make("6")), "consolidated") << form;
    EXPECT_TRUE(Holds(make("6"))) << form;
    EXPECT_EQ(ApplyOne("StoreOrConsolidate", "Object=" + make("6")), "unchanged") << form;
  }
}

TEST_F(StoreOperations, AnObjectThatCannotBeDecodedMatchesNothingAndIsNotChanged) {
  Store({MakeObject(1, "B"), MakeObject(2, "B")});
  Execute(path_, "UPDATE objects SET data = x'FF' WHERE seq = 1");
  EXPECT_EQ(ApplyOne("UpdateByPattern", "Pattern={@Is='B'} Patch={N=#2}"),
            "0 updated, 1 unchanged");
  EXPECT_EQ(ApplyOne("UpdateObject", Key(1) + "Patch={}").substr(0, 8), "0xfa0021");
  EXPECT_EQ(ApplyOne("DeleteByPattern", "Pattern=~"), "1 deleted");
  EXPECT_EQ(ApplyOne("DeleteObject", Key(1)), "deleted");
}

}  // namespace

}  // namespace Platform::Store
