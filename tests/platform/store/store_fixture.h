#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "core/common/text.h"
#include "core/common/unix/event.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/dml/local_post_office.h"
#include "enterprise/common/dml/read_actions.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_value_access.h"
#include "platform/store/sqlite_store_writer.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace Platform::Store {

using TestSupport::ChildProcess;

inline Por::OwnedUnit Parse(const std::string& text) {
  Utils::InMemoryDataReader reader(Common::Utf8ToString(text.c_str()));
  Utils::UnitConstructionFormat format;
  format.SetTrace(false);
  return format.Read(reader, *Por::GetStaticUnitFactory());
}

// The identification of the object that MakeObject makes.
inline std::string MakeId(int number) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-0000-0000-0000-000000000000", number);
  return text;
}

// An object with a number, an `Is` trait and whatever else its root holds.
inline std::string MakeObject(int number, const std::string& type, const std::string& more = "") {
  return ".Composite().Trait(\"PrimaryKey\").Guid(" + MakeId(number) +
         ").End().Trait(\"Is\").String(\"" + type + "\").End().Property(\"N\").DWord(" +
         std::to_string(number) + ").End()" + more + ".End()";
}

inline unsigned int GetNumber(const Por::View::Unit& object) {
  return Por::Util::GetValue<unsigned int>(Por::Util::GetProperty(object, "N").GetValue());
}

// Fails when it isn't told exactly once by the time it goes.
class ToldOnce final : public Async::ActionHandler {
 public:
  ~ToldOnce() override { EXPECT_EQ(told_, 1); }
  void Completed(Common::Error result) override {
    ++told_;
    result_ = std::move(result);
    event_.Set();
  }
  // Waits for the end, but not for good. Whoever hasn't told it by then may do so when it is gone.
  Common::Error Wait() {
    if (!event_.Wait(60000)) {
      std::fputs("A handler was not told its end within 60 s.\n", stderr);
      std::abort();
    }
    return result_;
  }
  bool IsTold() const { return told_ > 0; }

 private:
  Common::Event event_{true, false};
  std::atomic<int> told_{0};
  Common::Error result_;
};

// Collects the numbers of the objects, then lets `on_read` do more.
class NumberReader final : public Dml::ReportReader {
 public:
  explicit NumberReader(std::function<void(unsigned int)> on_read = nullptr)
      : on_read_(std::move(on_read)) {}
  void Read(const Por::View::Unit& object) override {
    numbers.push_back(GetNumber(object));
    if (on_read_) on_read_(numbers.back());
  }

  std::vector<unsigned int> numbers;

 private:
  const std::function<void(unsigned int)> on_read_;
};

// The error that `action` throws.
template <class Action>
Common::Error Catch(Action action) {
  try {
    action();
  } catch (const Common::Error& error) {
    return error;
  }
  ADD_FAILURE() << "Nothing was thrown.";
  return {};
}

// Turns root into a user without rights.
inline bool DropRights() {
  return ::geteuid() != 0 || ::setresuid(65534, 65534, 65534) == 0;
}

// Keeps a store locked from the beginning to the end.
class LockHolder : public Common::NonCopyable {
 public:
  explicit LockHolder(const std::string& path) {
    EXPECT_EQ(sqlite3_open(path.c_str(), &handle_), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(handle_,
                           "PRAGMA locking_mode = EXCLUSIVE; BEGIN IMMEDIATE;"
                           "UPDATE changes SET kind = kind; COMMIT",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
  }
  ~LockHolder() { sqlite3_close(handle_); }

 private:
  sqlite3* handle_ = nullptr;
};

class StoreTest : public testing::Test {
 protected:
  // Adds objects to the store, which is made first if there is none.
  void Store(const std::vector<std::string>& objects) {
    if (!std::filesystem::exists(path_)) SqliteStoreWriter::Create(path_);
    SqliteStoreWriter writer(path_);
    writer.Begin();
    for (const std::string& object : objects) writer.Put(*Parse(object));
    writer.Commit();
  }
  void StoreNumbered(int count, const std::string& type = "Thing") {
    std::vector<std::string> objects;
    for (int i = 1; i <= count; ++i) objects.push_back(MakeObject(i, type));
    Store(objects);
  }

  static Common::String ToConnection(const std::string& text) {
    return Common::Utf8ToString(text.c_str());
  }
  std::unique_ptr<Dml::PostOffice> Open() const { return OpenAt(path_); }
  static std::unique_ptr<Dml::PostOffice> OpenAt(const std::string& connection) {
    return Dml::CreatePostOffice(ToConnection(connection));
  }
  static Dml::ViewSpec MakeSpec(const std::string& pattern, const std::string& options = "") {
    return {Por::SharedUnit(Parse(pattern)), Por::SharedUnit(Parse(options))};
  }

  // A report through the job machinery; the result that the handler is told.
  static Common::Error Report(Dml::PostOffice& office, const Dml::ViewSpec& spec,
                              Dml::ReportReader& reader) {
    Dml::Actions::Report action(Core::EntryPoint(), spec, reader, office);
    ToldOnce handler;
    Async::JobControl control;
    control.Run(action, handler, nullptr);
    return handler.Wait();
  }
  // The numbers of the objects that match.
  std::vector<unsigned int> Match(const std::string& pattern, const std::string& options = "") {
    const auto office = Open();
    NumberReader reader;
    const Common::Error result = Report(*office, MakeSpec(pattern, options), reader);
    EXPECT_EQ(result.GetCode(), 0U);
    return reader.numbers;
  }

  // Runs SQL on the file behind the store's back.
  static void Execute(const std::string& path, const std::string& sql) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    char* message = nullptr;
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK)
        << message;
    sqlite3_close(database);
  }
  // The rows of a query, columns joined by "|", lines ended.
  static std::string Query(const std::string& path, const std::string& sql) {
    std::string result;
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    while (sqlite3_step(statement) == SQLITE_ROW) {
      for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        const unsigned char* text = sqlite3_column_text(statement, i);
        if (i > 0) result += "|";
        result += text != nullptr ? reinterpret_cast<const char*>(text) : "NULL";
      }
      result += "\n";
    }
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return result;
  }

  std::set<std::string> ListFolder() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  const TestSupport::TemporaryFolder temporary_folder_;
  const std::string folder_ = temporary_folder_.GetPath();
  const std::string path_ = folder_ + "/objects.db";
};

}  // namespace Platform::Store
