#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <new>
#include <stdexcept>
#include <thread>

#include "core/common/unix/event.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/por/matches.h"
#include "platform/store/report_threads.h"
#include "platform/store/sqlite_store.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/support/trace_recorder.h"

namespace {
// Of all threads; the store's own are those of a wait for a lock.
constinit std::atomic<int> pauses{0};
}  // namespace

// Stands before the C library's.
extern "C" int nanosleep(const timespec* time, timespec* left) {
  ++pauses;
  errno = clock_nanosleep(CLOCK_REALTIME, 0, time, left);
  return errno == 0 ? 0 : -1;
}

namespace Platform::Store {

namespace {

using Numbers = std::vector<unsigned int>;

class StoreReport : public StoreTest {};

TEST_F(StoreReport, DeliversInTheOrderOfFirstStorage) {
  Store({MakeObject(3, "A"), MakeObject(1, "B"), MakeObject(2, "A")});
  // A replaced object keeps its place, one that was deleted and stored again doesn't.
  Store({MakeObject(3, "A", ".Property(\"X\").Nil().End()")});
  {
    SqliteStoreWriter writer(path_);
    writer.Begin();
    Common::Guid id;
    id.SetFirst(1);
    EXPECT_TRUE(writer.Delete(id));
    EXPECT_FALSE(writer.Delete(id));
    writer.Put(*Parse(MakeObject(1, "B")));
    writer.Commit();
  }
  EXPECT_EQ(Match(""), (Numbers{3, 2, 1}));
  EXPECT_EQ(Match(".Nil().End()"), (Numbers{3, 2, 1}));
  EXPECT_EQ(Match(".Composite().Trait(\"Is\").String(\"A\").End().End()"), (Numbers{3, 2}));
  EXPECT_EQ(Match(".Composite().Property(\"N\").DWord(1).End().End()"), (Numbers{1}));
  EXPECT_EQ(Match(".Nil().Trait(\"Is\").String(\"A\").End().End()"), (Numbers{}));
}

TEST_F(StoreReport, LimitBoundsTheDeliveredObjects) {
  Store({MakeObject(1, "A"), MakeObject(2, "B"), MakeObject(3, "B"), MakeObject(4, "B")});
  const std::string b = ".Composite().Trait(\"Is\").String(\"B\").End().End()";
  const auto limit = [](const std::string& value) {
    return ".Composite().Property(\"LimitOptions\")" + value + ".End().End()";
  };
  EXPECT_EQ(Match(b, limit(".DWord(2)")), (Numbers{2, 3}));
  EXPECT_EQ(Match(b, limit(".DWord(0)")), (Numbers{}));
  EXPECT_EQ(Match(b, limit(".DWord(9)")), (Numbers{2, 3, 4}));
  EXPECT_EQ(Match(b, ".Composite().Property(\"Other\").DWord(1).End().End()"), (Numbers{2, 3, 4}));

  // What is no such bound is told to the handler.
  const auto office = Open();
  NumberReader reader;
  for (const std::string& options : {limit(".QWord(2)"), std::string(".Array().End()")}) {
    EXPECT_TRUE(Report(*office, MakeSpec(b, options), reader).HoldsCode(0xFA000A)) << options;
  }
  EXPECT_TRUE(reader.numbers.empty());
}

TEST_F(StoreReport, BadObjectsAndRaisingReadersEndNothing) {
  StoreNumbered(5);
  // A blob cut short, one that ends no unit, no blob at all.
  Execute(path_, "UPDATE objects SET data = substr(data, 1, 20) WHERE seq = 1");
  Execute(path_, "UPDATE objects SET data = x'45' WHERE seq = 3");
  Execute(path_, "UPDATE objects SET data = x'' WHERE seq = 5");
  const auto office = Open();
  const TestSupport::TraceRecorder traces;
  NumberReader reader([](unsigned int number) {
    if (number == 2) throw Common::Error(0x77, u"No.", Common::LineTag());
  });
  EXPECT_EQ(Report(*office, {}, reader).GetCode(), 0U);
  EXPECT_EQ(reader.numbers, (Numbers{2, 4}));
  EXPECT_EQ(traces.Codes(), "1 fc 1\n1 fc 1\n1 fc 1\n1 fc 1\n");
}

TEST_F(StoreReport, ForeignExceptionOfAReaderEndsTheReport) {
  StoreNumbered(2);
  const auto office = Open();
  const std::pair<std::function<void(unsigned int)>, unsigned int> cases[] = {
      {[](unsigned int) { throw std::runtime_error("broken"); }, 0xf90007},
      {[](unsigned int) { throw 5; }, 0xf90008},
      {[](unsigned int) { throw std::bad_alloc(); }, Common::kOutOfMemoryCode},
  };
  for (const auto& [on_read, code] : cases) {
    NumberReader reader(on_read);
    EXPECT_EQ(Report(*office, {}, reader).GetCode(), code);
    EXPECT_EQ(reader.numbers, (Numbers{1}));
  }
}

TEST_F(StoreReport, RaisingPatternEndsTheReport) {
  StoreNumbered(3);
  const auto office = Open();
  NumberReader reader;
  const auto unknown = MakeSpec(".Composite().Trait(\"Unknown\").Nil().End().End()");
  EXPECT_TRUE(Report(*office, unknown, reader).HoldsCode(0xFA000E));
  // A predicate that is asked before `Is` raises as it would without an index; one behind a false
  // `Is` is never reached.
  const std::string is = ".Trait(\"Is\").String(\"Nothing\").End()";
  const auto before = MakeSpec(".Composite()" + is + ".Trait(\"Aha\").Nil().End().End()");
  EXPECT_TRUE(Report(*office, before, reader).HoldsCode(0xFA000E));
  const auto behind = MakeSpec(".Composite()" + is + ".Trait(\"Unknown\").Nil().End().End()");
  EXPECT_EQ(Report(*office, behind, reader).GetCode(), 0U);
  EXPECT_TRUE(reader.numbers.empty());
}

TEST_F(StoreReport, CancelFromTheReader) {
  StoreNumbered(50);
  const auto office = Open();
  Async::JobControl control;
  Common::Event performed(false, false);
  NumberReader reader([&](unsigned int number) {
    EXPECT_TRUE(number != 1 || performed.Wait(60000));
    if (number == 3) control.Cancel();
  });
  Dml::Actions::Report action(Core::EntryPoint(), {}, reader, *office);
  // The second run finds no cancel left over.
  for (int run = 0; run < 2; ++run) {
    reader.numbers.clear();
    ToldOnce handler;
    control.Run(action, handler, nullptr);
    performed.Set();
    EXPECT_TRUE(handler.Wait().HoldsCode(Async::kCanceledCode));
    EXPECT_EQ(reader.numbers, (Numbers{1, 2, 3}));
  }
}

// The lock outlasts the test: only a cancel in the middle of the wait for it ends that.
TEST_F(StoreReport, CancelWhileTheStoreIsLocked) {
  StoreNumbered(1);
  const auto store = std::make_shared<SqliteStore>(path_, 600000);
  ToldOnce handler;
  ReportThreads threads;
  const LockHolder holder(path_);
  const auto job = std::make_shared<ReportJob>(store, Dml::ViewSpec(), std::nullopt, nullptr,
                                               handler, *Por::GetStaticUnitFactory());
  const int before = pauses;
  threads.Start(job);
  while (pauses < before + 3 && !handler.IsTold()) std::this_thread::yield();
  job->Cancel();
  job->Cancel();
  EXPECT_EQ(handler.Wait().GetCode(), Async::kCanceledCode);
  job->Cancel();
}

TEST_F(StoreReport, TwoAtOnceOnOnePostOffice) {
  StoreNumbered(20);
  const auto office = Open();
  // Each waits in the middle until the other one has got there.
  Common::Event there[] = {{false, false}, {false, false}};
  std::vector<std::thread> threads;
  for (const int i : {0, 1}) {
    threads.emplace_back([&, i] {
      NumberReader reader([&](unsigned int number) {
        if (number != 10) return;
        there[i].Set();
        EXPECT_TRUE(there[1 - i].Wait(60000));
      });
      EXPECT_EQ(Report(*office, {}, reader).GetCode(), 0U);
      EXPECT_EQ(reader.numbers.size(), 20U);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Destroys its post office as the report tells it the end.
class ClosingHandler final : public Async::ActionHandler {
 public:
  explicit ClosingHandler(std::unique_ptr<Dml::PostOffice> office) : office_(std::move(office)) {}
  void Completed(Common::Error result) override {
    EXPECT_EQ(result.GetCode(), 0U);
    office_.reset();
    told.Set();
  }
  Dml::PostOffice& GetOffice() { return *office_; }

  Common::Event told{true, false};

 private:
  std::unique_ptr<Dml::PostOffice> office_;
};

TEST_F(StoreReport, HandlerMayDestroyThePostOffice) {
  StoreNumbered(3);
  ClosingHandler handler(Open());
  handler.GetOffice().Report(Core::EntryPoint(), {}, nullptr, handler);
  EXPECT_TRUE(handler.told.Wait(60000));
}

TEST_F(StoreReport, EndOfThePostOfficeEndsItsReports) {
  StoreNumbered(1000);
  auto office = Open();
  Common::Event reading(true, false);
  NumberReader reader([&](unsigned int) { reading.Set(); });
  const auto delegate = std::make_shared<Dml::ReportReaderDelegate>(reader);
  ToldOnce handler;
  office->Report(Core::EntryPoint(), {}, delegate, handler);
  EXPECT_TRUE(reading.Wait(60000));
  office.reset();
  EXPECT_TRUE(handler.IsTold());
  const Common::Error result = handler.Wait();
  EXPECT_TRUE(result.GetCode() == Async::kCanceledCode ||
              (!result.IsFailure() && reader.numbers.size() == 1000));
}

std::size_t CountThreads() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(threads), end(threads)));
}

// The thread of the report before is waited for when the next one is refused.
TEST_F(StoreReport, IsRefusedWithoutAThreadForIt) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the sanitizer starts threads of its own in a child, so they can't be counted";
#endif
  StoreNumbered(1);
  ASSERT_EQ(::chmod(folder_.c_str(), 0755), 0);
  ChildProcess child([this] {
    if (!DropRights()) return false;
    const auto office = Open();
    const std::size_t before = CountThreads();
    {
      ToldOnce handler;
      office->Report(Core::EntryPoint(), {}, nullptr, handler);
      if (handler.Wait().IsFailure()) return false;
    }
    while (CountThreads() > before) std::this_thread::yield();
    const rlimit none{0, 0};
    if (::setrlimit(RLIMIT_NPROC, &none) != 0) return false;
    ToldOnce handler;
    office->Report(Core::EntryPoint(), {}, nullptr, handler);
    return handler.IsTold() && handler.Wait().GetCode() == 0x40001;
  });
  EXPECT_EQ(child.Wait(), 0);
}

class IsIndex : public StoreTest {};

// Values that are named by their keys, cut by them, or only sorted by kind.
const char* const kIsValues[] = {
    ".String(\"Task\").End()",
    ".String(\"Tas\").End()",
    ".String(\"task\").End()",
    ".String(\"\").End()",
    ".String(\"Task\").Trait(\"T\").Nil().End().End()",
    ".Nil().End()",
    ".Boolean(true).End()",
    ".Boolean(false).End()",
    ".Byte(1).End()",
    ".SByte(1).End()",
    ".SByte(-1).End()",
    ".DWord(1).End()",
    ".DWord(256).End()",
    ".QWord(1).End()",
    ".SQWord(-1).End()",
    ".Guid().End()",
    ".Guid(00000000-0000-0000-0000-000000000001).End()",
    ".Array().End()",
    ".Array().DWord(1).End().End()",
    ".Composite().End()",
    ".Composite().Property(\"a\").Nil().End().End()",
};

TEST_F(IsIndex, FindsWhatTheMatcherAccepts) {
  std::vector<std::string> values(std::begin(kIsValues), std::end(kIsValues));
  const std::string prefix(120, 'x');
  for (const char* end : {"", "1", "2"})
    values.push_back(".String(\"" + prefix + end + "\").End()");
  const std::size_t count = values.size();
  // Objects with one value, with two, with none, and a root of another kind.
  std::vector<std::string> objects;
  const auto add = [&](const std::string& traits) {
    objects.push_back(MakeObject(static_cast<int>(objects.size() + 1), "Object", traits));
  };
  for (std::size_t i = 0; i < count; ++i) {
    add(".Trait(\"Is\")" + values[i]);
    add(".Trait(\"Is\")" + values[i] + ".Trait(\"Is\")" + values[(i + 7) % count]);
  }
  add("");
  Store(objects);

  std::vector<std::string> patterns;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string one = ".Trait(\"Is\")" + values[i];
    const std::string two = one + ".Trait(\"Is\")" + values[(i + 7) % count];
    patterns.push_back(".Composite()" + one + ".End()");
    patterns.push_back(".Composite()" + two + ".End()");
    patterns.push_back(".Composite().Trait(\"Not\").Composite()" + one + ".End().End()");
    patterns.push_back(".Composite().Trait(\"Or\").Array().Composite()" + one + ".End().End()" +
                       one + ".End()");
  }
  const auto office = Open();
  std::size_t accepted = 0;
  for (const std::string& text : patterns) {
    const Por::OwnedUnit pattern = Parse(text);
    ASSERT_NE(pattern, nullptr) << text;
    Numbers expected;
    for (const std::string& object : objects) {
      const Por::OwnedUnit unit = Parse(object);
      if (Por::Util::Matches(*unit, *pattern)) expected.push_back(GetNumber(*unit));
    }
    NumberReader reader;
    EXPECT_EQ(Report(*office, MakeSpec(text), reader).GetCode(), 0U);
    EXPECT_EQ(reader.numbers, expected) << text;
    accepted += expected.size();
  }
  EXPECT_GT(accepted, patterns.size());
}

// Values that unit text can't hold.
TEST_F(IsIndex, TreatsDoublesAsEqualityDoes) {
  const auto make = [](double is, int number) {
    Por::OwnedUnit unit = Parse(MakeObject(number, "Object"));
    Por::Util::AddTrait(*unit, "Is", Por::GetStaticUnitFactory()->CreateDouble(is),
                        *Por::GetStaticUnitFactory());
    return unit;
  };
  SqliteStoreWriter::Create(path_);
  {
    SqliteStoreWriter writer(path_);
    writer.Begin();
    writer.Put(*make(0.0, 1));
    writer.Put(*make(-0.0, 2));
    writer.Put(*make(1.5, 3));
    writer.Commit();
  }
  Por::OwnedUnit pattern = Parse(".Composite().End()");
  Por::Util::AddTrait(*pattern, "Is", Por::GetStaticUnitFactory()->CreateDouble(-0.0),
                      *Por::GetStaticUnitFactory());
  const auto office = Open();
  NumberReader reader;
  Dml::ViewSpec spec;
  spec.pattern = std::move(pattern);
  EXPECT_EQ(Report(*office, spec, reader).GetCode(), 0U);
  EXPECT_EQ(reader.numbers, (Numbers{1, 2}));
}

TEST_F(IsIndex, FollowsReplacedAndDeletedObjects) {
  Store({MakeObject(1, "A"), MakeObject(2, "A")});
  Store({MakeObject(1, "B")});
  EXPECT_EQ(Match(".Composite().Trait(\"Is\").String(\"A\").End().End()"), (Numbers{2}));
  EXPECT_EQ(Match(".Composite().Trait(\"Is\").String(\"B\").End().End()"), (Numbers{1}));
  EXPECT_EQ(Query(path_, "SELECT count(*) FROM object_is"), "2\n");
}

TEST_F(IsIndex, IsUsedWithoutAScanOrASort) {
  StoreNumbered(3);
  for (const std::size_t count : {1U, 2U, 8U}) {
    const std::string plan =
        Query(path_, "EXPLAIN QUERY PLAN " + SqliteStore::MakeSelectQuery(count));
    EXPECT_NE(plan.find("SEARCH i USING PRIMARY KEY (value=?)"), std::string::npos) << plan;
    EXPECT_NE(plan.find("SEARCH o USING INTEGER PRIMARY KEY (rowid=?)"), std::string::npos) << plan;
    EXPECT_EQ(plan.find("SCAN"), plan.find("SCAN CONSTANT ROW")) << plan;
    EXPECT_EQ(plan.find("TEMP B-TREE"), std::string::npos) << plan;
  }
  const std::string all = Query(path_, "EXPLAIN QUERY PLAN " + SqliteStore::MakeSelectQuery(0));
  EXPECT_EQ(all.find("TEMP B-TREE"), std::string::npos) << all;

  // Which patterns ask it.
  const auto demanded = [](const std::string& pattern) {
    return GetDemandedIsKeys(*Parse(pattern)).size();
  };
  const std::string is = ".Trait(\"Is\").String(\"A\").End()";
  EXPECT_EQ(demanded(".Composite()" + is + ".Trait(\"Is\").String(\"B\").End()" + is + ".End()"),
            2U);
  EXPECT_EQ(demanded(".Composite()" + is + ".Trait(\"ForeignKey\").Nil().End().End()"), 1U);
  EXPECT_EQ(demanded(".Composite()" + is + ".Trait(\"Between\").Nil().End().End()"), 0U);
  EXPECT_EQ(demanded(".Composite().Property(\"a\").Nil()" + is + ".End().End()"), 0U);
  EXPECT_EQ(demanded(".Nil().End()"), 0U);
}

}  // namespace

}  // namespace Platform::Store
