#include "enterprise/common/dml/tools/objprobe/dml.h"

#include <string_view>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/dml/synchronous_data_store.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/dml/tools/objprobe/unit_printer.h"
#include "enterprise/common/por/unit_factory.h"

namespace ObjProbe {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/tools/objprobe/dml"};

constexpr std::size_t kObjectIndent = 2;

}  // namespace

void ReportReader::Read(const Por::View::Unit& object) {
  Output& output = StandardOutput();
  output.Append("<object id=\"");
  output.Append(std::u16string_view(Dml::GetObjectKey(object)));
  output.Append("\">");
  output.EndLine();
  Por::Util::PrintUnit(object, kObjectIndent, output);
  output.Append("</object>");
  output.EndLine();
  output.EndLine();
}

void Report(Dml::PostOffice& office, const Dml::ViewSpec& spec) {
  try {
    Por::Construction::InMemoryUnitFactory factory;
    Dml::SynchronousDataStore store(&office, &factory);
    ReportReader reader;
    store.Report(Core::EntryPoint(kSource.At("Report", 100)), spec, reader);
  } catch (const Common::Error& cause) {
    Common::Error error(kReportFailed, "Report from data source has failed.",
                        kSource.At("Report", 120));
    error.SetReason(cause);
    throw error;
  }
}

}  // namespace ObjProbe
