#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

namespace Platform::Ipc::Test {

// A certificate with its key, as PEM files.
class Certificate {
 public:
  // `names` as in "DNS:localhost,IP:127.0.0.1"; empty: an authority. Signed by `issuer`, or by
  // itself. Valid from `from` to `to` seconds from now.
  Certificate(const std::string& common_name, const std::string& names, const Certificate* issuer,
              long from = -3600, long to = 3600)
      : key_(::EVP_EC_gen("P-256")), certificate_(::X509_new()) {
    X509* const x509 = certificate_.get();
    static long serial = 1;
    bool good = ::X509_set_version(x509, 2) == 1 &&
                ::ASN1_INTEGER_set(::X509_get_serialNumber(x509), ++serial) == 1 &&
                ::X509_gmtime_adj(::X509_getm_notBefore(x509), from) != nullptr &&
                ::X509_gmtime_adj(::X509_getm_notAfter(x509), to) != nullptr &&
                ::X509_set_pubkey(x509, key_.get()) == 1 &&
                ::X509_NAME_add_entry_by_txt(
                    ::X509_get_subject_name(x509), "CN", MBSTRING_ASC,
                    reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1, 0) == 1;
    const Certificate& signer = issuer != nullptr ? *issuer : *this;
    good = good &&
           ::X509_set_issuer_name(x509, ::X509_get_subject_name(signer.certificate_.get())) == 1;
    good = good && (names.empty() ? AddExtension(NID_basic_constraints, "critical,CA:TRUE")
                                  : AddExtension(NID_subject_alt_name, names));
    if (!good || ::X509_sign(x509, signer.key_.get(), ::EVP_sha256()) == 0) {
      throw std::runtime_error("no certificate");
    }
  }

  // Gives the path.
  std::string WriteCertificate(const std::string& path) const {
    return Write(path, [&](std::FILE* file) { return ::PEM_write_X509(file, certificate_.get()); });
  }
  std::string WriteKey(const std::string& path) const {
    return Write(path, [&](std::FILE* file) {
      return ::PEM_write_PrivateKey(file, key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
  }

 private:
  struct Deleter {
    void operator()(EVP_PKEY* key) const { ::EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { ::X509_free(certificate); }
  };

  bool AddExtension(int id, const std::string& value) {
    X509_EXTENSION* const extension = ::X509V3_EXT_conf_nid(nullptr, nullptr, id, value.c_str());
    const bool good =
        extension != nullptr && ::X509_add_ext(certificate_.get(), extension, -1) == 1;
    ::X509_EXTENSION_free(extension);
    return good;
  }
  template <class Function>
  static std::string Write(const std::string& path, Function&& write) {
    std::FILE* const file = std::fopen(path.c_str(), "w");
    if (file == nullptr || write(file) != 1) throw std::runtime_error("can't write " + path);
    std::fclose(file);
    return path;
  }

  std::unique_ptr<EVP_PKEY, Deleter> key_;
  std::unique_ptr<X509, Deleter> certificate_;
};

}  // namespace Platform::Ipc::Test
