// Unit text: the echo changes nothing, and a unit that was read, printed and read again, is the
// same one.

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/parser/unit_construction_text_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "fuzz/fuzz_units.h"

namespace {

class BytesReader final : public Utils::DataReader {
 public:
  explicit BytesReader(std::vector<unsigned char> bytes) : bytes_(std::move(bytes)) {}
  void Read(std::vector<unsigned char>& bytes) override { bytes = bytes_; }

 private:
  const std::vector<unsigned char> bytes_;
};

Por::OwnedUnit Read(const std::vector<unsigned char>& bytes, bool trace) {
  std::ostringstream echo;
  Utils::UnitConstructionFormat format(echo);
  format.SetTrace(trace);
  BytesReader reader(bytes);
  return format.Read(reader, *Por::GetStaticUnitFactory());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> text(data, data + size);
  Por::OwnedUnit unit;
  const std::string outcome = Fuzz::Outcome([&] {
    unit = Read(text, false);
    return unit.get();
  });
  Fuzz::RequireEqual(Fuzz::Outcome([&] { return Read(text, true); }), outcome,
                     "the echo changes nothing");
  if (unit == nullptr) return 0;

  // What was read has one byte a character, and no quotes: the first one ended its text.
  std::vector<unsigned char> printed;
  for (const char16_t character : UnitConstructorFormat::PrintUnit(*unit)) {
    Fuzz::Require(character <= 0xFF, "a byte is one character");
    printed.push_back(static_cast<unsigned char>(character));
  }
  Fuzz::RequireEqual(Fuzz::Outcome([&] { return Read(printed, false); }), outcome,
                     "a unit that was read comes back");
  return 0;
}
