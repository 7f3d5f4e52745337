// std::unique_ptr aliases that release OpenSSL, GLib and stdio objects with
// their own free functions, so that every early return releases everything.
#ifndef SEALKEEP_COMMON_OSSL_PTR_HPP
#define SEALKEEP_COMMON_OSSL_PTR_HPP

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <glib.h>
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <sealkeep/sealkeep.h>

namespace sealkeep {

template <auto Fn>
struct Deleter {
    template <typename T>
    void operator()(T* p) const
    {
        if (p)
            Fn(p);
    }
};

using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using X509ReqPtr = std::unique_ptr<X509_REQ, Deleter<X509_REQ_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;
using X509StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;
using X509ExtPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
using X509AttrPtr = std::unique_ptr<X509_ATTRIBUTE, Deleter<X509_ATTRIBUTE_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using Asn1IntegerPtr = std::unique_ptr<ASN1_INTEGER, Deleter<ASN1_INTEGER_free>>;
using Asn1OctetStringPtr = std::unique_ptr<ASN1_OCTET_STRING, Deleter<ASN1_OCTET_STRING_free>>;
using Asn1StringPtr = std::unique_ptr<ASN1_STRING, Deleter<ASN1_STRING_free>>;
using EkuPtr = std::unique_ptr<EXTENDED_KEY_USAGE, Deleter<EXTENDED_KEY_USAGE_free>>;
using FileSignaturesPtr = std::unique_ptr<FileSignatures, Deleter<FileSignatures_free>>;
using FileSignaturePtr = std::unique_ptr<FileSignature, Deleter<FileSignature_free>>;
using ProofPtr = std::unique_ptr<ProofOfRotation, Deleter<ProofOfRotation_free>>;
using ChainPtr = std::unique_ptr<ProofOfRotationChain, Deleter<ProofOfRotationChain_free>>;
using FilePtr = std::unique_ptr<FILE, Deleter<fclose>>;
using MallocPtr = std::unique_ptr<char, Deleter<free>>;
using GCharPtr = std::unique_ptr<char, Deleter<g_free>>;
using GStrvPtr = std::unique_ptr<char*, Deleter<g_strfreev>>;
using GKeyFilePtr = std::unique_ptr<GKeyFile, Deleter<g_key_file_free>>;

// Releases memory handed out by OpenSSL (i2d buffers and the like).
inline void opensslFree(void* p) { OPENSSL_free(p); }
using OpensslBytesPtr = std::unique_ptr<unsigned char, Deleter<opensslFree>>;

}  // namespace sealkeep

#endif
