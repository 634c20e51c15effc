#include "tests/enterprise/common/async/interleaving_explorer.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace Async::Testing {
namespace {

thread_local int current = -1;

}  // namespace

InterleavingExplorer::InterleavingExplorer() {
  for (std::size_t i = 0; i < kMaxThreads; ++i) {
    threads_[i].system = std::thread([this, i] { Loop(static_cast<int>(i)); });
  }
}

InterleavingExplorer::~InterleavingExplorer() {
  for (Thread& thread : threads_) {
    thread.body = nullptr;
    thread.go.release();
    thread.system.join();
  }
}

void InterleavingExplorer::Loop(int number) {
  Thread& self = At(number);
  for (;;) {
    self.go.acquire();
    if (!self.body) return;
    current = number;
    self.body();
    current = -1;
    self.done = true;
    self.remembered = self.glance = 0;
    Resume(PickNext(number));
  }
}

std::string InterleavingExplorer::Explore(const std::function<std::unique_ptr<Scenario>()>& make,
                                          int preemptions) {
  max_preemptions_ = preemptions;
  path_.clear();
  seen_.clear();
  failure_.clear();
  schedules_ = 0;
  do {
    const std::unique_ptr<Scenario> scenario = make();
    scenario_ = scenario.get();
    RunSchedule();
    scenario->Check();
    ++schedules_;
    if (!failure_.empty()) return failure_;
  } while (NextSchedule());
  return {};
}

void InterleavingExplorer::RunSchedule() {
  depth_ = 0;
  preemptions_ = 0;
  trail_.clear();
  std::vector<std::function<void()>> bodies = scenario_->Threads();
  for (std::size_t i = 0; i < bodies.size(); ++i) {
    threads_[i].body = std::move(bodies[i]);
    threads_[i].done = false;
  }
  Resume(PickNext(-1));
  ended_.acquire();
}

void InterleavingExplorer::Resume(int number) {
  (number < 0 ? ended_ : At(number).go).release();
}

void InterleavingExplorer::Point() {
  if (current < 0) return;
  const int self = current;
  const int next = PickNext(self);
  if (next == self) return;
  Resume(next);
  At(self).go.acquire();
}

void InterleavingExplorer::Await(const std::function<bool()>& ready) {
  Thread& self = At(current);
  self.ready = ready;
  Point();
  self.ready = nullptr;
  Remember(1);
}

void InterleavingExplorer::Remember(std::uint64_t value) {
  if (current < 0) return;
  Thread& self = At(current);
  self.remembered = Mix(self.remembered, value + 1);
  self.glance = 0;
}

void InterleavingExplorer::Glance(std::uint64_t value) {
  if (current >= 0) At(current).glance = value + 1;
}

std::uint64_t InterleavingExplorer::History() const {
  return current < 0 ? 0 : At(current).remembered;
}

int InterleavingExplorer::Current() const {
  return current;
}

int InterleavingExplorer::PickNext(int running) {
  std::vector<int> enabled;
  bool all_done = true;
  // The running thread first: the fewest changes of thread come first.
  for (int step = -1; step < static_cast<int>(kMaxThreads); ++step) {
    const int number = step < 0 ? running : step;
    if (number < 0 || (step >= 0 && number == running)) continue;
    const Thread& thread = At(number);
    if (thread.done) continue;
    all_done = false;
    if (!thread.ready || thread.ready()) enabled.push_back(number);
  }
  if (all_done) return -1;
  if (enabled.empty()) Abort("all threads wait");
  const int next = Choose(std::move(enabled), running);
  trail_.push_back(next);
  if (trail_.size() > 2000) Abort("the schedule never ends");
  return next;
}

int InterleavingExplorer::Choose(std::vector<int> enabled, int running) {
  const bool bounded = max_preemptions_ != kUnbounded;
  const bool can_go_on = enabled[0] == running;
  if (bounded && can_go_on && preemptions_ == max_preemptions_) enabled.resize(1);
  if (enabled.size() == 1) return enabled[0];
  if (depth_ == path_.size()) {
    std::uint64_t key = scenario_->Snapshot();
    for (const Thread& thread : threads_) {
      key = Mix(Mix(Mix(key, thread.remembered), thread.glance), thread.done);
    }
    // With a bound, what can still follow depends on these too.
    if (bounded) {
      key = Mix(Mix(key, static_cast<std::uint64_t>(preemptions_)),
                static_cast<std::uint64_t>(can_go_on ? running : -1));
    }
    if (!seen_.insert(key).second) enabled.resize(1);
    path_.push_back({std::move(enabled)});
  }
  const Choice& choice = path_[depth_++];
  const int next = choice.options[choice.index];
  if (can_go_on && next != running) ++preemptions_;
  return next;
}

bool InterleavingExplorer::NextSchedule() {
  while (!path_.empty() && path_.back().index + 1 == path_.back().options.size()) path_.pop_back();
  if (path_.empty()) return false;
  ++path_.back().index;
  return true;
}

void InterleavingExplorer::Fail(const std::string& what) {
  if (failure_.empty()) failure_ = what + Trail();
}

void InterleavingExplorer::Abort(const std::string& what) {
  std::fprintf(stderr, "%s\n", (what + Trail()).c_str());
  std::abort();
}

std::string InterleavingExplorer::Trail() const {
  // "0*12 1*3": thread 0 went on 12 times, then thread 1 three times.
  std::string text = "; schedule";
  for (std::size_t i = 0; i < trail_.size();) {
    std::size_t end = i;
    while (end < trail_.size() && trail_[end] == trail_[i]) ++end;
    text.append(" ").append(std::to_string(trail_[i]));
    if (end - i > 1) text.append("*").append(std::to_string(end - i));
    i = end;
  }
  return text;
}

std::uint64_t InterleavingExplorer::Mix(std::uint64_t hash, std::uint64_t value) {
  // The finaliser of splitmix64 over the running hash.
  std::uint64_t mixed = hash * 0x9e3779b97f4a7c15u + value + 0x9e3779b97f4a7c15u;
  mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9u;
  mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebu;
  return mixed ^ (mixed >> 31);
}

}  // namespace Async::Testing
