#pragma once

#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/dml/reader.h"

// What the program prints for objects, on the standard output.

namespace ObjProbe {

// Prints each object of a report:
//
//   <object id="3F2504E0-4F89-11D3-9A0C-0305E82C3301">
//     Root (Composite)
//       Name (Common::String) = alpha
//   </object>
//   (empty line)
//
// The head is begun before the key is asked for: an object without a key leaves `<object id="` and
// no line end, and raises.
class ReportReader final : public Dml::ReportReader {
 public:
  void Read(const Por::View::Unit& object) override;
};

// Codes of the failures below; the cause is the reason.
inline constexpr unsigned int kReportFailed = 5;

// Prints all objects of the view and returns when the report is complete. What was printed before a
// failure stays printed. Throws Common::Error kReportFailed.
void Report(Dml::PostOffice& office, const Dml::ViewSpec& spec);

}  // namespace ObjProbe
