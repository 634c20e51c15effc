#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/text.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/dml/tools/objprobe/unit_printer.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"

// The small promises of the library, each with its allocations per call beside its time.

namespace {

std::size_t allocations = 0;

constexpr Common::SourceFile kSource{"bench/small"};

}  // namespace

__attribute__((noinline)) void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
  std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

// Runs the loop and reports the allocations of a call.
template <class Function>
void Loop(benchmark::State& state, Function&& call) {
  const std::size_t before = allocations;
  for (auto _ : state) call();
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocations - before),
                                                benchmark::Counter::kAvgIterations);
}

Por::OwnedUnit ParseUnit(const Common::String& text) {
  Utils::InMemoryDataReader reader(text);
  Utils::UnitConstructionFormat format;
  format.SetTrace(false);
  return format.Read(reader, *Por::GetStaticUnitFactory());
}

const Common::String kObject =
    uR"(.Composite() .Trait("Is").String("Task").End() .Trait("PrimaryKey").Nil().End()
  .Property("Name").String("daily").End() .Property("Size").QWord(4096).End()
  .Property("Owner").Guid(6B29FC40-CA47-1067-B31D-00DD010662DA).End()
  .Property("Runs").Array() .DWord(1).End() .DWord(2).End() .DWord(3).End() .End() .End())";

void MakeError(benchmark::State& state) {
  Loop(state, [] {
    const Common::Error error(5, Common::GetMessageText(Common::MessageRow::PorOutOfRange),
                              kSource.At("MakeError", 10));
    benchmark::DoNotOptimize(error.GetCode());
  });
}
BENCHMARK(MakeError);

void MessageText(benchmark::State& state) {
  Loop(state,
       [] { benchmark::DoNotOptimize(Common::GetMessageText(Common::MessageRow::PorOutOfRange)); });
}
BENCHMARK(MessageText);

void ScalarUnit(benchmark::State& state) {
  const Por::Construction::InMemoryUnitFactory factory;
  Loop(state, [&] { benchmark::DoNotOptimize(factory.CreateDWord(5)); });
}
BENCHMARK(ScalarUnit);

void LiteralName(benchmark::State& state) {
  Loop(state, [] {
    const Por::Name name("SomeRatherLongPropertyName");
    benchmark::DoNotOptimize(name.GetText());
  });
}
BENCHMARK(LiteralName);

void TypedRead(benchmark::State& state) {
  const Por::OwnedUnit unit = Por::GetStaticUnitFactory()->CreateDWord(5);
  Loop(state, [&] { benchmark::DoNotOptimize(Por::Util::GetValue<unsigned int>(*unit)); });
}
BENCHMARK(TypedRead);

void CompareObjects(benchmark::State& state) {
  const Por::OwnedUnit a = ParseUnit(kObject);
  const Por::OwnedUnit b = ParseUnit(kObject);
  Loop(state, [&] { benchmark::DoNotOptimize(Por::Util::Compare(*a, *b)); });
}
BENCHMARK(CompareObjects);

void CopyObject(benchmark::State& state) {
  const Por::OwnedUnit unit = ParseUnit(kObject);
  Loop(state,
       [&] { benchmark::DoNotOptimize(Por::Util::CopyUnit(*unit, *Por::GetStaticUnitFactory())); });
}
BENCHMARK(CopyObject);

void ParseObject(benchmark::State& state) {
  Loop(state, [] { benchmark::DoNotOptimize(ParseUnit(kObject)); });
}
BENCHMARK(ParseObject);

// Every line is one write to the null device.
void PrintObject(benchmark::State& state) {
  const Por::OwnedUnit unit = ParseUnit(kObject);
  ObjProbe::Output output(open("/dev/null", O_WRONLY | O_CLOEXEC));
  Loop(state, [&] { Por::Util::PrintUnit(*unit, 2, output); });
}
BENCHMARK(PrintObject);

void ObjectKey(benchmark::State& state) {
  const Por::OwnedUnit unit = ParseUnit(kObject);
  Loop(state, [&] { benchmark::DoNotOptimize(Dml::GetObjectKey(*unit)); });
}
BENCHMARK(ObjectKey);

void RunSynchronousAction(benchmark::State& state) {
  struct NullHandler : Async::ActionHandler {
    void Completed(Common::Error) override {}
  } handler;
  Async::ActionRefAdaptor action([](Async::ActionHandler& done) -> std::shared_ptr<Async::Job> {
    done.Completed({});
    return nullptr;
  });
  Async::JobControl control;
  Loop(state, [&] { control.Run(action, handler, nullptr); });
}
BENCHMARK(RunSynchronousAction);

}  // namespace

BENCHMARK_MAIN();
