// Fuzzes hostile package bytes through cms_sign with per-file signatures: the
// RPM header, the payload decompressors, the archive walk, trusted-application
// names and hard-link sets. The signer (GOST R 34.10-2012, 256 bits) and the
// trusted-application key (RSA-2048) are made once per process.
#include <sealkeep/sealkeep.h>

#include <cstdlib>

#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <rpm/rpmlog.h>

namespace {

constexpr int gost2012_256 = 979;
constexpr unsigned int taRsaPss = 0x70414930;

EVP_PKEY* generate(int id, const char* option, const char* value)
{
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_id(id, nullptr);
    EVP_PKEY* key = nullptr;
    if (ctx && EVP_PKEY_keygen_init(ctx) == 1 && EVP_PKEY_CTX_ctrl_str(ctx, option, value) > 0)
        EVP_PKEY_keygen(ctx, &key);
    EVP_PKEY_CTX_free(ctx);
    return key;
}

// A self-signed certificate with a subject key identifier, which is all that
// cms_sign needs of its signer.
X509* certificateFor(EVP_PKEY* key)
{
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("fuzz signer"), -1, -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(cert));
    X509V3_CTX v3;
    X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
    if (X509_EXTENSION* ski = X509V3_EXT_conf_nid(nullptr, &v3, NID_subject_key_identifier, "01:02:03:04:05:06")) {
        X509_add_ext(cert, ski, -1);
        X509_EXTENSION_free(ski);
    }
    int nid = 0;
    EVP_PKEY_get_default_digest_nid(key, &nid);
    X509_sign(cert, key, EVP_get_digestbyname(OBJ_nid2sn(nid)));
    return cert;
}

struct Keys {
    EVP_PKEY* signer = generate(gost2012_256, "paramset", "A");
    X509* cert = signer ? certificateFor(signer) : nullptr;
    EVP_PKEY* ta = generate(EVP_PKEY_RSA, "rsa_keygen_bits", "2048");
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Made once and kept for the life of the process.
    static const Keys* keys = new Keys;
    if (!keys->cert || !keys->ta)
        abort();
    size_t length = 0;
    unsigned char* der = cms_sign(data, size, 1, keys->signer, keys->ta, taRsaPss, keys->cert, nullptr, &length);
    free(der);
    // Failures leave OpenSSL's reasons queued and librpm's messages in its
    // process-wide log; neither may pile up, or libFuzzer stops looking for
    // leaks after every input.
    ERR_clear_error();
    rpmlogClose();
    return 0;
}
