#pragma once

#include <cstdint>
#include <memory>

#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/dml/tools/objprobe/arguments.h"
#include "enterprise/common/ipc/client_library.h"

// The way from the command line to a service. On the main thread, while the IPC client runs
// (Binding::ScopedIPCClient) and behind the start of the security client (Security::Initialize).
// What comes out must be gone before the IPC client stops.

namespace ObjProbe {

// Codes of the failures below; the cause is the reason.
inline constexpr std::uint32_t kConnectionFailed = 3;
inline constexpr std::uint32_t kNoPostOffice = 4;

// A connection to the service of the arguments. The service DML and every service of the host
// "localhost", in exactly these letters, are looked for on this computer, and user and password are
// not used; otherwise they go with the host to the binder.
// Throws Common::Error kConnectionFailed, which tells what failed: the bind to the host, the
// connection to its service or the local connection.
std::unique_ptr<Binding::AccessPoint> CreateAccessPoint(const Arguments& arguments);

// A post office over such a connection, which it keeps. Throws what CreateAccessPoint throws, what
// the post office's making throws, unchanged, and Common::Error kNoPostOffice when that gives none.
std::unique_ptr<Dml::PostOffice> CreateRemotePostOffice(const Arguments& arguments);

}  // namespace ObjProbe
