#include "platform/store/operation_applier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/por/unit_blob.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/support/text.h"

namespace Platform::Store {

namespace {

std::string Property(const std::string& name, const std::string& value) {
  return ".Property(\"" + name + "\")" + value;
}

std::string Number(int value) {
  return ".DWord(" + std::to_string(value) + ").End()";
}

std::string Composite(const std::string& content) {
  return ".Composite()" + content + ".End()";
}

// An operation of a class with its properties.
std::string Operation(const std::string& name, const std::string& properties) {
  return Composite(".Trait(\"Is\").String(\"Dml::Operation::" + name + "\").End()" + properties);
}

// A batch, or a file, of operations.
std::string Array(const std::vector<std::string>& elements) {
  std::string text = ".Array()";
  for (const std::string& element : elements) text += element;
  return text + ".End()";
}

std::string Key(int number) {
  return Property("Key", ".Guid(" + MakeId(number) + ").End()");
}

const std::string kLikeB = Property("Pattern", Composite(".Trait(\"Is\").String(\"B\").End()"));

class StoreOperations : public StoreTest {
 protected:
  // A line for each operation, or the code and the messages of the failure.
  std::string Apply(const std::string& operations) {
    SqliteStoreWriter writer(path_);
    writer.Begin();
    OperationApplier applier(writer, *Por::GetStaticUnitFactory());
    std::string text;
    try {
      applier.Apply(*Parse(operations));
    } catch (const Common::Error& error) {
      text = std::to_string(error.GetCode());
      for (Common::Error link = error; link.IsFailure(); link = link.GetNextError()) {
        text.append("|").append(TestSupport::Utf8(link.GetMessage()));
      }
      return text;
    }
    writer.Commit();
    for (const OperationOutcome& outcome : applier.GetOutcomes()) {
      text += outcome.place + "|" + outcome.name + "|" + outcome.result + "|" + outcome.object;
      text += "\n";
    }
    return text;
  }
  // What one operation came to, without its object.
  std::string ApplyOne(const std::string& name, const std::string& properties) {
    const std::string text = Apply(Operation(name, properties));
    const std::string head = "1|" + name + "|";
    return text.starts_with(head) ? text.substr(head.size(), text.rfind('|') - head.size()) : text;
  }
  std::string Refused(const std::string& name, int code, const std::string& reasons) {
    return std::to_string(code) + "|Operation 1 (" + name + ") has failed.|" + reasons;
  }
  bool Holds(const std::string& object) {
    const Por::OwnedUnit unit = Parse(object);
    std::vector<unsigned char> bytes;
    Por::Util::WriteUnitBlob(*unit, bytes);
    std::string hex;
    for (const unsigned char byte : bytes) {
      hex += "0123456789ABCDEF"[byte >> 4];
      hex += "0123456789ABCDEF"[byte & 15];
    }
    return Query(path_, "SELECT count(*) FROM objects WHERE data = x'" + hex + "'") == "1\n";
  }
  // Kind and number of the object of each change.
  std::string GetChanges() {
    return Query(path_, "SELECT group_concat(kind || substr(hex(id), 1, 2), ' ') FROM changes");
  }
};

TEST_F(StoreOperations, AnObjectThatIsThereAndOneThatIsNot) {
  struct Case {
    std::string name;
    std::string missing;
    std::string there;  // empty for a refusal
    std::string changes;
  };
  const std::string x1 = Property("X", Number(1)), x2 = Property("X", Number(2)),
                    y = Property("Y", Number(1));
  for (const Case& c : {Case{"CreateObject", "created", "", "001 002\n"},
                        {"CreateIfNotExist", "created", "exists", "001 002\n"},
                        {"StoreOrUpdate", "created", "updated", "001 002 101\n"},
                        {"StoreOrConsolidate", "created", "consolidated", "001 002 101\n"},
                        {"ConsolidateIfExists", "absent", "consolidated", "001 101\n"}}) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(path_);
    Store({MakeObject(1, "A", x1 + y)});
    const auto apply = [&](int number) {
      return ApplyOne(c.name, Property("Object", MakeObject(number, "A", x2)));
    };
    EXPECT_EQ(apply(2), c.missing);
    EXPECT_EQ(Holds(MakeObject(2, "A", x2)), c.missing == "created");
    EXPECT_EQ(apply(1),
              !c.there.empty()
                  ? c.there
                  : Refused(c.name, 0xFC0001, "The store already holds object " + MakeId(1) + "."));
    const bool changes = c.there == "updated" || c.there == "consolidated";
    EXPECT_TRUE(Holds(MakeObject(1, "A", (changes ? x2 : x1) + y)));
    if (changes) {
      EXPECT_EQ(apply(1), "unchanged");
    }
    EXPECT_EQ(GetChanges(), c.changes);
  }
}

TEST_F(StoreOperations, AnUpdateFitsTheObjectAndLeavesItsKey) {
  const auto keyed = [](const std::string& stamp, int id_number, const std::string& more) {
    return Composite(Property("Key", Composite(".Trait(\"PrimaryKey\").Nil().End()" +
                                               Property("DmlTimeStamp", stamp) +
                                               Property("ID", Number(id_number)))) +
                     more);
  };
  const std::string object = keyed(Number(5), 7, Property("X", Number(1)));
  Store({object});
  // The key as a copy of what marks it in the object; its time stamp doesn't count.
  const std::string key =
      Property("Key", Composite(".Trait(\"PrimaryKey\").Nil().End()" + Property("ID", Number(7))));
  const auto patch = [&](const std::string& content) {
    return ApplyOne("UpdateObject", key + Property("Patch", Composite(content)));
  };
  const std::string head =
      "Object " + TestSupport::Utf8(Dml::GetObjectKey(*Parse(object))) + " can't be changed.|";
  EXPECT_EQ(patch(Property("Y", Number(1))),
            Refused("UpdateObject", 0xFA0010,
                    head + "POR: Cannot assign units with different properties."));
  EXPECT_EQ(
      patch(Property("X", ".QWord(1).End()")),
      Refused("UpdateObject", 0xFA0011, head + "POR: Cannot assign units of different types."));
  EXPECT_EQ(patch(Property("Key", Composite(Property("ID", Number(8))))),
            Refused("UpdateObject", 0xFC0001, head + "It would get another key."));
  EXPECT_TRUE(Holds(object));
  EXPECT_EQ(patch(Property("Key", Composite(Property("DmlTimeStamp", Number(6)))) +
                  Property("X", Number(2))),
            "updated");
  EXPECT_TRUE(Holds(keyed(Number(6), 7, Property("X", Number(2)))));
  EXPECT_EQ(patch(Property("X", Number(2))), "unchanged");

  const std::string none = "The store holds no object " + MakeId(9) + ".";
  EXPECT_EQ(ApplyOne("UpdateObject", Key(9) + Property("Patch", Composite(""))),
            Refused("UpdateObject", 0xFC0001, none));
  EXPECT_EQ(ApplyOne("DeleteObject", Key(9)), Refused("DeleteObject", 0xFC0001, none));
  EXPECT_EQ(ApplyOne("DeleteObject", key), "deleted");
  EXPECT_EQ(Query(path_, "SELECT count(*) FROM objects"), "0\n");
}

TEST_F(StoreOperations, PatternsMeetWhatTheOperationsBeforeThemLeft) {
  Store({MakeObject(1, "A"), MakeObject(2, "B", Property("X", Number(1))),
         MakeObject(3, "B", Property("X", Number(5)))});
  const std::string x5 = Property("Patch", Composite(Property("X", Number(5))));
  EXPECT_EQ(
      Apply(Array({Operation("CreateObject",
                             Property("Object", MakeObject(4, "B", Property("X", Number(1))))),
                   Operation("UpdateByPattern", kLikeB + x5),
                   Operation("UpdateByPattern", kLikeB + x5)})),
      "1|CreateObject|created|" + MakeId(4) +
          "\n2|UpdateByPattern|2 updated, 1 unchanged|\n"
          "3|UpdateByPattern|0 updated, 3 unchanged|\n");
  EXPECT_TRUE(Holds(MakeObject(2, "B", Property("X", Number(5)))));
  EXPECT_EQ(GetChanges(), "001 002 003 004 102 104\n");

  // A patch must fit all that match.
  EXPECT_EQ(ApplyOne("UpdateByPattern", Property("Pattern", ".Nil().End()") + x5),
            Refused("UpdateByPattern", 0xFA0010,
                    "Object " + MakeId(1) +
                        " can't be changed.|POR: Cannot assign units with different properties."));

  const auto remove = [&](const std::string& options) {
    return ApplyOne("DeleteByPattern", kLikeB + Property("Options", options));
  };
  EXPECT_EQ(remove(Composite(Property("LimitOption", Number(1)))),
            Refused("DeleteByPattern", 0xFC0001,
                    "The property \"Options\" can't have a property \"LimitOption\"."));
  EXPECT_EQ(remove(Composite(Property("LimitOptions", Number(0)))), "0 deleted");
  EXPECT_EQ(remove(Composite(Property("LimitOptions", Number(2)))), "2 deleted");
  EXPECT_EQ(Match(""), (std::vector<unsigned int>{1, 4}));
  EXPECT_EQ(remove(".Nil().Trait(\"Nil\").Nil().End().End()"), "1 deleted");
  EXPECT_EQ(ApplyOne("DeleteByPattern", Property("Pattern", ".Nil().End()")), "1 deleted");
  EXPECT_EQ(GetChanges(), "001 002 003 004 102 104 202 203 204 201\n");
}

TEST_F(StoreOperations, AFailureAnywhereLeavesEverythingAsItWas) {
  Store({MakeObject(1, "A")});
  const std::string create = Operation("CreateObject", Property("Object", MakeObject(2, "A")));
  const std::string remove = Operation("DeleteObject", Key(1));
  const std::string batch =
      Operation("BatchOperation", Property("Operations", Array({create, remove, remove})));
  EXPECT_EQ(Apply(Array({Operation("BatchOperation", Property("Operations", Array({}))), batch})),
            std::to_string(0xFC0001) +
                "|Operation 2.3 (DeleteObject) has failed.|The store holds no object " + MakeId(1) +
                ".");
  EXPECT_TRUE(Holds(MakeObject(1, "A")));
  EXPECT_EQ(GetChanges(), "001\n");
  EXPECT_EQ(Apply(Operation("BatchOperation", Property("Operations", Array({remove, create})))),
            "1|BatchOperation|2 operations|\n1.1|DeleteObject|deleted|" + MakeId(1) +
                "\n1.2|CreateObject|created|" + MakeId(2) + "\n");

  std::string nested = Array({});
  for (int i = 0; i < 400; ++i) {
    nested = Array({Operation("BatchOperation", Property("Operations", nested))});
  }
  const std::string text = Apply(nested);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 400);
}

