#include "enterprise/common/security/client/security_library.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include "core/common/error.h"
#include "core/common/unix/safe_close.h"
#include "platform/ipc/ipc_codes.h"

// The security client has nothing to keep: what it can do before the first connection is to find
// out that trust is set up so that no connection can be made, and to say why. It looks at the file
// of certificates itself, as loading the TLS library would cost a local query its start.

namespace Platform::Security {

namespace {

constexpr Common::SourceFile kSource{"platform/security/security_library"};

constexpr char kAuthoritiesName[] = "VELORIN_IPC_CA";
constexpr std::size_t kMaxFileSize = std::size_t{16} << 20;
constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kEnd = "-----END CERTIFICATE-----";

std::mutex mutex;
Common::Error last_error;  // guarded by `mutex`

bool IsBase64(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/' || c == '=';
}

// Whether the text between the lines of a block can be a certificate: base64 of a DER sequence,
// whose first byte 0x30 and length form 0x80 or more make "MI" of its first two characters.
bool IsCertificate(std::string_view body) {
  std::string packed;
  for (const char c : body) {
    if (c == '\n' || c == '\r' || c == ' ' || c == '\t') continue;
    if (!IsBase64(c)) return false;
    packed.push_back(c);
  }
  return packed.size() % 4 == 0 && packed.starts_with("MI");
}

// Why the content is no file of certificates; null when it is one.
const char* FindFault(std::string_view content) {
  std::size_t at = content.find(kBegin);
  if (at == std::string_view::npos) return "The file has no certificate in the PEM form.";
  for (; at != std::string_view::npos; at = content.find(kBegin, at)) {
    const std::size_t body = at + kBegin.size();
    const std::size_t end = content.find(kEnd, body);
    if (end == std::string_view::npos) return "A certificate of the file has no end.";
    if (!IsCertificate(content.substr(body, end - body))) {
      return "A certificate of the file is malformed.";
    }
    at = end + kEnd.size();
  }
  return nullptr;
}

Common::Error CheckAuthorities(const char* path) {
  std::FILE* const file = std::fopen(path, "re");
  if (file == nullptr) {
    return Ipc::MakeSystemError(Ipc::kBadEnvironment, errno, kSource.At("CheckAuthorities", 10),
                                path);
  }
  std::string content;
  char block[16384];
  std::size_t got = 0;
  while (content.size() <= kMaxFileSize && (got = std::fread(block, 1, sizeof block, file)) != 0) {
    content.append(block, got);
  }
  const int failure = std::ferror(file) != 0 ? (errno != 0 ? errno : EIO) : 0;
  Common::SafeFClose(file);
  if (failure != 0) {
    return Ipc::MakeSystemError(Ipc::kBadEnvironment, failure, kSource.At("CheckAuthorities", 20),
                                path);
  }
  const char* const fault =
      content.size() > kMaxFileSize ? "The file is too large." : FindFault(content);
  if (fault == nullptr) return Common::Error();
  return Ipc::MakeReasonedError(Ipc::kBadEnvironment, fault, kSource.At("CheckAuthorities", 30),
                                path);
}

}  // namespace

}  // namespace Platform::Security

std::uint32_t Security_Initialize(std::uint64_t, std::uint32_t, std::uint32_t) {
  using namespace Platform::Security;
  const char* const path = std::getenv(kAuthoritiesName);
  Common::Error outcome;
  if (path != nullptr && *path != 0) outcome = CheckAuthorities(path);
  const std::lock_guard lock(mutex);
  last_error = outcome;
  return outcome.GetCode();
}

void Security_GetLastError(unsigned char** data, std::uint32_t* size) {
  using namespace Platform::Security;
  Common::Error error;
  {
    const std::lock_guard lock(mutex);
    error = last_error;
  }
  if (!error.IsFailure()) return;
  unsigned int length = 0;
  std::unique_ptr<unsigned char[]> bytes = error.Save(length);
  *data = bytes.release();
  *size = length;
}
