// cms_verify: checks one CMS against the bytes it covers and a store of
// trusted CA certificates, then the key-rotation chain it may carry.
//
// Two kinds of CMS are accepted. A detached CMS signs the covered bytes
// directly. An attached CMS carries the GOST R 34.11-2012 256-bit digest of
// the covered bytes as its content and signs that, so a large package can be
// signed by its digest.
#include <sealkeep/sealkeep.h>

#include <cstdio>
#include <cstring>

#include <glib.h>
#include <openssl/err.h>

#include "common/bio_source.hpp"
#include "common/digests.hpp"
#include "common/ossl_ptr.hpp"

namespace {

using namespace sealkeep;

bool failVerification()
{
    fprintf(stderr, "CMS verification failed\n");
    return false;
}

bool verifyAttached(const unsigned char* data, long len, CMS_ContentInfo* cms, X509_STORE* store)
{
    BioPtr out(BIO_new(BIO_s_mem()));
    if (!out)
        return failVerification();
    if (CMS_verify(cms, nullptr, store, nullptr, out.get(), CMS_BINARY) != 1) {
        fprintf(stderr, "Unable to verify CMS certificate chain\n");
        return failVerification();
    }
    char* content = nullptr;
    long contentLength = BIO_get_mem_data(out.get(), &content);

    auto digest = gostDigestOf(data, len > 0 ? static_cast<size_t>(len) : 0);
    if (!digest) {
        fprintf(stderr, "Could not calculate digest for data\n");
        return failVerification();
    }
    if (static_cast<size_t>(contentLength) != digest->size()) {
        fprintf(stderr, "CMS contains digest with wrong length (expected %u, got %ld)\n",
                static_cast<unsigned>(digest->size()), contentLength);
        return failVerification();
    }
    if (memcmp(content, digest->data(), digest->size()) != 0) {
        fprintf(stderr, "Digests differ from each other (signed data was corrupted?)\n");
        return failVerification();
    }
    return true;
}

bool verifyDetached(const unsigned char* data, long len, CMS_ContentInfo* cms, X509_STORE* store)
{
    BioPtr content(bioOverBytes(data, len > 0 ? static_cast<size_t>(len) : 0));
    if (!content)
        return failVerification();
    if (CMS_verify(cms, nullptr, store, content.get(), nullptr, CMS_BINARY) != 1) {
        ERR_print_errors_fp(stderr);
        return failVerification();
    }
    return true;
}

// A rotation chain that does not decode has printed its message and counts
// as absent, like a signature without rotation.
bool verifyRotation(CMS_ContentInfo* cms)
{
    ChainPtr chain(cms_get_rotation_chain(cms));
    if (!chain)
        return true;
    if (ProofOfRotationChain_verify(chain.get()) < 1) {
        fprintf(stderr, "Proof-of-rotation chain verification failed\n");
        return false;
    }
    int count = ProofOfRotationChain_count(chain.get());
    if (count == 0)
        return true;
    X509* newest = ProofOfRotation_get0_new_cert(
        ProofOfRotationChain_get0_at(chain.get(), static_cast<unsigned>(count - 1)));
    X509* signer = cms_get_certificate(cms);
    MallocPtr newestKeyid(newest ? certificate_get_keyid(newest) : nullptr);
    MallocPtr signerKeyid(signer ? certificate_get_keyid(signer) : nullptr);
    if (g_strcmp0(newestKeyid.get(), signerKeyid.get()) != 0) {
        fprintf(stderr, "Last keyid in rotation chain does not match with CMS certificate\n");
        return false;
    }
    return true;
}

}  // namespace

extern "C" bool cms_verify(const unsigned char* data, long len, CMS_ContentInfo* cms, X509_STORE* store)
{
    if (!cms || (!data && len > 0))
        return failVerification();
    bool signatureValid = CMS_is_detached(cms) ? verifyDetached(data, len, cms, store)
                                               : verifyAttached(data, len, cms, store);
    return signatureValid && verifyRotation(cms);
}