TEST_F(StoreOperations, WhatIsNoWholeOperationIsRefused) {
  Store({MakeObject(1, "A")});
  const auto refused = [](int code, const std::string& reasons) {
    return std::to_string(code) + "|Operation 1 has failed.|" + reasons;
  };
  EXPECT_EQ(Apply(MakeObject(2, "Task")), refused(0xFC0001, "No trait \"Is\" names an operation."));
  EXPECT_EQ(Apply(Operation("Definition", "")),
            refused(0xFC0001, "No trait \"Is\" names an operation."));
  EXPECT_EQ(Apply(Operation("Explode", Key(1))),
            refused(0xFC0001, "There is no operation \"Dml::Operation::Explode\"."));
  EXPECT_EQ(Apply(Operation("DeleteObject",
                            ".Trait(\"Is\").String(\"Dml::Operation::CreateObject\").End()")),
            refused(0xFC0001, "The traits \"Is\" name more than one operation."));
  EXPECT_EQ(Apply(".Nil().Trait(\"Is\").String(\"Dml::Operation::DeleteObject\").End().End()"),
            Refused("DeleteObject", 0xFC0001, "The operation must be a composite."));
  EXPECT_EQ(ApplyOne("DeleteObject", Property("Kee", Number(1)) + Key(1)),
            Refused("DeleteObject", 0xFC0001, "The operation can't have a property \"Kee\"."));
  EXPECT_EQ(ApplyOne("UpdateObject", Key(1)),
            Refused("UpdateObject", 0xFC0031, "DML: Unproper use. Missing Patch."));
  EXPECT_EQ(
      ApplyOne("DeleteByPattern", Property("Pattern", ".Nil().Trait(\"Nil\").Nil().End().End()")),
      Refused("DeleteByPattern", 0xFC0031, "DML: Unproper use. Missing Pattern."));
  EXPECT_EQ(ApplyOne("CreateObject", Property("Object", Composite(""))),
            Refused("CreateObject", 0xFC000A, "DML: Object identification cannot be found."));
  EXPECT_EQ(ApplyOne("BatchOperation", Property("Operations", Number(1))),
            Refused("BatchOperation", 0xFA000A,
                    "POR: There is a mismatch in object property 'Operations'. Expected property "
                    "type is 'array', actual property type is 'dword'."));
  EXPECT_TRUE(Holds(MakeObject(1, "A")));
}

