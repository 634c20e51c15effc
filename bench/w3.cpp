// Packets out of values: w3 UNITS FIELDS
//
// Speeds are in bytes of the document. packet: the units as a sequence, each unit's bytes in
// base64; words: fields of text, one a line behind their name and a tab, eight to an item. cold is
// the first document of its kind; that of packet is also the first one of the process, that of
// words finds the memory of packets.

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/framed_units.h"
#include "bench/workload.h"
#include "core/common/text.h"
#include "enterprise/serialize/element_scope.h"
#include "enterprise/serialize/serializer.h"
#include "enterprise/serialize/xml_serializer.h"

namespace {

using Serialization::ElementWriter;
using Serialization::MetaInfo;
using Serialization::Serializer;

constexpr double kBudget = 0.4;
constexpr std::size_t kFieldsOfItem = 8;

struct Field {
  const MetaInfo* meta;
  Common::String text;
};

// Record writers have one meta information for all fields of a name: `metas`.
std::vector<Field> SplitFields(std::string_view data, std::map<std::string, MetaInfo>& metas) {
  std::vector<Field> fields;
  while (!data.empty()) {
    const std::size_t tab = data.find('\t');
    const std::size_t end = data.find('\n', tab);
    if (end == std::string_view::npos) {
      std::fprintf(stderr, "The fields are cut short\n");
      std::exit(1);
    }
    const std::string name(data.substr(0, tab));
    fields.push_back({&metas.try_emplace(name, name).first->second, {}});
    Common::ToUtf16(fields.back().text, data.data() + tab + 1, end - tab - 1);
    data.remove_prefix(end + 1);
  }
  return fields;
}

// The size of a document with the given content in a reply's vector.
template <class WriteContent>
std::size_t WriteDocument(WriteContent&& write_content) {
  const std::unique_ptr<Serializer> serializer = Serialization::CreateXMLPacketSerializer(0);
  {
    const ElementWriter reply(*serializer, MetaInfo("reply"));
    const ElementWriter vector(*serializer, MetaInfo(Serialization::kVectorName));
    write_content(*serializer);
  }
  const Serialization::CountedBytes packet = serializer->Finish();
  Bench::Keep(packet.data.get());
  return packet.size;
}

template <class WriteContent>
void Measure(const char* name, WriteContent&& write_content) {
  const double start = Bench::Now();
  const auto bytes = static_cast<double>(WriteDocument(write_content));
  const double cold = Bench::Now() - start;
  const double warm = Bench::MeasureSeconds([&] { WriteDocument(write_content); }, kBudget);
  const std::string label = std::string("objprobe:").append(name);
  Bench::Report(label + ":cold", bytes / cold / 1e6, "MB/s");
  Bench::Report(label + ":warm", bytes / warm / 1e6, "MB/s");
  if (std::getenv("SIZES") != nullptr) std::fprintf(stderr, "# %s: %.0f bytes\n", name, bytes);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "Usage: %s UNITS FIELDS\n", argv[0]);
    return 2;
  }
  Bench::KeepHeap();
  const MetaInfo item(Serialization::kItemName);
  const MetaInfo is_empty(Serialization::kIsEmptyName);
  const MetaInfo value(Serialization::kValueName);
  MetaInfo versioned_item = item;
  versioned_item.version = 2;

  const std::string packet = Bench::ReadFile(argv[1]);
  std::vector<std::vector<unsigned char>> units;
  for (const std::string_view frame : Bench::SplitFrames(packet)) {
    units.emplace_back(frame.begin(), frame.end());
  }
  std::map<std::string, MetaInfo> metas;
  const std::vector<Field> fields = SplitFields(Bench::ReadFile(argv[2]), metas);

  Measure("packet", [&](Serializer& serializer) {
    for (const std::vector<unsigned char>& unit : units) {
      const ElementWriter element(serializer, item);
      serializer.Write(is_empty, false);
      serializer.Write(value, unit);
    }
  });
  Measure("words", [&](Serializer& serializer) {
    for (std::size_t i = 0; i < fields.size(); ++i) {
      if (i % kFieldsOfItem == 0) serializer.BeginElement(versioned_item);
      serializer.Write(*fields[i].meta, fields[i].text);
      if (i % kFieldsOfItem == kFieldsOfItem - 1) serializer.EndElement(versioned_item);
    }
  });
  return 0;
}
