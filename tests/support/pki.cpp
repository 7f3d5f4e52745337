// The test PKI: GOST keys made in-process, requests, and certificates issued
// by the library's certificate authority or built by hand.
#include "support/pki.hpp"

#include <stdexcept>

#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <sealkeep/sealkeep.h>

namespace sealkeep::test {

namespace {

constexpr int gost2012_256Nid = 979;
constexpr int gost2012_512Nid = 980;

void require(bool condition, std::string const& what)
{
    if (!condition)
        throw std::runtime_error("test PKI: " + what);
}

FilePtr openOrThrow(std::string const& path, const char* mode)
{
    FilePtr file(fopen(path.c_str(), mode));
    require(file != nullptr, "cannot open " + path);
    return file;
}

void setCommonName(X509_NAME* name, std::string const& commonName)
{
    require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(commonName.c_str()),
                                       -1, -1, 0) == 1,
            "cannot set common name " + commonName);
}

}  // namespace

const EVP_MD* defaultDigestOf(EVP_PKEY* key)
{
    int nid = 0;
    require(EVP_PKEY_get_default_digest_nid(key, &nid) > 0, "no default digest");
    const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(nid));
    require(md != nullptr, "default digest unavailable");
    return md;
}

std::string generateKey(std::string const& path, int bits, const char* paramset)
{
    PkeyCtxPtr context(
        EVP_PKEY_CTX_new_id(bits == 512 ? gost2012_512Nid : gost2012_256Nid, nullptr));
    require(context && EVP_PKEY_keygen_init(context.get()) == 1 &&
                EVP_PKEY_CTX_ctrl_str(context.get(), "paramset", paramset) > 0,
            "cannot set up GOST key generation");
    EVP_PKEY* made = nullptr;
    require(EVP_PKEY_keygen(context.get(), &made) == 1, "GOST key generation failed");
    PkeyPtr key(made);
    FilePtr file = openOrThrow(path, "wb");
    require(PEM_write_PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
            "cannot write " + path);
    return path;
}

void writeRequest(std::string const& keyPath, std::string const& csrPath,
                  std::string const& commonName)
{
    PkeyPtr key = loadKey(keyPath);
    X509ReqPtr request(X509_REQ_new());
    require(request && X509_REQ_set_version(request.get(), 0) == 1 &&
                X509_REQ_set_pubkey(request.get(), key.get()) == 1,
            "cannot build request");
    setCommonName(X509_REQ_get_subject_name(request.get()), commonName);
    require(X509_REQ_sign(request.get(), key.get(), defaultDigestOf(key.get())) > 0,
            "cannot sign request");
    FilePtr file = openOrThrow(csrPath, "wb");
    require(PEM_write_X509_REQ(file.get(), request.get()) == 1, "cannot write " + csrPath);
}

PkeyPtr loadKey(std::string const& path)
{
    FilePtr file = openOrThrow(path, "rb");
    PkeyPtr key(PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr));
    require(key != nullptr, "cannot read key " + path);
    return key;
}

X509Ptr loadCertificate(std::string const& path)
{
    FilePtr file = openOrThrow(path, "rb");
    X509Ptr cert(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
    require(cert != nullptr, "cannot read certificate " + path);
    return cert;
}

void saveCertificate(X509* cert, std::string const& path)
{
    FilePtr file = openOrThrow(path, "wb");
    require(PEM_write_X509(file.get(), cert) == 1, "cannot write " + path);
}

X509Ptr makeBareCertificate(EVP_PKEY* key, std::string const& commonName)
{
    X509Ptr cert(X509_new());
    require(cert && X509_set_version(cert.get(), 2) == 1 &&
                ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) == 1 &&
                X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0) &&
                X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365L * 24 * 3600) &&
                X509_set_pubkey(cert.get(), key) == 1,
            "cannot build certificate");
    setCommonName(X509_get_subject_name(cert.get()), commonName);
    setCommonName(X509_get_issuer_name(cert.get()), commonName);
    return cert;
}

