// The ASN.1 structures carried in CMS signed attributes and in chain files,
// with their item functions and the PEM functions of the rotation chain.
// Every field is universal-tagged and mandatory.
#include <sealkeep/sealkeep.h>

#include <openssl/asn1t.h>
#include <openssl/pem.h>

extern "C" {

ASN1_SEQUENCE(FileSignature) = {
    ASN1_SIMPLE(FileSignature, index, ASN1_INTEGER),
    ASN1_SIMPLE(FileSignature, value, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(FileSignature)
IMPLEMENT_ASN1_FUNCTIONS(FileSignature)

ASN1_SEQUENCE(FileSignatures) = {
    ASN1_SIMPLE(FileSignatures, version, ASN1_INTEGER),
    ASN1_SEQUENCE_OF(FileSignatures, signatures, FileSignature),
} ASN1_SEQUENCE_END(FileSignatures)
IMPLEMENT_ASN1_FUNCTIONS(FileSignatures)

ASN1_SEQUENCE(ProofOfRotationSignedAttrs) = {
    ASN1_SIMPLE(ProofOfRotationSignedAttrs, oldCert, X509),
    ASN1_SIMPLE(ProofOfRotationSignedAttrs, newCert, X509),
} ASN1_SEQUENCE_END(ProofOfRotationSignedAttrs)
IMPLEMENT_ASN1_FUNCTIONS(ProofOfRotationSignedAttrs)

ASN1_SEQUENCE(ProofOfRotation) = {
    ASN1_SIMPLE(ProofOfRotation, signedAttrs, ProofOfRotationSignedAttrs),
    ASN1_SIMPLE(ProofOfRotation, oldSignatureAlgorithm, X509_ALGOR),
    ASN1_SIMPLE(ProofOfRotation, oldSignature, ASN1_OCTET_STRING),
    ASN1_SIMPLE(ProofOfRotation, newSignatureAlgorithm, X509_ALGOR),
    ASN1_SIMPLE(ProofOfRotation, newSignature, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(ProofOfRotation)
IMPLEMENT_ASN1_FUNCTIONS(ProofOfRotation)

ASN1_ITEM_TEMPLATE(ProofOfRotationChain) =
    ASN1_EX_TEMPLATE_TYPE(ASN1_TFLG_SEQUENCE_OF, 0, proofs, ProofOfRotation)
ASN1_ITEM_TEMPLATE_END(ProofOfRotationChain)
IMPLEMENT_ASN1_ENCODE_FUNCTIONS_fname(ProofOfRotationChain, ProofOfRotationChain,
                                      ProofOfRotationChain)

}  // extern "C"

// OpenSSL's PEM macros rely on C's implicit conversion from void*, so the
// four PEM functions of the chain are spelled out.
namespace {

constexpr const char* chainPemLabel = "PROOF OF ROTATION CHAIN";

d2i_of_void* chainDecoder()
{
    return reinterpret_cast<d2i_of_void*>(d2i_ProofOfRotationChain);
}

i2d_of_void* chainEncoder()
{
    return reinterpret_cast<i2d_of_void*>(i2d_ProofOfRotationChain);
}

}  // namespace

extern "C" {

ProofOfRotationChain* PEM_read_bio_ProofOfRotationChain(BIO* bio, ProofOfRotationChain** x,
                                                        pem_password_cb* cb, void* u)
{
    return static_cast<ProofOfRotationChain*>(
        PEM_ASN1_read_bio(chainDecoder(), chainPemLabel, bio, reinterpret_cast<void**>(x), cb, u));
}

ProofOfRotationChain* PEM_read_ProofOfRotationChain(FILE* file, ProofOfRotationChain** x,
                                                    pem_password_cb* cb, void* u)
{
    return static_cast<ProofOfRotationChain*>(
        PEM_ASN1_read(chainDecoder(), chainPemLabel, file, reinterpret_cast<void**>(x), cb, u));
}

int PEM_write_bio_ProofOfRotationChain(BIO* bio, const ProofOfRotationChain* chain)
{
    return PEM_ASN1_write_bio(chainEncoder(), chainPemLabel, bio, chain, nullptr, nullptr, 0,
                              nullptr, nullptr);
}

int PEM_write_ProofOfRotationChain(FILE* file, const ProofOfRotationChain* chain)
{
    return PEM_ASN1_write(chainEncoder(), chainPemLabel, file, chain, nullptr, nullptr, 0, nullptr,
                          nullptr);
}

}  // extern "C"
