#include "platform/ipc/tls_openssl.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <climits>
#include <memory>
#include <new>

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/tls_openssl"};

// Takes the thread's queue of errors, of which the last one is the nearest to what was called, and
// the first one to the cause.
std::string TakeReason() {
  const unsigned long first = ::ERR_get_error();
  ::ERR_clear_error();
  if (first == 0) return "The TLS library gives no reason.";
  char text[256];
  ::ERR_error_string_n(first, text, sizeof text);
  return text;
}

// What a failed verification of the peer's certificate comes to.
const IpcFailure& GetFailure(long verification) {
  switch (verification) {
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return kWrongHost;
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return kExpired;
    default:
      return kUntrusted;
  }
}

class OpenSslFilter final : public TlsFilter {
 public:
  // Takes the connection over.
  explicit OpenSslFilter(SSL* ssl)
      : ssl_(ssl), input_(::BIO_new(::BIO_s_mem())), output_(::BIO_new(::BIO_s_mem())) {
    if (input_ == nullptr || output_ == nullptr) {
      ::BIO_free(input_);
      ::BIO_free(output_);
      throw std::bad_alloc();
    }
    BIO_set_mem_eof_return(input_, -1);
    ::SSL_set_bio(ssl_.get(), input_, output_);
  }

  void Feed(std::span<const unsigned char> bytes) override {
    if (::BIO_write(input_, bytes.data(), static_cast<int>(bytes.size())) !=
        static_cast<int>(bytes.size())) {
      throw std::bad_alloc();
    }
  }

  Step Handshake(Common::Error& error) override {
    ::ERR_clear_error();
    const int result = ::SSL_do_handshake(ssl_.get());
    if (result == 1) return Step::kReady;
    if (IsWaiting(result)) return Step::kAgain;
    const long verification = ::SSL_get_verify_result(ssl_.get());
    if (verification != X509_V_OK && ::SSL_is_server(ssl_.get()) == 0) {
      ::ERR_clear_error();
      error =
          MakeReasonedError(GetFailure(verification), ::X509_verify_cert_error_string(verification),
                            kSource.At("Handshake", 10));
    } else {
      error = MakeReasonedError(kTlsFailed, TakeReason(), kSource.At("Handshake", 20));
    }
    return Step::kFailed;
  }

  bool Read(std::span<unsigned char> to, std::size_t& size, Common::Error& error) override {
    size = 0;
    while (size < to.size()) {
      ::ERR_clear_error();
      std::size_t got = 0;
      const int result = ::SSL_read_ex(ssl_.get(), to.data() + size, to.size() - size, &got);
      if (result == 1) {
        size += got;
        continue;
      }
      const int reason = ::SSL_get_error(ssl_.get(), result);
      if (reason == SSL_ERROR_WANT_READ) return true;
      // Nothing that comes behind the peer's orderly end would ever be taken out of `input_`.
      if (reason == SSL_ERROR_ZERO_RETURN) return false;
      error = MakeReasonedError(kTlsFailed, TakeReason(), kSource.At("Read", 30));
      return false;
    }
    return true;
  }

  bool Write(std::span<const unsigned char> bytes, Common::Error& error) override {
    if (bytes.empty()) return true;
    ::ERR_clear_error();
    std::size_t written = 0;
    if (::SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &written) == 1 &&
        written == bytes.size()) {
      return true;
    }
    error = MakeReasonedError(kTlsFailed, TakeReason(), kSource.At("Write", 40));
    return false;
  }

  void TakeOutput(std::vector<unsigned char>& to) override {
    char* data = nullptr;
    const long size = BIO_get_mem_data(output_, &data);
    if (size <= 0) return;
    const auto* const begin = reinterpret_cast<unsigned char*>(data);
    to.insert(to.end(), begin, begin + size);
    static_cast<void>(BIO_reset(output_));
  }

 private:
  bool IsWaiting(int result) const {
    return ::SSL_get_error(ssl_.get(), result) == SSL_ERROR_WANT_READ;
  }

  struct Deleter {
    void operator()(SSL* ssl) const { ::SSL_free(ssl); }
  };
  const std::unique_ptr<SSL, Deleter> ssl_;
  BIO* const input_;   // of `ssl_`
  BIO* const output_;  // of `ssl_`
};

