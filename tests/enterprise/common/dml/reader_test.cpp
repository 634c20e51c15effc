#include "enterprise/common/dml/reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "core/common/error.h"
#include "enterprise/common/por/unit_handle.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"

namespace Dml {
namespace {

// Notes numbers; lets go of the place that it reads before it looks at the unit.
class NumberReader final : public ReportReader, public SubscriptionReader {
 public:
  using ReportReader::Read;
  using SubscriptionReader::OnCreated;
  using SubscriptionReader::OnDeleted;
  using SubscriptionReader::OnUpdated;
  void Read(const Por::View::Unit& object) override {
    place.reset();
    Note(object);
  }
  void OnCreated(const Por::View::Unit& object) override { Note(object); }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    Note(key);
    Note(diff);
  }
  void OnDeleted(const Por::View::Unit& key) override { Note(key); }

  std::optional<Por::ConstUnit> place;
  std::string read;

 private:
  void Note(const Por::View::Unit& unit) {
    read += std::to_string(Por::Util::GetValue<unsigned int>(unit));
  }
};

TEST(Reader, TakesPlacesAndKeepsTheirTreeMeanwhile) {
  NumberReader reader;
  reader.place =
      Por::ConstUnit(Por::Test::Composite("a", Por::Test::DWord(1)), Por::Test::Factory())["a"];
  reader.Read(*reader.place);
  EXPECT_FALSE(reader.place.has_value());
  const Por::ConstUnit root(
      Por::Test::Composite("b", Por::Test::DWord(2), "c", Por::Test::DWord(3)),
      Por::Test::Factory());
  reader.OnCreated(root["b"]);
  reader.OnUpdated(root["b"], root["c"]);
  reader.OnDeleted(root["c"]);
  EXPECT_EQ(reader.read, "12233");

  const auto expect_error = [](auto call) {
    try {
      call();
      ADD_FAILURE();
    } catch (const Common::Error& error) {
      EXPECT_EQ(error.GetCode(), 0xFA0001u);
      EXPECT_EQ(error.GetLineTag().line, 89u);
    }
  };
  expect_error([&] { reader.Read(Por::ConstUnit(nullptr, Por::Test::Factory())); });
  expect_error([&] { reader.OnCreated(root["d"]); });
  expect_error([&] { reader.OnUpdated(root["d"], root["b"]); });
  expect_error([&] { reader.OnUpdated(root["b"], root["d"]); });
  expect_error([&] { reader.OnDeleted(root["b"]["d"]); });
  EXPECT_EQ(reader.read, "12233");
}

}  // namespace
}  // namespace Dml
