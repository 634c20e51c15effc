#include "enterprise/common/dml/tools/objprobe/dml.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/time/time_format.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/cyclic_runner.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/synchronizer.h"
#include "enterprise/common/async/waiting_handler.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/dml/subscribe_without_report.h"
#include "enterprise/common/dml/synchronous_data_store.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/dml/tools/objprobe/unit_printer.h"
#include "enterprise/common/por/unit_factory.h"

namespace ObjProbe {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/tools/objprobe/dml"};

constexpr std::size_t kObjectIndent = 2;
constexpr std::size_t kPartIndent = 4;

// The current local time. A batch of events prints it many times within the second that it shows.
const Common::String& PrintedTime() {
  constexpr int kShortDate = 0, kDateAndTime = 2;
  thread_local Common::DateTime shown;
  thread_local Common::String text;
  const Common::DateTime now = Common::DateTime::Now();
  if (!shown.IsValid() || now.GetUnixSeconds() != shown.GetUnixSeconds()) {
    Common::TimeFormat::Create(kShortDate, kDateAndTime)->Format(now, text);
    shown = now;
  }
  return text;
}

void BeginEvent(Output& output, std::string_view event, const Common::String& id) {
  const Common::String& time = PrintedTime();
  output.Append('<');
  output.Append(event);
  output.Append(" id=\"");
  output.Append(std::u16string_view(id));
  output.Append("\" time=\"");
  output.Append(std::u16string_view(time));
  output.Append("\">");
  output.EndLine();
}

void EndEvent(Output& output, std::string_view event) {
  output.Append("</");
  output.Append(event);
  output.Append('>');
  output.EndLine();
  output.EndLine();
}

void PrintEvent(std::string_view event, const Common::String& id, const Por::View::Unit& unit) {
  Output& output = StandardOutput();
  BeginEvent(output, event, id);
  Por::Util::PrintUnit(unit, kObjectIndent, output);
  EndEvent(output, event);
}

void PrintPart(Output& output, std::string_view part, const Por::View::Unit& unit) {
  output.Append("  <");
  output.Append(part);
  output.Append('>');
  output.EndLine();
  Por::Util::PrintUnit(unit, kPartIndent, output);
  output.Append("  </");
  output.Append(part);
  output.Append('>');
  output.EndLine();
}

std::unique_ptr<Dml::Subscription> Subscribe(Dml::PostOffice& office,
                                             const Por::Construction::UnitFactory& factory,
                                             const Dml::ViewSpec& spec) {
  std::unique_ptr<Dml::Subscription> subscription;
  const auto subscribe = Async::MakeAction([&](Async::ActionHandler& handler) {
    return Dml::SubscribeWithoutReport(Core::EntryPoint(kSource.At("Listen", 140)), office, factory,
                                       spec, subscription, handler);
  });
  Async::JobControl control;
  Async::WaitingHandler handler(true);
  control.Run(*subscribe, handler, nullptr);
  const Common::Error result = handler.Wait(nullptr);
  if (result.IsFailure()) {
    Common::Error error(kSubscribeFailed, "SubscribeWithoutReport has failed.",
                        kSource.At("Listen", 160));
    error.SetReason(result);
    throw error;
  }
  return subscription;
}

// Until a character has come or none can come any more.
void WaitForCharacter() {
  char character;
  while (::read(STDIN_FILENO, &character, 1) < 0) {
    if (errno == EAGAIN) {
      pollfd input{STDIN_FILENO, POLLIN, 0};
      ::poll(&input, 1, -1);
    } else if (errno != EINTR) {
      return;
    }
  }
}

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

void ObjectReader::OnCreated(const Por::View::Unit& object) {
  PrintEvent("created", Dml::GetObjectKey(object), object);
}

void ObjectReader::OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) {
  const Common::String id = Dml::GetObjectKeyFromKey(key);
  Output& output = StandardOutput();
  BeginEvent(output, "updated", id);
  PrintPart(output, "key", key);
  PrintPart(output, "diff", diff);
  EndEvent(output, "updated");
}

void ObjectReader::OnDeleted(const Por::View::Unit& key) {
  PrintEvent("deleted", Dml::GetObjectKeyFromKey(key), key);
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

void Listen(Dml::PostOffice& office, const Dml::ViewSpec& spec) {
  const Por::Construction::InMemoryUnitFactory factory;
  const std::unique_ptr<Dml::Subscription> subscription = Subscribe(office, factory, spec);
  ObjectReader reader;
  Async::Synchronizer synchronizer;
  const std::shared_ptr<Async::Job> job =
      Async::RunCyclic(Async::MakeAction([&](Async::ActionHandler& handler) {
                         return subscription->Read(reader, handler);
                       }),
                       synchronizer);
  WaitForCharacter();
  job->Cancel();
  const Common::Error result = synchronizer.Wait(job);
  // The job control may have wrapped the cancel.
  if (!result.IsFailure() || result.HoldsCode(Async::kCanceledCode)) return;
  Common::Error error(kSubscriptionEnded, "Subscription has ended with error.",
                      kSource.At("Listen", 180));
  error.SetReason(result);
  throw error;
}

}  // namespace ObjProbe
