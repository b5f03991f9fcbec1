#ifndef ORV_IDENTITY_GNUTLS_OBJECT_H_
#define ORV_IDENTITY_GNUTLS_OBJECT_H_

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

namespace orv {

// Owns one GnuTLS object from its init call to its deinit call. A failed init leaves
// the handle null and keeps the error code for the caller's message.
template <typename Handle, int (*Init)(Handle*), void (*Deinit)(Handle)>
class GnutlsObject {
 public:
  GnutlsObject() : result_(Init(&handle_)) {
    if (result_ < 0) handle_ = nullptr;
  }
  virtual ~GnutlsObject() {
    if (handle_ != nullptr) Deinit(handle_);
  }
  GnutlsObject(const GnutlsObject&) = delete;
  GnutlsObject& operator=(const GnutlsObject&) = delete;

  Handle get() const { return handle_; }
  bool ok() const { return handle_ != nullptr; }
  int result() const { return result_; }

 private:
  Handle handle_ = nullptr;
  int result_;
};

using X509PrivateKey = GnutlsObject<gnutls_x509_privkey_t, gnutls_x509_privkey_init, gnutls_x509_privkey_deinit>;
using AbstractPrivateKey = GnutlsObject<gnutls_privkey_t, gnutls_privkey_init, gnutls_privkey_deinit>;
using CertificateRequest = GnutlsObject<gnutls_x509_crq_t, gnutls_x509_crq_init, gnutls_x509_crq_deinit>;
using X509Certificate = GnutlsObject<gnutls_x509_crt_t, gnutls_x509_crt_init, gnutls_x509_crt_deinit>;

}  // namespace orv

#endif  // ORV_IDENTITY_GNUTLS_OBJECT_H_
