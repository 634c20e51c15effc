#include "enterprise/common/dml/reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "core/common/error.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_handle.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_value_access.h"

namespace Dml {
namespace {

const Por::Construction::UnitFactory& factory = *Por::GetStaticUnitFactory();

std::string Number(const Por::View::Unit& unit) {
  return std::to_string(Por::Util::GetValue<unsigned int>(unit));
}

// A composite with the numbers a = 1 and b = 2.
std::shared_ptr<Por::Construction::Unit> MakeTree() {
  Por::OwnedUnit tree = factory.CreateComposite();
  Por::Util::AddProperty(*tree, "a", factory.CreateDWord(1), factory);
  Por::Util::AddProperty(*tree, "b", factory.CreateDWord(2), factory);
  return tree;
}

// Lets go of the place that it reads before it looks at the unit.
class DroppingReader final : public ReportReader {
 public:
  using ReportReader::Read;
  void Read(const Por::View::Unit& object) override {
    place.reset();
    EXPECT_FALSE(root.expired());
    read += Number(object);
  }

  std::optional<Por::ConstUnit> place;
  std::weak_ptr<const Por::View::Unit> root;
  std::string read;
};

class ChangeReader final : public SubscriptionReader {
 public:
  using SubscriptionReader::OnCreated;
  using SubscriptionReader::OnDeleted;
  using SubscriptionReader::OnUpdated;
  void OnCreated(const Por::View::Unit& object) override {
    read.append("+").append(Number(object));
  }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    read.append("*").append(Number(key)).append(Number(diff));
  }
  void OnDeleted(const Por::View::Unit& key) override { read.append("-").append(Number(key)); }

  std::string read;
};

TEST(Reader, KeepsTheTreeOfAPlaceWhileItReads) {
  DroppingReader reader;
  {
    const Por::SharedUnit tree = MakeTree();
    reader.root = tree;
    reader.place = Por::ConstUnit(tree, factory)["b"];
  }
  reader.Read(*reader.place);
  EXPECT_EQ(reader.read, "2");
  EXPECT_TRUE(reader.root.expired());
}

TEST(Reader, TakesPlacesForEachKindOfEvent) {
  const Por::ConstUnit root(MakeTree(), factory);
  ChangeReader reader;
  reader.OnCreated(root["a"]);
  reader.OnUpdated(root["a"], root["b"]);
  reader.OnDeleted(root["b"]);
  EXPECT_EQ(reader.read, "+1*12-2");
}

TEST(Reader, APlaceWithNothingIsAnError) {
  const Por::ConstUnit root(MakeTree(), factory);
  DroppingReader reports;
  ChangeReader changes;
  const auto expect_error = [](auto call) {
    try {
      call();
      ADD_FAILURE();
    } catch (const Common::Error& error) {
      EXPECT_EQ(error.GetCode(), 0xFA0001u);
      EXPECT_EQ(error.GetLineTag().line, 89u);
    }
  };
  expect_error([&] { reports.Read(root["c"]); });
  expect_error([&] { reports.Read(Por::ConstUnit(nullptr, factory)); });
  expect_error([&] { changes.OnCreated(root["c"]); });
  expect_error([&] { changes.OnUpdated(root["c"], root["b"]); });
  expect_error([&] { changes.OnUpdated(root["a"], root["c"]); });
  expect_error([&] { changes.OnDeleted(root["a"]["c"]); });
  EXPECT_EQ(reports.read + changes.read, "");
}

}  // namespace
}  // namespace Dml
