// cms_verify: checks one CMS against the bytes it covers and a store of
// trusted CA certificates, then the key-rotation chain it may carry.
//
// Two kinds of CMS are accepted. A detached CMS signs the covered bytes
// directly. An attached CMS carries the GOST R 34.11-2012 256-bit digest of
// the covered bytes as its content and signs that, so a large package can be
// signed by its digest.
//
// The covered bytes reach OpenSSL as a stream (see common/streaming_bio.hpp),
// so their size costs time but never memory or a temporary file.
#include "cms_verify_content.hpp"

#include <sealkeep/sealkeep.h>

#include <cstdio>
#include <cstring>

#include <glib.h>
#include <openssl/err.h>

#include "cms_rotation_chain.hpp"
#include "common/digests.hpp"
#include "common/ossl_ptr.hpp"
#include "common/rotation_end.hpp"
#include "common/streaming_bio.hpp"

namespace {

using namespace sealkeep;

bool failVerification()
{
    fprintf(stderr, "CMS verification failed\n");
    return false;
}

// Which check a failed CMS_verify stopped at, read from OpenSSL's error queue
// before it is printed. CMS_verify checks the signer's certificate, then the
// signature over the signed attributes, then the content's digest, and the
// last error it raises names the check that failed. Anything else (the
// covered bytes could not be read to their end) counts against the content.
CmsCheck failedCmsVerify()
{
    unsigned long error = ERR_peek_last_error();
    if (ERR_GET_LIB(error) != ERR_LIB_CMS)
        return CmsCheck::ContentDigest;
    switch (ERR_GET_REASON(error)) {
    case CMS_R_CERTIFICATE_VERIFY_ERROR:
        return CmsCheck::CertificateChain;
    case CMS_R_VERIFICATION_FAILURE:
        return CmsCheck::Signature;
    default:
        return CmsCheck::ContentDigest;
    }
}

CmsCheck failWith(CmsCheck check)
{
    failVerification();
    return check;
}

CmsCheck verifyAttached(BIO* covered, CMS_ContentInfo* cms, X509_STORE* store)
{
    BioPtr out(BIO_new(BIO_s_mem()));
    if (!out)
        return failWith(CmsCheck::Malformed);
    if (CMS_verify(cms, nullptr, store, nullptr, out.get(), CMS_BINARY) != 1) {
        CmsCheck failed = failedCmsVerify();
        fprintf(stderr, "Unable to verify CMS certificate chain\n");
        return failWith(failed);
    }
    char* content = nullptr;
    long contentLength = BIO_get_mem_data(out.get(), &content);

    auto digest = gostDigestOfBio(covered);
    if (!digest) {
        fprintf(stderr, "Could not calculate digest for data\n");
        return failWith(CmsCheck::ContentDigest);
    }
    if (static_cast<size_t>(contentLength) != digest->size()) {
        fprintf(stderr, "CMS contains digest with wrong length (expected %u, got %ld)\n",
                static_cast<unsigned>(digest->size()), contentLength);
        return failWith(CmsCheck::ContentDigest);
    }
    if (memcmp(content, digest->data(), digest->size()) != 0) {
        fprintf(stderr, "Digests differ from each other (signed data was corrupted?)\n");
        return failWith(CmsCheck::ContentDigest);
    }
    return CmsCheck::Passed;
}

CmsCheck verifyDetached(BIO* covered, CMS_ContentInfo* cms, X509_STORE* store)
{
    if (CMS_verify(cms, nullptr, store, covered, nullptr, CMS_BINARY) != 1) {
        CmsCheck failed = failedCmsVerify();
        ERR_print_errors_fp(stderr);
        return failWith(failed);
    }
    return CmsCheck::Passed;
}

// A rotation chain that does not decode has printed its message and counts
// as absent, like a signature without rotation. One longer than the limit is
// refused, not ignored: the signer did claim a rotation.
CmsCheck verifyRotation(CMS_ContentInfo* cms)
{
    bool tooLong = false;
    ChainPtr chain(readRotationChain(cms, &tooLong));
    if (tooLong) {
        fprintf(stderr, "Proof-of-rotation chain verification failed\n");
        return CmsCheck::RotationInvalid;
    }
    if (!chain)
        return CmsCheck::Passed;
    if (ProofOfRotationChain_verify(chain.get()) < 1) {
        fprintf(stderr, "Proof-of-rotation chain verification failed\n");
        return CmsCheck::RotationInvalid;
    }
    // An empty chain claims no rotation: there is nothing for it to end at.
    if (rotationChainEnd(chain.get(), cms_get_certificate(cms)) == RotationEnd::Elsewhere) {
        fprintf(stderr, "Last keyid in rotation chain does not match with CMS certificate\n");
        return CmsCheck::RotationNotAtSigner;
    }
    return CmsCheck::Passed;
}

// The readers answer only for a CMS with exactly one signer, so a second
// signer would go unseen by them: its rotation chain would read as absent and
// every accessor would answer empty for a signature that was accepted.
bool hasOneSigner(CMS_ContentInfo* cms)
{
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
    int count = signers ? sk_CMS_SignerInfo_num(signers) : 0;
    if (count == 1)
        return true;
    fprintf(stderr, "CMS verification needs exactly one signer (found: %d)\n", count);
    return false;
}

}  // namespace

namespace sealkeep {

CmsCheck checkCmsContent(BIO* content, CMS_ContentInfo* cms, X509_STORE* store)
{
    // Whatever earlier calls left in OpenSSL's error queue (reading the CA
    // store, for one) is not part of this check's report.
    ERR_clear_error();
    if (!cms || !content)
        return failWith(CmsCheck::Malformed);
    if (!hasOneSigner(cms))
        return failWith(CmsCheck::Malformed);
    CmsCheck signature = CMS_is_detached(cms) ? verifyDetached(content, cms, store)
                                              : verifyAttached(content, cms, store);
    return signature == CmsCheck::Passed ? verifyRotation(cms) : signature;
}

bool verifyCmsContent(BIO* content, CMS_ContentInfo* cms, X509_STORE* store)
{
    return checkCmsContent(content, cms, store) == CmsCheck::Passed;
}

}  // namespace sealkeep

extern "C" bool cms_verify(const unsigned char* data, long len, CMS_ContentInfo* cms, X509_STORE* store)
{
    if (!data && len > 0)
        return failVerification();
    BioPtr content(bioStreamingBytes(data, len > 0 ? static_cast<size_t>(len) : 0));
    return verifyCmsContent(content.get(), cms, store);
}