void addExtension(X509* cert, int nid, std::string const& value, X509* issuer)
{
    X509V3_CTX context{};
    X509V3_set_ctx(&context, issuer ? issuer : cert, cert, nullptr, nullptr, 0);
    X509ExtPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
    require(extension && X509_add_ext(cert, extension.get(), -1) == 1,
            "cannot add extension " + value);
}

void addGroupExtension(X509* cert, std::string const& groupText)
{
    addExtension(cert, certificateGroupNid(), groupText);
}

void signCertificate(X509* cert, EVP_PKEY* key)
{
    require(X509_sign(cert, key, defaultDigestOf(key)) > 0, "cannot sign certificate");
}

int certificateGroupNid()
{
    int nid = OBJ_sn2nid("certificateGroup");
    require(nid != NID_undef, "certificate-group extension not registered");
    return nid;
}

Pki::Pki(std::string const& caName) : ca_{dir_.file("ca.key"), dir_.file("ca.pem")}
{
    generateKey(ca_.keyPath);
    require(make_ca_certificate(ca_.certPath.c_str(), ca_.keyPath.c_str(), caName.c_str()) == 0,
            "make_ca_certificate failed");
}

Identity Pki::issue(std::string const& name, const char* groupText)
{
    Identity identity{dir_.file(name + ".key"), dir_.file(name + ".pem")};
    std::string csrPath = dir_.file(name + ".csr");
    generateKey(identity.keyPath);
    writeRequest(identity.keyPath, csrPath, name);
    require(make_certificate(identity.certPath.c_str(), csrPath.c_str(), ca_.keyPath.c_str(),
                             ca_.certPath.c_str(), groupText) == 0,
            "make_certificate failed for " + name);
    return identity;
}

Identity Pki::issueWithValidity(std::string const& name, long notBefore, long notAfter)
{
    return issueByHand(name, name, notBefore, notAfter);
}

Identity Pki::issueNamed(std::string const& name, std::string const& commonName)
{
    return issueByHand(name, commonName, -60, 365L * 24 * 3600);
}

Identity Pki::issueByHand(std::string const& name, std::string const& commonName, long notBefore, long notAfter)
{
    Identity who{dir_.file(name + ".key"), dir_.file(name + ".pem")};
    generateKey(who.keyPath);
    PkeyPtr key = loadKey(who.keyPath);
    PkeyPtr caKey = loadKey(ca_.keyPath);
    X509Ptr ca = loadCertificate(ca_.certPath);
    X509Ptr cert = makeBareCertificate(key.get(), commonName);
    require(X509_set_issuer_name(cert.get(), X509_get_subject_name(ca.get())) == 1 &&
                X509_gmtime_adj(X509_getm_notBefore(cert.get()), notBefore) &&
                X509_gmtime_adj(X509_getm_notAfter(cert.get()), notAfter),
            "cannot set the validity of " + name);
    addExtension(cert.get(), NID_key_usage, "critical,digitalSignature");
    addExtension(cert.get(), NID_subject_key_identifier, "hash");
    addExtension(cert.get(), NID_authority_key_identifier, "keyid:always", ca.get());
    addExtension(cert.get(), NID_ext_key_usage, "critical,emailProtection,packageSigning");
    addGroupExtension(cert.get(), "developer");
    signCertificate(cert.get(), caKey.get());
    saveCertificate(cert.get(), who.certPath);
    return who;
}

Identity const& Pki::cached(std::optional<Identity>& slot, const char* group)
{
    if (!slot)
        slot = issue(group, group);
    return *slot;
}

Identity const& Pki::developer()
{
    return cached(developer_, "developer");
}
Identity const& Pki::seclab()
{
    return cached(seclab_, "seclab");
}
Identity const& Pki::client()
{
    return cached(client_, "client");
}

}  // namespace sealkeep::test
