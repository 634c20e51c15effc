// The byte form of an error: of data that is cut short the front of the chain is left, a chain that
// was read is written and read as the same one, and so is one whose head was cloned.

#include <algorithm>
#include <cstddef>
#include <string>

#include "core/common/error.h"
#include "core/common/error_record.h"
#include "core/common/number_text.h"
#include "fuzz/fuzz_target.h"
#include "tests/support/text.h"

using Common::Error;
using Common::ErrorRecord;

namespace {

std::string OrNone(const char* text) {
  return text != nullptr ? std::string("[").append(text).append("]") : std::string("none");
}

void DescribeParameter(std::string& out, const ErrorRecord& record, const std::string& name) {
  const Common::ErrorRecordOperations& operations = *record.operations;
  out.append("\n  ").append(name).append(" = ");
  if (const char* ansi = operations.GetAnsi(&record, name.c_str())) {
    out += OrNone(ansi);
  } else if (const char16_t* wide = operations.GetWide(&record, name.c_str())) {
    out.append("wide ").append(OrNone(TestSupport::Utf8(wide).c_str()));
  } else {
    out += Common::NumberToHex(operations.GetNumber(&record, name.c_str()));
  }
}

void DescribeRecord(std::string& out, const ErrorRecord& record) {
  Common::String message;
  record.operations->GetMessage(message, &record);
  out.append("\n").append(Common::NumberToHex(record.code));
  out.append(" ").append(Common::NumberToHex(record.location));
  out.append(" ").append(OrNone(record.file)).append(":").append(std::to_string(record.line));
  out.append(" ").append(OrNone(record.function));
  out.append(" ").append(TestSupport::Utf8(message));
  Common::ParameterNames names(record);
  for (std::string name; names.Next(name);) {
    // A name that lists others may have this one among them; as the name of a number it is that of
    // the line.
    if (name != "$line" || record.operations->GetAnsi(&record, name.c_str()) != nullptr ||
        record.operations->GetWide(&record, name.c_str()) != nullptr) {
      DescribeParameter(out, record, name);
    }
  }
}

std::string Describe(const Error& error) {
  std::string out;
  for (const ErrorRecord* record = error.GetRecord(); record != nullptr; record = record->next) {
    Fuzz::Require(record->code != 0, "a chain ends in front of a code of 0");
    DescribeRecord(out, *record);
  }
  return out;
}

Error SaveAndLoad(const Error& error) {
  unsigned int size = 0;
  const auto bytes = error.Save(size);
  return Error::Load(bytes.get(), size);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Error error = Error::Load(data, static_cast<unsigned int>(size));
  const std::string chain = Describe(error);
  Fuzz::RequireEqual(Describe(SaveAndLoad(error)), chain, "a chain that was read comes back");

  for (const std::size_t cut : {size / 2, size - std::min<std::size_t>(size, 1)}) {
    const std::string front = Describe(Error::Load(data, static_cast<unsigned int>(cut)));
    Fuzz::Require(chain.starts_with(front), "the front of the data gives the front of the chain");
  }

  // The head is shared by now, so it is cloned.
  Error clone = error;
  clone.SetReason(error);
  if (!error.IsFailure()) return 0;
  const std::string rest = Describe(error.GetNextError());
  Fuzz::RequireEqual(Describe(clone), chain.substr(0, chain.size() - rest.size()) + chain,
                     "a head and its clone are the same");
  return 0;
}
