#include "tools/objprobe_store/commands.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "core/common/error.h"
#include "core/common/guid.h"
#include "core/common/line_tag.h"
#include "core/common/number_text.h"
#include "core/common/text.h"
#include "core/common/unix/safe_close.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/por/parser/data_reader.h"
#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "platform/console/error_text.h"
#include "platform/store/file_codes.h"
#include "platform/store/object_store.h"
#include "platform/store/operation_applier.h"
#include "platform/store/sqlite_store.h"
#include "platform/store/sqlite_store_writer.h"
#include "tools/common/program.h"
#include "tools/common/progress.h"
#include "tools/objprobe_store/object_generator.h"

namespace StoreTool {

namespace {

using Platform::Console::DescribeError;
using Platform::Console::MakePrintable;
using Platform::Store::SqliteStore;
using Platform::Store::SqliteStoreWriter;
using Tools::CommandFailure;

constexpr Common::SourceFile kSource{"tools/objprobe_store/commands"};
constexpr std::size_t kReadSize = 1 << 20;

std::vector<unsigned char> ReadFile(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    throw Platform::Store::MakeSystemError(Core::kFileOpenFailure, path, errno,
                                           kSource.At("ReadFile", 10));
  }
  std::vector<unsigned char> bytes;
  std::size_t size = 0;
  ssize_t count = 0;
  do {
    bytes.resize(size + kReadSize);
    do {
      count = ::read(descriptor, bytes.data() + size, kReadSize);
    } while (count < 0 && errno == EINTR);
    if (count > 0) size += static_cast<std::size_t>(count);
  } while (count > 0);
  const int errnum = errno;
  Common::SafeClose(descriptor);
  if (count < 0) {
    throw Platform::Store::MakeSystemError(Core::kFileReadFailure, path, errnum,
                                           kSource.At("ReadFile", 20));
  }
  bytes.resize(size);
  return bytes;
}

// A file's bytes for the parser, once.
class LoadedFile final : public Utils::DataReader {
 public:
  explicit LoadedFile(const std::string& path) : bytes_(ReadFile(path)) {}
  void Read(std::vector<unsigned char>& bytes) override { bytes.swap(bytes_); }

 private:
  std::vector<unsigned char> bytes_;
};

// The unit in a file of unit text.
Por::OwnedUnit ReadUnit(const std::string& file) {
  LoadedFile content(file);
  Utils::UnitConstructionFormat format;
  format.SetTrace(false);
  Por::OwnedUnit unit;
  try {
    unit = format.Read(content, *Por::GetStaticUnitFactory());
  } catch (const Common::Error& error) {
    throw CommandFailure(file + ": " + DescribeError(error));
  }
  if (unit == nullptr) throw CommandFailure(file + ": There is no object in the file.");
  return unit;
}

// A store that is being changed, and what came of it so far.
class Change {
 public:
  explicit Change(const std::string& store) : writer_(Platform::Store::GetStorePath(store)) {
    writer_.Begin();
  }

  void Put(const Por::View::Unit& object) {
    switch (writer_.Put(object)) {
      case SqliteStoreWriter::Outcome::kCreated:
        ++created_;
        break;
      case SqliteStoreWriter::Outcome::kUpdated:
        ++updated_;
        break;
      case SqliteStoreWriter::Outcome::kUnchanged:
        ++unchanged_;
        break;
    }
  }

  unsigned long long GetCount() const { return created_ + updated_ + unchanged_; }

  void CommitAndPrint() {
    writer_.Commit();
    std::printf("%llu created, %llu updated, %llu unchanged\n", created_, updated_, unchanged_);
  }

 private:
  SqliteStoreWriter writer_;
  unsigned long long created_ = 0;
  unsigned long long updated_ = 0;
  unsigned long long unchanged_ = 0;
};

void ImportFile(Change& change, const std::string& file, Tools::Progress& progress) {
  const Por::OwnedUnit root = ReadUnit(file);
  if (!Por::Util::IsArray(*root)) {
    try {
      change.Put(*root);
    } catch (const Common::Error& error) {
      throw CommandFailure(file + ": " + DescribeError(error));
    }
    progress.Step();
    return;
  }
  const unsigned long long count = Por::Util::GetArraySize(*root);
  for (unsigned long long i = 0; i < count; ++i) {
    const Por::View::Unit& object =
        *Por::Util::GetArrayElement(static_cast<const Por::View::Unit&>(*root), i);
    try {
      change.Put(object);
    } catch (const Common::Error& error) {
      throw CommandFailure(file + ", object " + std::to_string(i + 1) + " of " +
                           std::to_string(count) + ": " + DescribeError(error));
    }
    progress.Step();
  }
}

// A file of the store, which is open, must not be read as text: its end would give up the locks
// that this process has on it.
void RefuseFileOfStore(const std::string& store, const std::string& file) {
  std::error_code failure;  // what can't be looked at is told when it is opened
  const std::filesystem::path real =
      std::filesystem::canonical(Platform::Store::GetStorePath(store), failure);
  if (failure) return;
  for (const char* ending : {"", "-wal", "-shm"}) {
    if (std::filesystem::equivalent(real.native() + ending, file, failure)) {
      throw CommandFailure(file + ": The file belongs to the store itself.");
    }
  }
}

// GuidFromString takes less than the whole text.
bool ParseId(Common::Guid& id, const std::string& text) {
  return Common::GuidFromString(id, text.c_str()) &&
         ::strcasecmp(Common::GuidToString(id).c_str(), text.c_str()) == 0;
}

}  // namespace

