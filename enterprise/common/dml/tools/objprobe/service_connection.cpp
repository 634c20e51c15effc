#include "enterprise/common/dml/tools/objprobe/service_connection.h"

#include <string>
#include <utility>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/text.h"
#include "enterprise/common/dml/client/remoting.h"
#include "enterprise/common/ipc/client/lib/client.h"

namespace ObjProbe {

namespace {

// The lines of this file are from 200; see arguments.cpp.
constexpr Common::SourceFile kSource{"enterprise/common/dml/tools/objprobe/main"};

constexpr char kLocalHost[] = "localhost";

Common::Error MakeConnectionError(const std::string& text, const Common::Error& reason,
                                  std::uint32_t line) {
  Common::Error error(kConnectionFailed, text.c_str(), kSource.At("CreateAccessPoint", line));
  error.SetReason(reason);
  return error;
}

std::string Join(const char* text, const std::string& keyword) {
  std::string result(text);
  result.append(keyword);
  return result;
}

}  // namespace

std::unique_ptr<Binding::AccessPoint> CreateAccessPoint(const Arguments& arguments) {
  const unsigned int service_id = GetServiceId(arguments.service);
  std::unique_ptr<Binding::AccessPoint> access_point;
  if (service_id == kDmlServiceId || arguments.hostname == kLocalHost) {
    const Common::Error error =
        Binding::ConnectLocal(service_id, 0, access_point, Binding::WordPair());
    if (error.IsFailure()) {
      throw MakeConnectionError(Join("Failed to create local connection with ", arguments.service),
                                error, 200);
    }
    return access_point;
  }

  Binding::ConnectionRecord record;
  record.host = arguments.hostname;
  record.user = Common::Utf8ToString(arguments.user.c_str());
  record.password = Common::Utf8ToString(arguments.password.c_str());
  const std::unique_ptr<Binding::Binder> binder = Binding::CreateBinder();
  std::unique_ptr<Binding::Browser> browser;
  if (const Common::Error error = binder->Bind(record, browser); error.IsFailure()) {
    throw MakeConnectionError("Failed to bind to host.", error, 220);
  }
  if (const Common::Error error =
          browser->Connect(service_id, 0, access_point, Binding::WordPair());
      error.IsFailure()) {
    throw MakeConnectionError(Join("Failed to connect to ", arguments.service), error, 240);
  }
  return access_point;
}

std::unique_ptr<Dml::PostOffice> CreateRemotePostOffice(const Arguments& arguments) {
  std::shared_ptr<Binding::AccessPoint> access_point = CreateAccessPoint(arguments);
  std::unique_ptr<Dml::PostOffice> office =
      Dml::Client::CreateRemoteViewProvider(std::move(access_point));
  if (office == nullptr) {
    throw Common::Error(kNoPostOffice, "Failed to create remote post office.",
                        kSource.At("CreateRemotePostOffice", 260));
  }
  return office;
}

}  // namespace ObjProbe
