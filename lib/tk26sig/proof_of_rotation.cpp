// Proofs of key rotation: a statement naming an old and a new certificate,
// signed by both keys, and chains of them linked by subject key identifier,
// oldest first. Also the tool that appends one rotation to a chain file.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include <openssl/pem.h>

#include <openssl/x509v3.h>

#include <sealkeep/sealkeep.h>

#include "common/digests.hpp"
#include "common/open_file.hpp"
#include "common/pem_file.hpp"
#include "common/ossl_ptr.hpp"
#include "common/rotation_limit.hpp"

namespace sealkeep {
namespace {

constexpr const char* oldKeyFailure = "Could not sign proof-of-rotation with old key\n";
constexpr const char* newKeyFailure = "Could not sign proof-of-rotation with new key\n";

// Replaces the empty certificate a new structure comes with by a reference
// of the proof's own.
void holdCertificate(X509** slot, X509* cert)
{
    X509_up_ref(cert);
    X509_free(*slot);
    *slot = cert;
}

ProofOfRotation* newProofOver(X509* oldCert, X509* newCert)
{
    ProofPtr proof(ProofOfRotation_new());
    if (!proof)
        return nullptr;
    holdCertificate(&proof->signedAttrs->oldCert, oldCert);
    holdCertificate(&proof->signedAttrs->newCert, newCert);
    return proof.release();
}

// Signs the DER of the proof's signed part with key into one algorithm and
// signature pair.
bool signSignedPart(ProofOfRotation* proof, EVP_PKEY* key, X509_ALGOR* algorithm,
                    ASN1_OCTET_STRING* signature, const char* failureMessage)
{
    if (!key) {
        fputs(failureMessage, stderr);
        return false;
    }
    const EVP_MD* md = defaultDigestOfKey(key);
    if (!md)
        return false;
    if (ASN1_item_sign(ASN1_ITEM_rptr(ProofOfRotationSignedAttrs), algorithm, nullptr, signature,
                       proof->signedAttrs, key, md) < 1) {
        fputs(failureMessage, stderr);
        return false;
    }
    return true;
}

int verifySignedPart(const ProofOfRotation* proof, X509* cert, X509_ALGOR* algorithm,
                     ASN1_OCTET_STRING* signature, const char* failureMessage)
{
    EVP_PKEY* key = cert ? X509_get0_pubkey(cert) : nullptr;
    if (!key)
        return -1;
    int result = ASN1_item_verify(ASN1_ITEM_rptr(ProofOfRotationSignedAttrs), algorithm, signature,
                                  proof->signedAttrs, key);
    if (result < 1)
        fputs(failureMessage, stderr);
    return result;
}

ASN1_OCTET_STRING* subjectKeyIdentifier(X509* cert)
{
    return static_cast<ASN1_OCTET_STRING*>(
        X509_get_ext_d2i(cert, NID_subject_key_identifier, nullptr, nullptr));
}

// Checks proof i of a chain: its signatures, then that it starts where the
// previous proof ended. On success previousNewId becomes proof i's new
// identifier.
int verifyLink(const ProofOfRotation* proof, int i, Asn1OctetStringPtr& previousNewId)
{
    int verified = ProofOfRotation_verify(proof);
    if (verified < 1) {
        fprintf(stderr, "Could not verify proof[%d]\n", i);
        return verified;
    }
    Asn1OctetStringPtr oldId(subjectKeyIdentifier(ProofOfRotation_get0_old_cert(proof)));
    if (!oldId) {
        fprintf(stderr, "Old certificate in proof[%d] has no SKID\n", i);
        return 0;
    }
    if (previousNewId && ASN1_OCTET_STRING_cmp(previousNewId.get(), oldId.get()) != 0) {
        fprintf(stderr, "New SKID from proof[%d] does not match old SKID from proof[%d]\n", i - 1, i);
        return 0;
    }
    Asn1OctetStringPtr newId(subjectKeyIdentifier(ProofOfRotation_get0_new_cert(proof)));
    if (!newId) {
        fprintf(stderr, "New certificate in proof[%d] has no SKID\n", i);
        return 0;
    }
    previousNewId = std::move(newId);
    return 1;
}

// The chain of the first "PROOF OF ROTATION CHAIN" block of the PEM text;
// null when there is none, or when it holds more proofs than the limit
// (reported).
ProofOfRotationChain* decodeChainPem(std::vector<char> const& pem)
{
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    char* name = nullptr;
    unsigned char* der = nullptr;
    long length = 0;
    if (!bio || PEM_bytes_read_bio(&der, &length, &name, "PROOF OF ROTATION CHAIN", bio.get(), nullptr,
                                   nullptr) != 1)
        return nullptr;
    OpensslBytesPtr ownedDer(der);
    OPENSSL_free(name);
    if (rotationCountExceedsLimit(sequenceElementCount(der, length)))
        return nullptr;
    const unsigned char* cursor = der;
    return d2i_ProofOfRotationChain(nullptr, &cursor, length);
}

// The chain in inChainPath, or a new empty one when no path is given.
ProofOfRotationChain* startingChain(const char* inChainPath)
{
    if (inChainPath)
        return ProofOfRotationChain_read(inChainPath);
    return sk_ProofOfRotation_new_null();
}

// The certificates and keys of one rotation, read from their files.
struct RotationFiles {
    X509Ptr oldCert;
    PkeyPtr oldKey;
    X509Ptr newCert;
    PkeyPtr newKey;
};

// Reads the four files in order and stops at the first that fails (which
// prints its own message).
bool readRotationFiles(RotationFiles& files, const char* oldCertPath, const char* oldKeyPath,
                       const char* newCertPath, const char* newKeyPath)
{
    files.oldCert.reset(certificate_read(oldCertPath));
    if (!files.oldCert)
        return false;
    files.oldKey.reset(private_key_read(oldKeyPath, nullptr));
    if (!files.oldKey)
        return false;
    files.newCert.reset(certificate_read(newCertPath));
    if (!files.newCert)
        return false;
    files.newKey.reset(private_key_read(newKeyPath, nullptr));
    return files.newKey != nullptr;
}

// Appends the rotation as the chain's newest proof.
bool appendRotation(ProofOfRotationChain* chain, const RotationFiles& files)
{
    ProofPtr proof(ProofOfRotation_create(files.oldCert.get(), files.oldKey.get(),
                                          files.newCert.get(), files.newKey.get()));
    if (!proof || !sk_ProofOfRotation_push(chain, proof.get()))
        return false;
    proof.release();  // the chain owns it now
    return true;
}

// Writes the chain as PEM. A file that could not be written completely is
// removed, so that no truncated chain is left for a later reader.
bool saveChain(const char* outPath, ProofOfRotationChain* chain)
{
    FilePtr file = openFile(outPath, "wb");
    if (!file) {
        fprintf(stderr, "Could not open resulting proof-of-rotation chain file: %m\n");
        return false;
    }
    bool written = writePemAndClose(std::move(file), [chain](FILE* out) {
        return PEM_write_ProofOfRotationChain(out, chain);
    });
    if (!written) {
        remove(outPath);
        fprintf(stderr, "Could not save resulting proof-of-rotation chain file\n");
    }
    return written;
}

}  // namespace
}  // namespace sealkeep

