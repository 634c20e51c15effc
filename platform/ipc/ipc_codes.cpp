#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

Common::Error MakeError(const IpcFailure& failure, const Common::LineTag& tag,
                        const std::string& detail) {
  if (detail.empty()) return Common::Error(failure.code, failure.text, tag);
  std::string text(failure.text);
  text.append(" (").append(detail).append(")");
  return Common::Error(failure.code, text.c_str(), tag);
}

Common::Error MakeSystemError(const IpcFailure& failure, int errnum, const Common::LineTag& tag,
                              const std::string& detail) {
  Common::Error error = MakeError(failure, tag, detail);
  error.AddPosixError(errnum, tag);
  return error;
}

Common::Error MakeReasonedError(const IpcFailure& failure, const std::string& reason,
                                const Common::LineTag& tag, const std::string& detail) {
  return MakeReasonedError(failure, Common::Error(kSystemReason.code, reason.c_str(), tag), tag,
                           detail);
}

Common::Error MakeReasonedError(const IpcFailure& failure, const Common::Error& reason,
                                const Common::LineTag& tag, const std::string& detail) {
  Common::Error error = MakeError(failure, tag, detail);
  error.SetReason(reason);
  return error;
}

}  // namespace Platform::Ipc
