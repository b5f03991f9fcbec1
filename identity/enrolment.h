#ifndef ORV_IDENTITY_ENROLMENT_H_
#define ORV_IDENTITY_ENROLMENT_H_

namespace orv {

// Obtains a complete identity from the certificate authority: its certificate into
// ca.crt, a new key and request, and the signed certificate into server.pem.
bool enrol();

}  // namespace orv

#endif  // ORV_IDENTITY_ENROLMENT_H_