using namespace sealkeep;

extern "C" {

ProofOfRotation* ProofOfRotation_create(X509* oldCert, EVP_PKEY* oldKey, X509* newCert,
                                        EVP_PKEY* newKey)
{
    // Without both certificates there is nothing to sign, so already the
    // first signature cannot be made.
    if (!oldCert || !newCert) {
        fputs(oldKeyFailure, stderr);
        return nullptr;
    }
    ProofPtr proof(newProofOver(oldCert, newCert));
    if (!proof)
        return nullptr;
    if (!signSignedPart(proof.get(), oldKey, proof->oldSignatureAlgorithm, proof->oldSignature,
                        oldKeyFailure))
        return nullptr;
    if (!signSignedPart(proof.get(), newKey, proof->newSignatureAlgorithm, proof->newSignature,
                        newKeyFailure))
        return nullptr;
    return proof.release();
}

int ProofOfRotation_verify(const ProofOfRotation* proof)
{
    if (!proof)
        return -1;
    int result = verifySignedPart(proof, ProofOfRotation_get0_old_cert(proof),
                                  proof->oldSignatureAlgorithm, proof->oldSignature,
                                  "Could not verify old signature in proof-of-rotation\n");
    if (result < 1)
        return result;
    return verifySignedPart(proof, ProofOfRotation_get0_new_cert(proof),
                            proof->newSignatureAlgorithm, proof->newSignature,
                            "Could not verify new signature in proof-of-rotation\n");
}

X509* ProofOfRotation_get0_old_cert(const ProofOfRotation* proof)
{
    return proof && proof->signedAttrs ? proof->signedAttrs->oldCert : nullptr;
}

X509* ProofOfRotation_get0_new_cert(const ProofOfRotation* proof)
{
    return proof && proof->signedAttrs ? proof->signedAttrs->newCert : nullptr;
}

ProofOfRotationChain* ProofOfRotationChain_read(const char* path)
{
    // The file is read whole, and only when it is small enough; its DER is
    // then counted before any proof is decoded: reading a chain file costs
    // no more than verifying the same chain in a signature.
    std::vector<char> pem;
    if (!readRegularFile(path, static_cast<std::size_t>(maxChainBytes), pem)) {
        if (errno == EFBIG) {
            struct stat status {};
            long long size = stat(path, &status) == 0 ? status.st_size : maxChainBytes + 1;
            chainSizeExceedsLimit(size > maxChainBytes ? size : maxChainBytes + 1);
        } else {
            fprintf(stderr, "Could not open proof-of-rotation: %m\n");
        }
        return nullptr;
    }
    ChainPtr chain(decodeChainPem(pem));
    if (!chain)
        fprintf(stderr, "Could not read proof-of-rotation chain\n");
    return chain.release();
}

int ProofOfRotationChain_verify(ProofOfRotationChain* chain)
{
    Asn1OctetStringPtr previousNewId;
    int count = ProofOfRotationChain_count(chain);
    if (rotationCountExceedsLimit(count))
        return 0;
    for (int i = 0; i < count; ++i) {
        int verified = verifyLink(sk_ProofOfRotation_value(chain, i), i, previousNewId);
        if (verified < 1)
            return verified;
    }
    return 1;
}

int ProofOfRotationChain_count(ProofOfRotationChain* chain)
{
    return sk_ProofOfRotation_num(chain);
}

ProofOfRotation* ProofOfRotationChain_get0_at(ProofOfRotationChain* chain, unsigned int index)
{
    int count = ProofOfRotationChain_count(chain);
    if (count < 1 || index >= static_cast<unsigned int>(count))
        return nullptr;
    return sk_ProofOfRotation_value(chain, static_cast<int>(index));
}

void ProofOfRotationChain_free(ProofOfRotationChain* chain)
{
    sk_ProofOfRotation_pop_free(chain, ProofOfRotation_free);
}

int make_proof_of_rotation_chain(const char* outPath, const char* inChainPath,
                                 const char* oldCertPath, const char* oldKeyPath,
                                 const char* newCertPath, const char* newKeyPath)
{
    RotationFiles files;
    if (!readRotationFiles(files, oldCertPath, oldKeyPath, newCertPath, newKeyPath))
        return -1;
    // The whole input chain is in memory before outPath is opened, so both
    // paths may name the same file.
    ChainPtr chain(startingChain(inChainPath));
    if (!chain || !appendRotation(chain.get(), files))
        return -1;
    if (ProofOfRotationChain_verify(chain.get()) < 1)
        return -1;
    return saveChain(outPath, chain.get()) ? 0 : -1;
}

}  // extern "C"
