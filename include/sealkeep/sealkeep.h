/*
 * sealkeep flat interface: plain functions over OpenSSL objects, C linkage.
 *
 * Conventions for every function declared here:
 *  - Nothing throws. Failures are reported as a null pointer, a false/0/negative
 *    result, or -1 for the tools, together with one fixed English line on
 *    standard error (ending in a newline).
 *  - Results named *_get0_* or documented as "borrowed" belong to their argument
 *    and stay valid only while it lives. Every other pointer result is new and
 *    belongs to the caller: OpenSSL objects are released with their own _free
 *    function, char* strings and byte buffers with free().
 *  - Arguments are borrowed: no function keeps or frees what it is given.
 *
 * The library needs no initialisation call: loading it registers the private
 * object identifiers and makes the GOST engine ("gost") the default for every
 * algorithm.
 */
#ifndef SEALKEEP_SEALKEEP_H
#define SEALKEEP_SEALKEEP_H

#include <stdbool.h>
#include <stddef.h>

#include <openssl/asn1.h>
#include <openssl/asn1t.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/safestack.h>
#include <openssl/x509.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* ------------------------------------------------------------------------- */
/* Attribute structures carried in CMS signed attributes and chain files.     */
/* ------------------------------------------------------------------------- */

/* One signed payload file: its index in the package's file list and its
 * signature blob. */
typedef struct FileSignature {
    ASN1_INTEGER *index;
    ASN1_OCTET_STRING *value;
} FileSignature;
DEFINE_STACK_OF(FileSignature)

/* SEQUENCE { version INTEGER, signatures SEQUENCE OF FileSignature }. */
typedef struct FileSignatures_st {
    ASN1_INTEGER *version;
    STACK_OF(FileSignature) *signatures;
} FileSignatures;

/* The bytes both keys of a proof of rotation sign. */
typedef struct ProofOfRotationSignedAttrs_st {
    X509 *oldCert;
    X509 *newCert;
} ProofOfRotationSignedAttrs;

/* A statement that newCert succeeds oldCert, signed by both keys. The two
 * signatures are OCTET STRINGs (not BIT STRINGs as in X.509). */
typedef struct ProofOfRotation_st {
    ProofOfRotationSignedAttrs *signedAttrs;
    X509_ALGOR *oldSignatureAlgorithm;
    ASN1_OCTET_STRING *oldSignature;
    X509_ALGOR *newSignatureAlgorithm;
    ASN1_OCTET_STRING *newSignature;
} ProofOfRotation;
DEFINE_STACK_OF(ProofOfRotation)

/* SEQUENCE OF ProofOfRotation, oldest rotation first. Released with
 * ProofOfRotationChain_free. */
typedef STACK_OF(ProofOfRotation) ProofOfRotationChain;

DECLARE_ASN1_FUNCTIONS(FileSignature)
DECLARE_ASN1_FUNCTIONS(FileSignatures)
DECLARE_ASN1_FUNCTIONS(ProofOfRotationSignedAttrs)
DECLARE_ASN1_FUNCTIONS(ProofOfRotation)
DECLARE_ASN1_ENCODE_FUNCTIONS_only(ProofOfRotationChain, ProofOfRotationChain)
DECLARE_ASN1_ITEM(ProofOfRotationChain)

/* PEM armour "PROOF OF ROTATION CHAIN"; written without encryption.
 * Readers return a new chain or null; writers return 1 or 0. */
DECLARE_PEM_rw(ProofOfRotationChain, ProofOfRotationChain)

/* ------------------------------------------------------------------------- */
/* Keys and certificates. Strings are malloc'ed and freed by the caller.      */
/* ------------------------------------------------------------------------- */

