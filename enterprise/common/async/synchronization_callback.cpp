#include "enterprise/common/async/synchronization_callback.h"

#include "core/common/unix/safe_assert.h"
#include "core/common/unix/tls.h"
#include "enterprise/common/async/service.h"

namespace Async {
namespace {

// From a callback that has been counted outwards, up to a suppressed one or one that hides the
// rest.
void InvokeChain(SynchronizationCallback* callback, Job* job) {
  while (callback->SuppressCount.load() <= 0 && !callback->Invoke(job)) {
    callback = callback->GetNext();
    if (callback == nullptr) return;
    callback->CallCount.fetch_add(1);
  }
}

// Adds to the suppression. When that ends it, what was suppressed is delivered now.
void Adjust(SynchronizationCallback& callback, std::int64_t delta) {
  const std::int32_t before = callback.SuppressCount.fetch_add(static_cast<std::int32_t>(delta));
  if (before > 0 && before + delta <= 0 && callback.CallCount.load() != 0)
    InvokeChain(&callback, nullptr);
}

// Never destroyed: threads of libraries may still notify while the program exits.
TlsSynchronizationCallbackStorage& ProcessStorage() {
  static auto* const storage = new TlsSynchronizationCallbackStorage;
  return *storage;
}

// The storage exists from start-up.
[[maybe_unused]] const SynchronizationCallbackStorage& made_at_start = ProcessStorage();

}  // namespace

TlsSynchronizationCallbackStorage::TlsSynchronizationCallbackStorage()
    : key_(Common::Tls::Allocate(nullptr)) {}

TlsSynchronizationCallbackStorage::~TlsSynchronizationCallbackStorage() {
  Common::Tls::Free(key_);
}

SynchronizationCallback* TlsSynchronizationCallbackStorage::Current() {
  return static_cast<SynchronizationCallback*>(Common::Tls::Get(key_));
}

void TlsSynchronizationCallbackStorage::Push(SynchronizationCallback* callback) {
  SynchronizationCallback* const top = Current();
  if (top != nullptr) Adjust(*callback, top->SuppressCount.load());
  callback->SetNext(top);
  Common::Tls::Set(key_, callback);
}

SynchronizationCallback* TlsSynchronizationCallbackStorage::Pop() {
  SynchronizationCallback* const top = Current();
  SynchronizationCallback* next = nullptr;
  if (top != nullptr) {
    next = top->GetNext();
    // The next one takes over the suppression of the top.
    if (next != nullptr) {
      Adjust(*next, std::int64_t{top->SuppressCount.load()} - next->SuppressCount.load());
    }
  }
  Common::Tls::Set(key_, next);
  return top;
}

void TlsSynchronizationCallbackStorage::Notify(Job* job) {
  SynchronizationCallback* const top = Current();
  if (top == nullptr) return;
  top->CallCount.fetch_add(1);
  InvokeChain(top, job);
}

SynchronizationCallbackStorage* GetSynchronizationCallbackStorage() {
  Service* service = nullptr;
  GetAsyncService(&service);
  return service != nullptr ? service->GetSynchronizationCallbackStorage() : &ProcessStorage();
}

void NotifySynchronization(Job* job) {
  GetSynchronizationCallbackStorage()->Notify(job);
}

ScopedSynchronizationCallback::ScopedSynchronizationCallback()
    : storage_(GetSynchronizationCallbackStorage()) {
  storage_->Push(this);
}

ScopedSynchronizationCallback::~ScopedSynchronizationCallback() {
  storage_->Pop();
}

void ScopedSynchronizationCallback::SetNext(SynchronizationCallback* callback) {
  SAFE_ASSERT(Next == 0);
  Next = callback;
}

}  // namespace Async
