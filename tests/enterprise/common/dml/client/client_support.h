#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/dml/reader.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/dml/scripted_post_office.h"

namespace Dml::Client::Testing {

// Assertions that are meant to come go to the trace only. Read at the first report.
[[maybe_unused]] inline const int assertions_to_trace = setenv("VELORIN_SAFE_ASSERT", "event", 1);

inline Common::Error Failure(std::uint32_t code) {
  return Common::Error(code, Common::LineTag{});
}

// Keeps what it is told, then does something. Threads: told on any, asked on any.
class TellingHandler final : public Async::ActionHandler {
 public:
  void Completed(Common::Error result) override {
    std::function<void()> next;
    {
      const std::lock_guard lock(mutex_);
      ++count_;
      thread = std::this_thread::get_id();
      next = then;
    }
    // What the test does here comes before it is told.
    std::optional<Common::Error> raised;
    try {
      if (next) next();
    } catch (const Common::Error& error) {
      raised = error;
    }
    {
      const std::lock_guard lock(mutex_);
      result_ = std::move(result);
      changed_.notify_all();
    }
    if (raised) throw Common::Error(*raised);
  }
  // The last result; waits for the first. Throws after 10 seconds.
  Common::Error Await() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(10), [&] { return result_.has_value(); })) {
      throw std::runtime_error("nobody tells the handler");
    }
    return *result_;
  }
  int Count() {
    const std::lock_guard lock(mutex_);
    return count_;
  }

  std::function<void()> then;
  std::thread::id thread;  // that told last

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
  std::optional<Common::Error> result_;
};

// Notes numbers, for example "+1+2", then does something.
class NotingObjects final : public ReportReader {
 public:
  using ReportReader::Read;
  void Read(const Por::View::Unit& object) override {
    read.append("+").append(std::to_string(Por::Util::GetValue<unsigned int>(object)));
    if (in_read) in_read();
  }
  std::string read;
  std::function<void()> in_read;
};

inline Por::OwnedUnit Number(unsigned int value) {
  return Por::GetStaticUnitFactory()->CreateDWord(value);
}
inline Por::OwnedUnit Marked(Por::OwnedUnit unit, const char* mark, Por::OwnedUnit value) {
  Por::Util::AddTrait(*unit, Por::Name::FromImmortal(mark), std::move(value),
                      *Por::GetStaticUnitFactory());
  return unit;
}
// A unit of a channel.
inline Por::OwnedUnit InChannel(unsigned int channel, Por::OwnedUnit unit) {
  return Marked(std::move(unit), "ChannelID", Number(channel));
}

using ViewManagement::ViewUpdate;

inline ViewUpdate Created(Por::SharedUnit object) {
  return {ViewManagement::kUpdateCreated, std::move(object), nullptr};
}
inline ViewUpdate Created(unsigned int value) {
  return Created(Por::SharedUnit(Number(value)));
}
inline ViewUpdate Created(unsigned int channel, unsigned int value) {
  return Created(Por::SharedUnit(InChannel(channel, Number(value))));
}
// A record of the channel that is itself a mark.
inline ViewUpdate Mark(unsigned int channel, const char* mark, Por::OwnedUnit unit = Number(0)) {
  return Created(Por::SharedUnit(
      InChannel(channel, Marked(std::move(unit), mark, Por::GetStaticUnitFactory()->CreateNil()))));
}

inline std::string Element(const std::string& name, const std::string& content) {
  std::string element("<");
  return element.append(name).append(">").append(content).append("</").append(name).append(">");
}
// A reply of the method whose "result" is success.
inline std::string ReplyOf(const char* method, const std::string& results) {
  return Element(std::string("reply_ViewManager_").append(method),
                 std::string("<result>AQ==</result>").append(results));
}

}  // namespace Dml::Client::Testing