/* Reads a PEM private key; u, when not null, is the pass phrase. */
EVP_PKEY *private_key_read(const char *path, void *u);
/* Reads every PEM certificate of a file into a new store (possibly empty). */
X509_STORE *certificate_store_read(const char *path);
/* Reads the first PEM certificate of a file. */
X509 *certificate_read(const char *path);
/* The first commonName of the subject, byte for byte. */
char *certificate_get_subject(X509 *cert);
/* The certificate-group text; only for certificates allowed to sign packages. */
char *certificate_get_group(X509 *cert);
/* Lower-case hexadecimal of the Subject Key Identifier. */
char *certificate_get_keyid(X509 *cert);
/* True when cert chains to a certificate of store. */
bool certificate_verify(X509 *cert, X509_STORE *store);

/* ------------------------------------------------------------------------- */
/* CMS readers. A signature has exactly one signer.                          */
/* ------------------------------------------------------------------------- */

/* Decodes DER bytes (no copy up to 0x7FFFFFFF bytes); new CMS or null. */
CMS_ContentInfo *cms_from_der(const unsigned char *buf, long len);
/* The signer's certificate, borrowed from cms (X509_up_ref to keep it). */
X509 *cms_get_certificate(CMS_ContentInfo *cms);
/* The signature value as one line of base64; free() it. */
char *cms_get_signature(CMS_ContentInfo *cms);
/* which == 1: trusted-application signatures; otherwise file signatures.
 * New table, released with FileSignatures_free; null when absent. */
FileSignatures *cms_get_file_signatures(CMS_ContentInfo *cms, int which);
int FileSignatures_count(FileSignatures *s);
/* Entry i, borrowed from s. */
FileSignature *FileSignatures_get0_at(FileSignatures *s, int i);
long FileSignature_index(FileSignature *f);
/* The entry's bytes, borrowed from f; the length is stored in len when given. */
const unsigned char *FileSignature_value(FileSignature *f, int *len);
/* New decoded rotation chain, or null when absent or undecodable. A chain of
 * more than 64 proofs is not decoded (null, with a message naming the limit). */
ProofOfRotationChain *cms_get_rotation_chain(CMS_ContentInfo *cms);

/* ------------------------------------------------------------------------- */
/* Signing and verification.                                                 */
/* ------------------------------------------------------------------------- */

/* A detached CMS over length bytes at data, DER-encoded. The result belongs to
 * the caller (free()); its length goes to outLength. Null on failure. */
unsigned char *cms_sign(const unsigned char *data, size_t length, int signFiles,
                        EVP_PKEY *key, EVP_PKEY *taKey, unsigned int taAlgo,
                        X509 *cert, ProofOfRotationChain *chain,
                        size_t *outLength);

/* The CMS cms_sign makes, for a range known only by its digest: digest is the
 * range's digest by the key's default digest (digestLength bytes, the size of
 * that digest; GOST R 34.11-2012 256-bit for a GOST R 34.10-2012 256-bit
 * key), and the per-file tables, made elsewhere, are given: imaSignatures and
 * taSignatures both or neither (null: no per-file attributes, as cms_sign for
 * anything but a whole RPM package). The signed attributes are those of
 * cms_sign: content type, signing time, message digest (digest), file
 * signatures, trusted-application signatures, rotation chain (when chain is
 * not null; it must end at cert). The tables and the chain are borrowed; the
 * result belongs to the caller (free()), its length goes to outLength. Null
 * on failure, with a message. */
unsigned char *cms_sign_digest(const unsigned char *digest, size_t digestLength,
                               FileSignatures *imaSignatures,
                               FileSignatures *taSignatures, EVP_PKEY *key,
                               X509 *cert, ProofOfRotationChain *chain,
                               size_t *outLength);

/* True when cms has exactly one signer, signs the len bytes at data
 * (directly, or through their GOST R 34.11-2012 digest for an attached CMS),
 * chains to store, and its rotation chain, if any, verifies and ends at the
 * signer. The bytes are streamed, never copied to a temporary file. */
bool cms_verify(const unsigned char *data, long len, CMS_ContentInfo *cms,
                X509_STORE *store);

/* ------------------------------------------------------------------------- */
/* OP-TEE trusted applications in a package payload.                        */
/* ------------------------------------------------------------------------- */

