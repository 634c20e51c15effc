#include <new>

#include "platform/ipc/tls.h"
#include "platform/ipc/tls_openssl.h"

extern "C" Platform::Ipc::TlsContext* ObjprobeCreateTlsContext(
    const Platform::Ipc::TlsSettings& settings, Common::Error& error);

// The loader's view of Platform::Ipc::CreateTlsContextFunction.
Platform::Ipc::TlsContext* ObjprobeCreateTlsContext(const Platform::Ipc::TlsSettings& settings,
                                                    Common::Error& error) {
  try {
    return Platform::Ipc::CreateOpenSslContext(settings).release();
  } catch (const Common::Error& failure) {
    error = failure;
  } catch (const std::bad_alloc&) {
    error = Common::Error::OutOfMemory();
  }
  return nullptr;
}
