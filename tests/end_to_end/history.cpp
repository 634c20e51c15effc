#include "tests/end_to_end/history.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "core/common/guid.h"
#include "core/common/number_text.h"
#include "core/common/text.h"
#include "enterprise/common/por/parser/in_memory_data_reader.h"
#include "enterprise/common/por/parser/unit_construction_format.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"

namespace EndToEnd {

namespace {

constexpr std::size_t kFirstThings = 20;
constexpr std::size_t kMostThings = 60;

}  // namespace

std::string MakeThingId(std::uint64_t id) {
  char text[40];
  std::snprintf(text, sizeof text, "%08llX-0000-0000-0000-000000000000",
                static_cast<unsigned long long>(id));
  return text;
}

std::string MakeThing(std::uint64_t id, std::uint64_t change) {
  return ".Composite().Trait(\"PrimaryKey\").Guid(" + MakeThingId(id) +
         ").End().Trait(\"Is\").String(\"Thing\").End().Property(\"Change\").QWord(" +
         std::to_string(change) + ").End().Property(\"Name\").String(\"name\").End().End()";
}

Por::OwnedUnit ParseThing(std::uint64_t id, std::uint64_t change) {
  Utils::InMemoryDataReader reader(Common::Utf8ToString(MakeThing(id, change).c_str()));
  Utils::UnitConstructionFormat format;
  format.SetTrace(false);
  return format.Read(reader, *Por::GetStaticUnitFactory());
}

History::History(const std::string& store) : writer_(store) {
  writer_.Begin();
  for (std::size_t i = 0; i < kFirstThings; ++i) Make(kCreated, next_id_++);
  Commit();
}

void History::Commit() {
  changes_.back().is_last = true;
  writer_.Commit();
}

void History::Make(Kind kind, std::uint64_t id) {
  const std::size_t number = changes_.size();
  if (kind == kDeleted) {
    Common::Guid guid;
    Common::GuidFromString(guid, MakeThingId(id).c_str());
    writer_.Delete(guid);
  } else {
    writer_.Put(*ParseThing(id, number));
  }
  if (const auto found = things_.find(id); found != things_.end()) {
    changes_[found->second].next = number;
  }
  if (kind == kDeleted) {
    things_.erase(id);
    deleted_[MakeThingId(id)] = number;
  } else {
    things_[id] = number;
  }
  changes_.push_back({kind, id, kNone, things_.size(), false});
}

void History::Change(std::mt19937& random) {
  writer_.Begin();
  for (std::size_t count = random() % 4 == 0 ? 1 + random() % 5 : 1; count != 0; --count) {
    const std::size_t choice = random() % 10;
    const auto thing = std::next(things_.begin(), static_cast<long>(random() % things_.size()));
    if (choice < 2 && things_.size() < kMostThings) {
      Make(kCreated, next_id_++);
    } else if (choice < 4 && things_.size() > 1) {
      Make(kDeleted, thing->first);
    } else {
      Make(kUpdated, thing->first);
    }
  }
  Commit();
}

std::size_t History::Find(const Event& event, bool& is_snapshot) const {
  if (event.kind == "deleted") {
    const auto found = deleted_.find(event.id);
    return found == deleted_.end() ? kNone : found->second;
  }
  const std::string_view sign = "Change (y) = ";
  const std::size_t at = event.body.find(sign);
  if (at == std::string::npos) return kNone;
  const std::size_t number = std::stoull(event.body.substr(at + sign.size()));
  if (number >= changes_.size() || changes_[number].kind == kDeleted ||
      MakeThingId(changes_[number].id) != event.id) {
    return kNone;
  }
  const bool is_updated = event.kind == "updated";
  is_snapshot = !is_updated && (event.kind != "created" || changes_[number].kind != kCreated);
  return !is_updated || changes_[number].kind == kUpdated ? number : kNone;
}

std::string History::Check(const std::vector<Event>& events, Extent extent) const {
  std::vector<std::size_t> numbers;
  std::size_t first_change = 1;  // no event before it can be a change; there are always things
  for (const Event& event : events) {
    bool is_snapshot = false;
    numbers.push_back(Find(event, is_snapshot));
    if (numbers.back() == kNone) {
      return "event " + std::to_string(numbers.size()) + " tells of no change: " + Join({event});
    }
    if (is_snapshot) first_change = numbers.size();
  }
  std::string closest;
  for (std::size_t split = first_change; split <= std::min(numbers.size(), kMostThings); ++split) {
    const auto middle = numbers.begin() + static_cast<std::ptrdiff_t>(split);
    // Where the snapshot may have been taken. Deletions behind its last change can't be seen.
    std::size_t low = *std::max_element(numbers.begin(), middle);
    std::size_t high = std::min(changes_.size() - 1, low + 2 * kMostThings);
    if (middle != numbers.end()) {
      if (*middle <= low) continue;
      low = high = *middle - 1;
    }
    for (std::size_t moment = low; moment <= high; ++moment) {
      if (!IsSnapshot({numbers.begin(), middle}, moment)) continue;
      const std::string failure = CheckChanges({middle, numbers.end()}, moment, extent);
      if (failure.empty()) return "";
      closest = failure;
    }
  }
  const bool is_begun = std::all_of(events.begin(), events.end(),
                                    [](const Event& event) { return event.kind == "created"; });
  if (extent == Extent::kPart && is_begun && numbers.size() < kMostThings) return "";
  return closest.empty() ? "no moment has these things: " + Join(events).substr(0, 10000) : closest;
}

bool History::IsSnapshot(std::vector<std::size_t> numbers, std::size_t moment) const {
  if (!changes_[moment].is_last || changes_[moment].thing_count != numbers.size()) return false;
  std::sort(numbers.begin(), numbers.end());
  return std::adjacent_find(numbers.begin(), numbers.end()) == numbers.end() &&
         std::all_of(numbers.begin(), numbers.end(), [&](std::size_t number) {
           return number <= moment && changes_[number].kind != kDeleted &&
                  changes_[number].next > moment;
         });
}

std::string History::CheckChanges(const std::vector<std::size_t>& numbers, std::size_t moment,
                                  Extent extent) const {
  std::size_t last = moment;
  for (const std::size_t number : numbers) {
    if (number != last + 1) {
      return "behind change " + std::to_string(last) + " comes " + std::to_string(number);
    }
    last = number;
  }
  if (extent != Extent::kAll || last + 1 == changes_.size()) return "";
  return "the last change is " + std::to_string(last) + " and not " +
         std::to_string(changes_.size() - 1);
}

bool History::HasSeenAll(const std::vector<Event>& events) const {
  bool ignored = false;
  return !events.empty() && Find(events.back(), ignored) + 1 == changes_.size();
}

}  // namespace EndToEnd
