// Load-time set-up of the library: seeds the random pool from the clock,
// registers the private object identifiers and the certificate-group
// extension, and makes the GOST engine the default for every algorithm.
// It never fails the load; problems are printed and later operations that
// need GOST fail in their own places.
#include <cstdio>
#include <ctime>

#include <openssl/engine.h>
#include <openssl/objects.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include "common/objects.hpp"

namespace sealkeep {

int packageSigningNid = NID_undef;
int certificateGroupNid = NID_undef;
int packageFileSignaturesNid = NID_undef;
int rotationChainNid = NID_undef;
int packageTrustletSignaturesNid = NID_undef;

namespace {

void seedRandomFromClock()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    static_assert(sizeof(now.tv_nsec) == 8, "the seed is the 8 bytes of tv_nsec");
    RAND_seed(&now.tv_nsec, 8);
}

void registerObjects()
{
    packageSigningNid = OBJ_create("1.2.999.4.17.1.1.1", "packageSigning",
                                   "Package Signing Extended Key Usage");
    certificateGroupNid = OBJ_create("1.2.999.4.17.1.2.1", "certificateGroup", "Certificate Group");
    packageFileSignaturesNid = OBJ_create("1.2.999.4.17.1.3.1", "packageFileSignatures",
                                          "Package File Signatures");
    rotationChainNid = OBJ_create("1.2.999.4.17.1.3.2", "rotationChain", "Key Rotation Chain");
    packageTrustletSignaturesNid = OBJ_create("1.2.999.4.17.1.3.3", "packageTrustletSignatures",
                                              "Package Trustlet Signatures");
}

void makeGostEngineDefault()
{
    ENGINE_load_builtin_engines();
    ENGINE* engine = ENGINE_by_id("gost");
    if (!engine) {
        fprintf(stderr, "The 'gost' engine isn't available\n");
        return;
    }
    if (ENGINE_init(engine)) {
        ENGINE_set_default(engine, ENGINE_METHOD_ALL);
        ENGINE_finish(engine);
    } else {
        fprintf(stderr, "Could not initialize 'gost' engine\n");
    }
    ENGINE_free(engine);
}

__attribute__((constructor)) void initializeLibrary()
{
    seedRandomFromClock();
    registerObjects();
    if (!X509V3_EXT_add_alias(certificateGroupNid, NID_netscape_comment))
        fprintf(stderr, "Could not register X509 alias\n");
    makeGostEngineDefault();
}

}  // namespace
}  // namespace sealkeep
