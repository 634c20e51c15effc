#include "enterprise/common/dml/tools/objprobe/run_query.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/text.h"
#include "core/common/trace.h"
#include "core/file/unix/file_name.h"
#include "enterprise/common/dml/local_post_office.h"
#include "enterprise/common/dml/tools/objprobe/dml.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/dml/tools/objprobe/output_stream.h"
#include "enterprise/common/dml/tools/objprobe/service_connection.h"
#include "enterprise/common/ipc/client/lib/client.h"
#include "enterprise/common/por/parser/file_reader.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"
#include "enterprise/common/security/client/init.h"

namespace ObjProbe {

namespace {

// The lines of this file are from 100; see arguments.cpp.
constexpr Common::SourceFile kSource{"enterprise/common/dml/tools/objprobe/main"};

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

// A unit from a file; the empty name is no file.
Por::SharedUnit ReadUnitFile(const std::string& name,
                             const Por::Construction::UnitFactory& factory) {
  if (name.empty()) return nullptr;
  Utils::FileReader reader(Core::FileNameToText(name));
  return ReadUnit(reader, factory);
}

Por::SharedUnit CreateTypePattern(const std::string& object_type,
                                  const Por::Construction::UnitFactory& factory) {
  Por::OwnedUnit pattern = factory.CreateComposite();
  pattern->GetTraits().Add(
      factory.CreateTrait("Is", factory.CreateString(Common::Utf8ToString(object_type.c_str()))));
  return pattern;
}

std::unique_ptr<Dml::PostOffice> CreatePostOffice(const Arguments& arguments, bool is_local) {
  if (is_local) return Dml::CreatePostOffice(Common::Utf8ToString(arguments.hostname.c_str()));
  if (const Common::Error error = Security::Initialize(kSource.At("RunQuery", 140));
      error.IsFailure()) {
    throw Common::Error(error);
  }
  return CreateRemotePostOffice(arguments);
}

// Everything that came from the IPC client is gone when this returns or throws.
void Query(const Arguments& arguments) {
  const Dml::ViewSpec spec = CreateViewSpec(arguments);
  const bool is_local = arguments.service == "DB";
  const std::unique_ptr<Dml::PostOffice> office = CreatePostOffice(arguments, is_local);
  if (arguments.report.empty() && !is_local) {
    Listen(*office, spec);
  } else {
    Report(*office, spec);
  }
}

void Print(const Common::Error& error) {
  Output& output = StandardOutput();
  output.Append(std::u16string_view(error.ToString()));
  output.EndLine();
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
    spec.options = ReadUnitFile(arguments.options_file, factory);
    spec.pattern = ReadUnitFile(arguments.pattern_file, factory);
  }
  return spec;
}

std::uint32_t RunQuery(const Arguments& arguments) {
  const Binding::ScopedIPCClient client;
  if (const Common::Error& error = client.GetResult(); error.IsFailure()) {
    Print(error);
    return error.GetCode();
  }
  try {
    Query(arguments);
  } catch (const Common::Error& error) {
    Print(error);
    Common::Trace(Common::kTraceError, error);
    return error.GetCode();
  }
  StandardOutput().Flush();
  return 0;
}

}  // namespace ObjProbe
