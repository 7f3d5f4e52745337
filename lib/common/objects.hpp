// The numeric identifiers OpenSSL assigned to this library's private object
// identifiers (arc 1.2.999.4.17). Written once by the load-time constructor
// and only read afterwards.
#ifndef SEALKEEP_COMMON_OBJECTS_HPP
#define SEALKEEP_COMMON_OBJECTS_HPP

namespace sealkeep {

extern int packageSigningNid;
extern int certificateGroupNid;
extern int packageFileSignaturesNid;
extern int rotationChainNid;
extern int packageTrustletSignaturesNid;

// NID_id_GostR3411_2012_256, provided by the GOST engine.
constexpr int gostR3411_2012_256Nid = 982;

}  // namespace sealkeep

#endif
