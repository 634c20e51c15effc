#pragma once

#include <memory>

#include "platform/ipc/tls.h"

namespace Platform::Ipc {

// TLS 1.2 and newer by OpenSSL. Throws Common::Error kBadPemFile, kTlsFailed.
std::unique_ptr<TlsContext> CreateOpenSslContext(const TlsSettings& settings);

}  // namespace Platform::Ipc
