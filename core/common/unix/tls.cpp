#include "core/common/unix/tls.h"

#include <pthread.h>

#include "core/common/unix/safe_assert.h"

namespace Common {

static_assert(sizeof(pthread_key_t) == sizeof(std::uint32_t));

std::uint32_t Tls::Allocate(void (*destructor)(void*)) noexcept {
  pthread_key_t key;
  return pthread_key_create(&key, destructor) == 0 ? key : OUT_OF_INDEXES;
}

bool Tls::Free(std::uint32_t key) noexcept {
  SAFE_ASSERT(key != Common::Tls::OUT_OF_INDEXES);
  return key != OUT_OF_INDEXES && pthread_key_delete(key) == 0;
}

void* Tls::Get(std::uint32_t key) noexcept {
  SAFE_ASSERT(key != Common::Tls::OUT_OF_INDEXES);
  return key != OUT_OF_INDEXES ? pthread_getspecific(key) : nullptr;
}

bool Tls::Set(std::uint32_t key, void* value) noexcept {
  SAFE_ASSERT(key != Common::Tls::OUT_OF_INDEXES);
  return key != OUT_OF_INDEXES && pthread_setspecific(key, value) == 0;
}

}  // namespace Common