TEST_F(StoreOperations, ConsolidationKeepsWhatOnlyOneSideKnows) {
  const auto marked = [](const std::string& value, const std::string& mark) {
    return value + ".Trait(\"" + mark + "\").Nil().End().End()";
  };
  Store(
      {MakeObject(1, "A",
                  Property("Both", Composite(Property("L", Number(1)) + Property("M", Number(1)))) +
                      Property("Kind", marked(".DWord(1)", "Old")) +
                      Property("List", Array({Number(1), Number(2)})) +
                      Property("NilGiven", marked(".DWord(1)", "Old")) +
                      Property("NilStored", marked(".Nil()", "Nil")))});
  EXPECT_EQ(
      ApplyOne("ConsolidateIfExists",
               Property("Object", MakeObject(1, "B",
                                             Property("Both", Composite(Property("M", Number(2)) +
                                                                        Property("R", Number(2)))) +
                                                 Property("Kind", marked(".QWord(2)", "New")) +
                                                 Property("List", Array({Number(3)})) +
                                                 Property("NilGiven", marked(".Nil()", "Nil")) +
                                                 Property("NilStored", Number(2))))),
      "consolidated");
  EXPECT_TRUE(Holds(MakeObject(
      1, "A",
      ".Trait(\"Is\").String(\"B\").End()" +
          Property("Both", Composite(Property("L", Number(1)) + Property("M", Number(2)) +
                                     Property("R", Number(2)))) +
          Property("Kind", marked(".QWord(2).Trait(\"New\").Nil().End()", "Old")) +
          Property("List", Array({Number(3)})) + Property("NilGiven", marked(".DWord(1)", "Old")) +
          Property("NilStored", Number(2)))));
  // The index follows the traits.
  EXPECT_EQ(Match(".Composite().Trait(\"Is\").String(\"B\").End().End()"),
            (std::vector<unsigned int>{1}));
}

TEST_F(StoreOperations, AnObjectThatCannotBeDecodedMatchesNothingAndIsNotChanged) {
  Store({MakeObject(1, "B"), MakeObject(2, "B")});
  Execute(path_, "UPDATE objects SET data = x'FF' WHERE seq = 1");
  const std::string patch = Property("Patch", Composite(Property("N", Number(2))));
  EXPECT_EQ(ApplyOne("UpdateByPattern", kLikeB + patch), "0 updated, 1 unchanged");
  EXPECT_TRUE(ApplyOne("UpdateObject", Key(1) + patch)
                  .starts_with(Refused("UpdateObject", 0xFA0021,
                                       "Object " + MakeId(1) + " can't be changed.|POR: Unit")));
  EXPECT_EQ(ApplyOne("DeleteByPattern", kLikeB), "1 deleted");
  EXPECT_EQ(ApplyOne("DeleteObject", Key(1)), "deleted");
}

}  // namespace

}  // namespace Platform::Store
