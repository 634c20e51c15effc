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
  using Dml::ReportReader::Read;
  void Read(const Por::View::Unit& object) override;
};

// Prints each event of a subscription, with the local time of its printing in the words of the
// locale (short date, medium time):
//
//   <created id="3F2504E0-4F89-11D3-9A0C-0305E82C3301" time="...">
//     Root (Composite)
//   </created>
//   (empty line)
//
//   <updated id="..." time="...">        deletions are like creations, with the key as unit
//     <key>
//       Root (Common::Guid) = 3F2504E0-4F89-11D3-9A0C-0305E82C3301
//     </key>
//     <diff>
//       Root (Composite)
//     </diff>
//   </updated>
//   (empty line)
//
// An object without a key raises and leaves nothing. A key is its own identification: nothing is
// searched in it.
class ObjectReader final : public Dml::SubscriptionReader {
 public:
  using Dml::SubscriptionReader::OnCreated;
  using Dml::SubscriptionReader::OnDeleted;
  using Dml::SubscriptionReader::OnUpdated;
  void OnCreated(const Por::View::Unit& object) override;
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override;
  void OnDeleted(const Por::View::Unit& key) override;
};

// Codes of the failures below; the cause is the reason.
inline constexpr unsigned int kReportFailed = 5;
inline constexpr unsigned int kSubscribeFailed = 6;
inline constexpr unsigned int kSubscriptionEnded = 7;

// Prints all objects of the view and returns when the report is complete. What was printed before a
// failure stays printed. Throws Common::Error kReportFailed.
void Report(Dml::PostOffice& office, const Dml::ViewSpec& spec);

// Prints the objects of the view as created ones, and then every change, until a character or the
// end arrives on the standard input; that is the only end, also when the subscription has failed
// meanwhile. Events are printed on threads of the machinery below, one at a time, and none after
// the return. Throws Common::Error kSubscribeFailed before it waits, and kSubscriptionEnded after
// the wait if the subscription had failed for any other reason than the cancel that ends it.
void Listen(Dml::PostOffice& office, const Dml::ViewSpec& spec);

}  // namespace ObjProbe
