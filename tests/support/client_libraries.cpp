#include "tests/support/client_libraries.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "enterprise/common/security/client/security_library.h"
#include "tests/support/text.h"

namespace TestSupport {

ClientLibraries client_libraries;

namespace {

const void* access_point_place = nullptr;  // as the local browser was asked for

void Note(const std::string& event) {
  client_libraries.events.append(event).append(" ");
}

class RefusingAccessPoint final : public Binding::AccessPoint {
 public:
  ~RefusingAccessPoint() override { Note("~point"); }
  Common::Error CreateJob(std::unique_ptr<Binding::Request>,
                          std::unique_ptr<JobManagement::Job>&) override {
    return Common::Error(ClientLibraries::kRefusedCode, Common::LineTag{});
  }
  std::uint32_t GetConnectionKey() override { return 0; }
  Common::Error GetInterfaceVersion(std::uint32_t, std::uint32_t&, std::uint32_t&) override {
    return Common::Error();
  }
};

class NotingBrowser final : public Binding::Browser {
 public:
  explicit NotingBrowser(bool is_local) : is_local_(is_local) {}
  ~NotingBrowser() override { Note("~browser"); }
  Common::Error Connect(unsigned int service_id, unsigned int reserved,
                        std::unique_ptr<Binding::AccessPoint>& access_point,
                        const Binding::WordPair& pair) override {
    if (is_local_) {
      EXPECT_EQ(access_point_place, &access_point);
    }
    EXPECT_EQ(reserved + pair.first + pair.second, 0u);
    Note("connect(" + std::to_string(service_id) + ")");
    if (client_libraries.connect_error.IsFailure()) return client_libraries.connect_error;
    access_point = client_libraries.make_access_point ? client_libraries.make_access_point()
                                                      : std::make_unique<RefusingAccessPoint>();
    return Common::Error();
  }

 private:
  const bool is_local_;
};

class NotingBinder final : public Binding::Binder {
 public:
  NotingBinder() { Note("binder"); }
  ~NotingBinder() override { Note("~binder"); }
  Common::Error Bind(const Binding::ConnectionRecord& record,
                     std::unique_ptr<Binding::Browser>& browser) override {
    EXPECT_EQ(record.reserved, u"");
    std::string event = "bind(";
    event.append(record.host).append(",").append(Utf8(record.user));
    Note(event.append(",").append(Utf8(record.password)).append(")"));
    if (client_libraries.bind_error.IsFailure()) return client_libraries.bind_error;
    browser = std::make_unique<NotingBrowser>(false);
    return Common::Error();
  }
};

}  // namespace
}  // namespace TestSupport

using TestSupport::client_libraries;

void IPCClient_Init(unsigned int reserved, Common::Error& error) {
  EXPECT_EQ(reserved, 0u);
  EXPECT_FALSE(error.IsFailure());
  TestSupport::Note("init");
  error = client_libraries.init_error;
}

void IPCClient_Deinit(Common::Error& error) {
  EXPECT_FALSE(error.IsFailure());
  if (client_libraries.in_deinit) client_libraries.in_deinit();
  TestSupport::Note("deinit");
  error = Common::Error(0x99, Common::LineTag{});
}

std::unique_ptr<Binding::Binder> IPCClient_CreateBinder() {
  return std::make_unique<TestSupport::NotingBinder>();
}

std::unique_ptr<Binding::Browser> IPCClient_GetLocalBrowser(
    Common::Error& error, unsigned int reserved,
    std::unique_ptr<Binding::AccessPoint>& access_point, const Binding::WordPair& pair) {
  EXPECT_FALSE(error.IsFailure());
  EXPECT_EQ(reserved + pair.first + pair.second, 0u);
  TestSupport::Note("local");
  TestSupport::access_point_place = &access_point;
  error = client_libraries.browser_error;
  return std::make_unique<TestSupport::NotingBrowser>(true);
}

std::uint32_t Security_Initialize(std::uint64_t location, std::uint32_t reserved1,
                                  std::uint32_t reserved2) {
  EXPECT_EQ(reserved1 + reserved2, 0u);
  TestSupport::Note("security");
  client_libraries.security_started_from = location;
  return client_libraries.security_status;
}

void Security_GetLastError(unsigned char** data, std::uint32_t* size) {
  EXPECT_EQ(*data, nullptr);
  EXPECT_EQ(*size, 0u);
  const std::vector<unsigned char>& error = client_libraries.security_error;
  if (error.empty()) return;
  *data = new unsigned char[error.size()];
  std::copy(error.begin(), error.end(), *data);
  *size = static_cast<std::uint32_t>(error.size());
}
