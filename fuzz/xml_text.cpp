// XML text: what a document comes to doesn't depend on how much the file gives at a time, and an
// accepted tree, written as XML, is read into the same tree.

#include <string>
#include <string_view>

#include "fuzz/fuzz_target.h"
#include "tests/core/xml/tree_text.h"

using TestSupport::ReadResult;
using TestSupport::ReadXml;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view document(reinterpret_cast<const char*>(data), size);
  if (document.starts_with("BXML")) return 0;  // the other reader's
  const ReadResult result = ReadXml(document);
  for (const std::size_t piece : {std::size_t{1}, size % 37 + 2}) {
    const ReadResult again = ReadXml(document, piece);
    Fuzz::RequireEqual(again.ToString(), result.ToString(), "same result in pieces");
    Fuzz::Require(
        again.good == result.good && again.line == result.line && again.column == result.column,
        "same end in pieces");
  }
  if (result.good) {
    Fuzz::RequireEqual(ReadXml(result.tree).ToString(), result.tree, "a written tree comes back");
  }
  return 0;
}
