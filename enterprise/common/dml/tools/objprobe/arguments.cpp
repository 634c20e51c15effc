#include "enterprise/common/dml/tools/objprobe/arguments.h"

#include <cctype>
#include <cstring>
#include <string_view>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "enterprise/common/dml/tools/objprobe/output.h"

namespace ObjProbe {

namespace {

// The command line and the run of the query are one place to whoever reads an error. The lines of
// this file are below 100.
constexpr Common::SourceFile kSource{"enterprise/common/dml/tools/objprobe/main"};

constexpr std::uint32_t kNotEnoughArguments = 1;
constexpr std::uint32_t kUnknownService = 2;

constexpr struct {
  const char* keyword;
  unsigned int id;
} kServiceIds[] = {
    {"HUB", kHubServiceId},   {"VLT", kVaultServiceId}, {"AGT", kAgentServiceId},
    {"RACK", kRackServiceId}, {"DML", kDmlServiceId},
};

}  // namespace

Arguments::Arguments(int argument_count, const char* const* argument_vector)
    : argc(argument_count > 0 ? static_cast<std::uint32_t>(argument_count) : 0),
      argv(argument_vector),
      services{"HUB", "VLT", "AGT", "DML", "DB"} {}

bool Arguments::Parse() {
  try {
    Take();
    return true;
  } catch (const Common::Error& error) {
    Output& output = StandardOutput();
    bool first = true;
    for (const std::string* field : {&hostname, &user, &password, &service, &object_type, &pattern,
                                     &pattern_file, &options, &options_file, &report}) {
      if (!first) output.Append(',');
      first = false;
      output.Append(*field);
    }
    output.Append('.');
    output.EndLine();
    output.Append("code: ");
    output.AppendDecimal(error.GetCode());
    output.EndLine();
    return false;
  }
}

void Arguments::Take() {
  if (argc == 0) Arg();
  if (std::strcmp(argv[argc - 1], "report") == 0) {
    report = argv[argc - 1];
    --argc;
  }
  hostname = Arg();
  user = Arg();
  password = Arg();
  service = FindService(Arg());

  const std::string query = Arg();
  if (query == "pattern") {
    pattern = Arg();
  } else if (query == "pattern_file") {
    pattern_file = Arg();
  } else {
    object_type = query;
    return;
  }

  if (next >= argc) return;
  const std::string_view word = argv[next++];
  if (word == "options") {
    options = Arg();
  } else if (word == "options_file") {
    options_file = Arg();
  }
}

const char* Arguments::Arg() {
  const std::uint32_t index = next++;
  if (index >= argc) {
    throw Common::Error(kNotEnoughArguments, "Not enought arguments specified",
                        kSource.At("Arg", 20));
  }
  return argv[index];
}

std::string Arguments::FindService(const std::string& word) const {
  std::string keyword = word;
  for (char& c : keyword) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (services.find(keyword) == services.end()) {
    throw Common::Error(kUnknownService, "Unknown service specified",
                        kSource.At("FindService", 40));
  }
  return keyword;
}

unsigned int GetServiceId(const std::string& service) {
  for (const auto& entry : kServiceIds) {
    if (service == entry.keyword) return entry.id;
  }
  return kHubServiceId;
}

void Usage() {
  Output& output = StandardOutput();
  for (const char* line : {
           "Usage: objprobe.exe <hostname> <user> <password> <service> <query>",
           "Where: <service> - HUB | VLT | AGT | DML | DB",
           "       <query> - <object_type>",
           "               | pattern <pattern> [options <options>]",
           "               | pattern_file <filename> [options_file <filename>] [report]",
       }) {
    output.Append(line);
    output.EndLine();
  }
}

}  // namespace ObjProbe
