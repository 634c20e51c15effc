#pragma once

#include <cstdint>
#include <string>

#include "core/common/error.h"

// Failures of the transport. The reason behind such an error is the system's, where it has one: a
// record of the POSIX kind, or one with the code kSystemReason and the words of the resolver, the
// loader or the TLS library.

namespace Platform::Ipc {

struct IpcFailure {
  std::uint32_t code;
  const char* text;  // ASCII
};

// Use of the library.
inline constexpr IpcFailure kSystemReason{0xAD0100, "The system gave a reason."};
inline constexpr IpcFailure kNotStarted{0xAD0101, "The IPC client is not running."};
inline constexpr IpcFailure kNullRequest{0xAD0102, "There is no request to send."};
inline constexpr IpcFailure kJobUsedTwice{0xAD0103, "The call was started before."};
inline constexpr IpcFailure kCancelled{0xAD0104, "The call was cancelled."};
inline constexpr IpcFailure kDeinitInCallback{
    0xAD0105, "The IPC client can't be stopped from inside one of its callbacks."};
inline constexpr IpcFailure kNoResources{0xAD0106, "The system lacks resources for the transport."};
inline constexpr IpcFailure kRequestRaised{
    0xAD0107, "The request raised an exception that is no error of this system."};
inline constexpr IpcFailure kBadEnvironment{
    0xAD0108, "The file of certificates in VELORIN_IPC_CA can't be used."};
inline constexpr IpcFailure kNoResult{0xAD0109, "The request has read no result from its reply."};
inline constexpr IpcFailure kNullHandler{0xAD010A, "There is no handler to be told."};

// Ways to a service.
inline constexpr IpcFailure kBadAddress{0xAD0110, "The address of the host is malformed."};
inline constexpr IpcFailure kUnknownHost{0xAD0111, "The host is unknown."};
inline constexpr IpcFailure kConnectRefused{0xAD0112, "The host refused the connection."};
inline constexpr IpcFailure kConnectTimedOut{0xAD0113,
                                             "The service did not answer in time to connect."};
inline constexpr IpcFailure kConnectFailed{0xAD0114, "The host can't be reached."};
inline constexpr IpcFailure kClosedEarly{
    0xAD0115, "The peer closed the connection before the handshake had ended."};
inline constexpr IpcFailure kVersionMismatch{
    0xAD0116, "The peer speaks no version of the transport that is known here."};
inline constexpr IpcFailure kWrongPassword{0xAD0117, "The user or the password is wrong."};
inline constexpr IpcFailure kUnknownService{0xAD0118, "The peer does not have this service."};
inline constexpr IpcFailure kTooManyConnections{0xAD0119, "The service has too many connections."};
inline constexpr IpcFailure kNotAdmitted{
    0xAD011A, "The service admits only its own user and root on this computer."};

inline constexpr IpcFailure kLongCredentials{0xAD011B, "The user or the password is too long."};

// Services of this computer.
inline constexpr IpcFailure kNoRuntimeDirectory{
    0xAD0120, "There is no runtime directory with services of this computer."};
inline constexpr IpcFailure kUnsafeRuntimeDirectory{
    0xAD0121, "The runtime directory belongs to another user, or others may write it."};
inline constexpr IpcFailure kNoLocalService{0xAD0122, "The service does not run on this computer."};
inline constexpr IpcFailure kWrongOwner{
    0xAD0123, "The service, or its socket, belongs neither to root nor to this user."};
inline constexpr IpcFailure kSocketInUse{0xAD0124, "Another server has this service already."};
inline constexpr IpcFailure kListenFailed{0xAD0125, "The server can't listen."};

// TLS.
inline constexpr IpcFailure kNoTls{0xAD0130, "The module of TLS can't be loaded."};
inline constexpr IpcFailure kUntrusted{0xAD0131, "The certificate of the host is not trusted."};
inline constexpr IpcFailure kWrongHost{0xAD0132, "The certificate is not one of this host."};
inline constexpr IpcFailure kExpired{0xAD0133,
                                     "The certificate of the host is not valid at this time."};
inline constexpr IpcFailure kTlsFailed{0xAD0134, "The encrypted connection failed."};
inline constexpr IpcFailure kBadPemFile{0xAD0135,
                                        "The file of certificates or of a key can't be used."};

// Connections.
inline constexpr IpcFailure kConnectionLost{0xAD0140, "The connection was lost."};
inline constexpr IpcFailure kPeerSilent{0xAD0141, "The peer has been silent for too long."};
inline constexpr IpcFailure kPeerStalled{0xAD0142, "The peer has not read for too long."};
inline constexpr IpcFailure kMalformedFrame{0xAD0143, "The peer sent a malformed frame."};
inline constexpr IpcFailure kFrameTooLong{0xAD0144, "The peer sent a frame that is too long."};
inline constexpr IpcFailure kUnexpectedFrame{0xAD0145,
                                             "The peer sent a frame that has no place there."};
inline constexpr IpcFailure kServerStopped{0xAD0146, "The server was stopped."};
inline constexpr IpcFailure kLeft{0xAD0147, "The connection was ended on this side."};
inline constexpr IpcFailure kNotConnected{0xAD0148, "The connection to the service is gone."};

// Calls.
inline constexpr IpcFailure kRequestTooLarge{0xAD0150, "The request is too large."};
inline constexpr IpcFailure kReplyTooLarge{0xAD0151, "The reply is too large."};
inline constexpr IpcFailure kTooManyCalls{0xAD0152, "Too many calls are open on the connection."};
inline constexpr IpcFailure kOutputFull{0xAD0153, "Too much waits for the peer to take it."};
inline constexpr IpcFailure kInputFull{0xAD0154,
                                       "The open requests of the connection are too large."};
inline constexpr IpcFailure kNoAnswer{0xAD0155, "The service dropped the call unanswered."};
inline constexpr IpcFailure kUnknownInterface{0xAD0156,
                                              "The service does not have this interface."};
inline constexpr IpcFailure kNotAnswered{0xAD0157, "The service did not answer the call in time."};

// `detail`, if there is one, stands behind the failure's text: "text (detail)".
Common::Error MakeError(const IpcFailure& failure, const Common::LineTag& tag,
                        const std::string& detail = {});
// With the system's reason behind it: an errno, or words.
Common::Error MakeSystemError(const IpcFailure& failure, int errnum, const Common::LineTag& tag,
                              const std::string& detail = {});
Common::Error MakeReasonedError(const IpcFailure& failure, const std::string& reason,
                                const Common::LineTag& tag, const std::string& detail = {});
Common::Error MakeReasonedError(const IpcFailure& failure, const Common::Error& reason,
                                const Common::LineTag& tag, const std::string& detail = {});

}  // namespace Platform::Ipc