void Create(const std::string& store) {
  Common::String name;
  if (!Common::ToUtf16(name, store.c_str(), store.size())) {
    throw CommandFailure(store + ": objprobe opens stores by names in UTF-8 only.");
  }
  SqliteStoreWriter::Create(Platform::Store::GetStorePath(store));
}

void Import(const std::string& store, const std::vector<std::string>& files) {
  Change change(store);
  // Only now all files of the store are there.
  for (const std::string& file : files) RefuseFileOfStore(store, file);
  Tools::Progress progress([&] { return std::to_string(change.GetCount()) + " objects"; });
  for (const std::string& file : files) ImportFile(change, file, progress);
  progress.Finish();
  change.CommitAndPrint();
}

void Put(const std::string& store, const std::string& file) {
  const Por::OwnedUnit object = ReadUnit(file);
  if (Por::Util::IsArray(*object)) {
    throw CommandFailure(file + ": The file holds an array. Use \"import\" for its objects.");
  }
  std::string id;
  try {
    const Common::String key = Dml::GetObjectKey(*object);
    Common::ToUtf8(id, key.c_str(), key.size());
  } catch (const Common::Error& error) {
    throw CommandFailure(file + ": " + DescribeError(error));
  }
  SqliteStoreWriter writer(Platform::Store::GetStorePath(store));
  writer.Begin();
  writer.Put(*object);
  writer.Commit();
  std::printf("%s\n", id.c_str());
}

void Delete(const std::string& store, const std::string& id) {
  Common::Guid guid;
  if (!ParseId(guid, id)) {
    throw CommandFailure("\"" + id +
                         "\" is no identification; one looks like "
                         "01234567-89AB-CDEF-0123-456789ABCDEF.");
  }
  SqliteStoreWriter writer(Platform::Store::GetStorePath(store));
  writer.Begin();
  if (!writer.Delete(guid)) throw CommandFailure("The store holds no object " + id + ".");
  writer.Commit();
}

void Apply(const std::string& store, const std::string& file) {
  const Por::OwnedUnit root = ReadUnit(file);
  SqliteStoreWriter writer(Platform::Store::GetStorePath(store));
  writer.Begin();
  Platform::Store::OperationApplier applier(writer, *Por::GetStaticUnitFactory());
  try {
    applier.Apply(*root);
  } catch (const Common::Error& error) {
    throw CommandFailure(file + ": " + DescribeError(error));
  }
  writer.Commit();
  for (const Platform::Store::OperationOutcome& outcome : applier.GetOutcomes()) {
    std::printf("%s\t%s\t%s%s%s\n", outcome.place.c_str(), outcome.name.c_str(),
                outcome.result.c_str(), outcome.object.empty() ? "" : "\t", outcome.object.c_str());
  }
}

void List(const std::string& store) {
  const SqliteStore opened(Platform::Store::GetStorePath(store));
  opened.List([](const Platform::Store::ObjectSummary& object) {
    std::printf("%s\t%s\t%llu\n", Common::GuidToString(object.id).c_str(),
                MakePrintable(object.type).c_str(), object.size);
  });
}

void PrintStatistics(const std::string& store) {
  const SqliteStore opened(Platform::Store::GetStorePath(store));
  const Platform::Store::StoreStatistics statistics = opened.GetStatistics();
  std::printf("version\t%lld\nobjects\t%llu\nbytes\t%llu\nchanges\t%llu\nlast change\t%lld\n",
              statistics.version, statistics.objects, statistics.bytes, statistics.changes,
              statistics.last_change);
  for (const Platform::Store::StoreStatistics::Type& type : statistics.types) {
    std::printf("type\t%s\t%llu\n", MakePrintable(type.name).c_str(), type.objects);
  }
}

void Generate(const std::string& store, std::uint64_t count, std::uint64_t seed) {
  const ObjectGenerator generator(seed, *Por::GetStaticUnitFactory());
  Change change(store);
  Tools::Progress progress([&] {
    return std::to_string(change.GetCount()) + " of " + std::to_string(count) + " objects";
  });
  for (std::uint64_t i = 0; i < count; ++i) {
    change.Put(*generator.Make(i));
    progress.Step();
  }
  progress.Finish();
  change.CommitAndPrint();
}

}  // namespace StoreTool
