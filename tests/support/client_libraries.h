#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/ipc/client_library.h"

namespace TestSupport {

// The IPC client library and the security library of a test program, behind their ports. They do
// what the test says and write down what happens to them:
//
//   init deinit security                     start and stop
//   local binder bind(HOST,USER,PASSWORD)    the browser of this computer; the way to another
//   connect(SERVICE ID) ~browser ~binder ~point
//
// each followed by a space. Stopping the IPC client fails, which nobody may notice.
struct ClientLibraries {
  static constexpr unsigned int kRefusedCode = 0x77;

  std::string events;

  Common::Error init_error;
  Common::Error browser_error;  // there is a browser all the same
  Common::Error bind_error;
  Common::Error connect_error;
  // What a connect without an error gives. By default a connection that refuses every request with
  // kRefusedCode and notes its end.
  std::function<std::unique_ptr<Binding::AccessPoint>()> make_access_point;

  // Before the IPC client is told to have stopped.
  std::function<void()> in_deinit;

  std::uint32_t security_status = 0;
  std::uint64_t security_started_from = 0;
  std::vector<unsigned char> security_error;  // byte form of the last error, if there is one
};

// Those in force; set them back to their beginning before each test.
extern ClientLibraries client_libraries;

}  // namespace TestSupport