class OpenSslContext final : public TlsContext {
 public:
  explicit OpenSslContext(const TlsSettings& settings)
      : settings_(settings),
        context_(
            ::SSL_CTX_new(settings.is_server ? ::TLS_server_method() : ::TLS_client_method())) {
    SSL_CTX* const context = context_.get();
    if (context == nullptr) Fail(kTlsFailed, {}, kSource.At("OpenSslContext", 50));
    ::SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    ::SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // With version 1.2, only what keeps old connections secret when a key gets out.
    ::SSL_CTX_set_cipher_list(context, "ECDHE+AESGCM:ECDHE+CHACHA20");
    ::SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    if (settings.is_server) {
      PrepareServer();
    } else {
      PrepareClient();
    }
  }

  std::unique_ptr<TlsFilter> CreateFilter() override {
    ::ERR_clear_error();
    SSL* const ssl = ::SSL_new(context_.get());
    if (ssl == nullptr) Fail(kTlsFailed, {}, kSource.At("CreateFilter", 60));
    std::unique_ptr<TlsFilter> filter = std::make_unique<OpenSslFilter>(ssl);
    if (settings_.is_server) {
      ::SSL_set_accept_state(ssl);
      return filter;
    }
    ::SSL_set_connect_state(ssl);
    X509_VERIFY_PARAM* const verification = ::SSL_get0_param(ssl);
    const char* const host = settings_.host.c_str();
    bool good = false;
    if (settings_.host_is_address) {
      good = ::X509_VERIFY_PARAM_set1_ip_asc(verification, host) == 1;
    } else {
      ::X509_VERIFY_PARAM_set_hostflags(
          verification, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
      good = ::X509_VERIFY_PARAM_set1_host(verification, host, settings_.host.size()) == 1 &&
             ::SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                        const_cast<char*>(host)) == 1;
    }
    if (!good) Fail(kTlsFailed, settings_.host, kSource.At("CreateFilter", 70));
    return filter;
  }

 private:
  [[noreturn]] static void Fail(const IpcFailure& failure, const std::string& detail,
                                const Common::LineTag& tag) {
    throw MakeReasonedError(failure, TakeReason(), tag, detail);
  }

  void PrepareServer() {
    SSL_CTX* const context = context_.get();
    // A session can't be resumed, so no tickets for it.
    ::SSL_CTX_set_num_tickets(context, 0);
    ::SSL_CTX_set_options(
        context, SSL_OP_NO_TICKET | SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_CLEANSE_PLAINTEXT);
    ::ERR_clear_error();
    if (::SSL_CTX_use_certificate_chain_file(context, settings_.certificate_file.c_str()) != 1) {
      Fail(kBadPemFile, settings_.certificate_file, kSource.At("PrepareServer", 80));
    }
    // Nobody is there to be asked for a password.
    ::SSL_CTX_set_default_passwd_cb(context, [](char*, int, int, void*) { return -1; });
    if (::SSL_CTX_use_PrivateKey_file(context, settings_.key_file.c_str(), SSL_FILETYPE_PEM) != 1 ||
        ::SSL_CTX_check_private_key(context) != 1) {
      Fail(kBadPemFile, settings_.key_file, kSource.At("PrepareServer", 90));
    }
  }

  void PrepareClient() {
    SSL_CTX* const context = context_.get();
    ::SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    ::ERR_clear_error();
    if (settings_.authorities_file.empty()) {
      if (::SSL_CTX_set_default_verify_paths(context) != 1) {
        Fail(kBadPemFile, {}, kSource.At("PrepareClient", 100));
      }
    } else if (::SSL_CTX_load_verify_locations(context, settings_.authorities_file.c_str(),
                                               nullptr) != 1) {
      Fail(kBadPemFile, settings_.authorities_file, kSource.At("PrepareClient", 110));
    }
  }

  struct Deleter {
    void operator()(SSL_CTX* context) const { ::SSL_CTX_free(context); }
  };
  const TlsSettings settings_;
  const std::unique_ptr<SSL_CTX, Deleter> context_;
};

}  // namespace

std::unique_ptr<TlsContext> CreateOpenSslContext(const TlsSettings& settings) {
  return std::make_unique<OpenSslContext>(settings);
}

}  // namespace Platform::Ipc
