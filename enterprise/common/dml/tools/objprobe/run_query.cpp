#include "enterprise/common/dml/tools/objprobe/run_query.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/text.h"
#include "core/common/trace.h"
#include "enterprise/common/dml/local_post_office.h"
#include "enterprise/common/dml/tools/objprobe/dml.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/dml/tools/objprobe/output_stream.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"

namespace ObjProbe {

namespace {

// The lines of this file are from 100; see arguments.cpp.
constexpr Common::SourceFile kSource{"enterprise/common/dml/tools/objprobe/main"};

constexpr std::uint32_t kCannotReadFile = 1;
constexpr std::uint32_t kConnectionFailed = 3;

Por::SharedUnit ReadUnit(Utils::DataReader& reader, const Por::Construction::UnitFactory& factory) {
  OutputStream echo(StandardOutput());
  Utils::UnitConstructionFormat format(echo);
  return format.Read(reader, factory);
}

// A unit from an argument.
Por::SharedUnit ReadUnitText(const std::string& text,
                             const Por::Construction::UnitFactory& factory) {
  if (text.empty()) return nullptr;
  Utils::InMemoryDataReader reader(Common::Utf8ToString(text.c_str()));
  return ReadUnit(reader, factory);
}

// A unit from a file. Files are not read yet: only the empty name, which is no file, works.
Por::SharedUnit ReadUnitFile(const std::string& name) {
  if (name.empty()) return nullptr;
  throw Common::Error(kCannotReadFile, "Query files are not supported by this build.",
                      kSource.At("ReadUnitFile", 120));
}

Por::SharedUnit CreateTypePattern(const std::string& object_type,
                                  const Por::Construction::UnitFactory& factory) {
  Por::OwnedUnit pattern = factory.CreateComposite();
  pattern->GetTraits().Add(
      factory.CreateTrait("Is", factory.CreateString(Common::Utf8ToString(object_type.c_str()))));
  return pattern;
}

// The post office of a service. There is no connection to services yet.
std::unique_ptr<Dml::PostOffice> CreateRemotePostOffice(const Arguments&) {
  throw Common::Error(kConnectionFailed, "Connections to services are not supported by this build.",
                      kSource.At("CreateRemotePostOffice", 160));
}

}  // namespace

Dml::ViewSpec CreateViewSpec(const Arguments& arguments) {
  const Por::Construction::InMemoryUnitFactory factory;
  Dml::ViewSpec spec;
  if (!arguments.object_type.empty()) {
    spec.pattern = CreateTypePattern(arguments.object_type, factory);
  } else if (!arguments.pattern.empty()) {
    spec.options = ReadUnitText(arguments.options, factory);
    spec.pattern = ReadUnitText(arguments.pattern, factory);
  } else {
    spec.options = ReadUnitFile(arguments.options_file);
    spec.pattern = ReadUnitFile(arguments.pattern_file);
  }
  return spec;
}

std::uint32_t RunQuery(const Arguments& arguments) {
  try {
    const Dml::ViewSpec spec = CreateViewSpec(arguments);
    const bool is_local = arguments.service == "DB";
    const std::unique_ptr<Dml::PostOffice> office =
        is_local ? Dml::CreatePostOffice(Common::Utf8ToString(arguments.hostname.c_str()))
                 : CreateRemotePostOffice(arguments);
    if (arguments.report.empty() && !is_local) {
      Listen(*office, spec);
    } else {
      Report(*office, spec);
    }
  } catch (const Common::Error& error) {
    Output& output = StandardOutput();
    output.Append(std::u16string_view(error.ToString()));
    output.EndLine();
    Common::Trace(Common::kTraceError, error);
    return error.GetCode();
  }
  StandardOutput().Flush();
  return 0;
}

}  // namespace ObjProbe