/* The iterator type of librpm (<rpm/rpmtypes.h>) and GLib's byte array
 * (<glib.h>), declared here so that the header needs neither; repeating the
 * same typedef is valid C11 and C++. */
typedef struct rpmfi_s *rpmfi;
typedef struct _GArray GArray;

/* 1 when the current file of fi is a trusted application: a name ending in
 * ".ta" directly under /usr/lib/optee_armtz/; else 0. */
int is_fi_ta(rpmfi fi);
/* The OP-TEE signed header of the trusted application fi stands on, signed
 * with taKey (RSA) by taAlgo (0x70414930 RSASSA-PSS or 0x70004830 PKCS#1
 * v1.5, both SHA-256), as lower-case hex text in a new byte array
 * (g_array_unref). Consumes the file's content from the archive, so it must
 * be called before any of it is read. Null on failure. */
GArray *rpmfi_ta_shdr(rpmfi fi, EVP_PKEY *taKey, unsigned int taAlgo);

/* ------------------------------------------------------------------------- */
/* Proofs of key rotation.                                                   */
/* ------------------------------------------------------------------------- */

/* New proof that newCert succeeds oldCert, signed by both keys. The proof
 * takes its own references to the certificates and keeps nothing of the keys. */
ProofOfRotation *ProofOfRotation_create(X509 *oldCert, EVP_PKEY *oldKey,
                                        X509 *newCert, EVP_PKEY *newKey);
/* 1 when both signatures verify; 0 or negative otherwise. */
int ProofOfRotation_verify(const ProofOfRotation *proof);
X509 *ProofOfRotation_get0_old_cert(const ProofOfRotation *proof);
X509 *ProofOfRotation_get0_new_cert(const ProofOfRotation *proof);

/* Reads a PEM chain file (not verified). */
ProofOfRotationChain *ProofOfRotationChain_read(const char *path);
/* 1 when every proof verifies and each links to the next by key identifier
 * (an empty chain is valid); 0 or negative otherwise. A chain of more than 64
 * proofs (a monthly rotation for five years makes 60) is refused with 0
 * before any proof is checked. */
int ProofOfRotationChain_verify(ProofOfRotationChain *chain);
/* Number of proofs; -1 for a null chain. */
int ProofOfRotationChain_count(ProofOfRotationChain *chain);
/* Proof at index, borrowed from chain; null outside it. */
ProofOfRotation *ProofOfRotationChain_get0_at(ProofOfRotationChain *chain,
                                              unsigned int index);
/* Releases every proof and the stack. */
void ProofOfRotationChain_free(ProofOfRotationChain *chain);

/* Appends the rotation oldCert -> newCert to the chain in inChainPath (or to
 * an empty chain when null), verifies it and writes it to outPath. The two
 * paths may name the same file. 0 on success, -1 on failure. */
int make_proof_of_rotation_chain(const char *outPath, const char *inChainPath,
                                 const char *oldCertPath, const char *oldKeyPath,
                                 const char *newCertPath, const char *newKeyPath);

/* ------------------------------------------------------------------------- */
/* Certificate authority tools. 0 on success, -1 on failure.                  */
/* ------------------------------------------------------------------------- */

/* Self-signed CA certificate for the key in keyPath. The output file is
 * created first and left in place (possibly empty) on failure. */
int make_ca_certificate(const char *outPath, const char *keyPath,
                        const char *commonName);
/* Signer certificate for the request in csrPath, issued by the CA; group may
 * be null. The output file is created only after signing succeeded. */
int make_certificate(const char *outPath, const char *csrPath,
                     const char *caKeyPath, const char *caCertPath,
                     const char *group);
/* The same two with a key the caller holds (read from a file, or held by an
 * engine such as a PKCS#11 token's); the key stays the caller's. */
int make_ca_certificate_with_key(const char *outPath, EVP_PKEY *key,
                                 const char *commonName);
int make_certificate_with_key(const char *outPath, const char *csrPath,
                              EVP_PKEY *caKey, const char *caCertPath,
                              const char *group);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* SEALKEEP_SEALKEEP_H */
