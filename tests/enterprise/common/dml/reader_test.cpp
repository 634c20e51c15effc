#include "enterprise/common/dml/reader.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "enterprise/common/por/unit_handle.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"

namespace Dml {
namespace {

// Lets go of the place that it reads before it looks at the unit.
class NumberReader final : public ReportReader, public SubscriptionReader {
 public:
  using ReportReader::Read;
  using SubscriptionReader::OnCreated;
  using SubscriptionReader::OnDeleted;
  using SubscriptionReader::OnUpdated;
  void Read(const Por::View::Unit& object) override {
    place.reset();
    OnCreated(object);
  }
  void OnCreated(const Por::View::Unit& object) override {
    read += std::to_string(Por::Util::GetValue<unsigned int>(object));
  }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    OnCreated(key);
    OnCreated(diff);
  }
  void OnDeleted(const Por::View::Unit& key) override { OnCreated(key); }

  std::optional<Por::ConstUnit> place;
  std::string read;
};

TEST(Reader, TakesPlacesAndKeepsTheirTreeMeanwhile) {
  using namespace Por::Test;  // NOLINT: the vocabulary of this test
  NumberReader reader;
  reader.place = Por::ConstUnit(Composite("a", DWord(1)), Factory())["a"];
  reader.Read(*reader.place);
  EXPECT_FALSE(reader.place.has_value());
  const Por::ConstUnit root(Composite("b", DWord(2), "c", DWord(3)), Factory());
  reader.OnCreated(root["b"]);
  reader.OnUpdated(root["b"], root["c"]);
  reader.OnDeleted(root["c"]);
  EXPECT_EQ(reader.read, "12233");
  for (const Thrown& thrown : {Catch([&] { reader.Read(Por::ConstUnit(nullptr, Factory())); }),
                               Catch([&] { reader.OnCreated(root["d"]); }),
                               Catch([&] { reader.OnUpdated(root["d"], root["b"]); }),
                               Catch([&] { reader.OnUpdated(root["b"], root["d"]); }),
                               Catch([&] { reader.OnDeleted(root["b"]["d"]); })}) {
    EXPECT_EQ(thrown.error.substr(0, 13), "Error fa0001:");
    EXPECT_TRUE(thrown.place.find(":89 ") != std::string::npos) << thrown.place;
  }
  EXPECT_EQ(reader.read, "12233");
}

}  // namespace
}  // namespace Dml
