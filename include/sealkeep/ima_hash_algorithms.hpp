// The Linux kernel's numbering of hash algorithms (enum hash_algo), as the
// third byte of an IMA signature record carries it, with OpenSSL's digest for
// each: the one table the library signs with and tools decode records with.
#ifndef SEALKEEP_IMA_HASH_ALGORITHMS_HPP
#define SEALKEEP_IMA_HASH_ALGORITHMS_HPP

#include <cstddef>

#include <openssl/obj_mac.h>

namespace PackageSignatures {

struct ImaHashAlgorithm {
    char const* name;  // the kernel's name, e.g. "streebog256"
    int nid;           // OpenSSL's; NID_undef where OpenSSL has no such digest
};

// Indexed by the kernel's number.
inline constexpr ImaHashAlgorithm imaHashAlgorithms[] = {
    {"md4", NID_md4},
    {"md5", NID_md5},
    {"sha1", NID_sha1},
    {"rmd160", NID_ripemd160},
    {"sha256", NID_sha256},
    {"sha384", NID_sha384},
    {"sha512", NID_sha512},
    {"sha224", NID_sha224},
    {"rmd128", NID_undef},
    {"rmd256", NID_undef},
    {"rmd320", NID_undef},
    {"wp256", NID_undef},
    {"wp384", NID_undef},
    {"wp512", NID_undef},
    {"tgr128", NID_undef},
    {"tgr160", NID_undef},
    {"tgr192", NID_undef},
    {"sm3", NID_sm3},
    {"streebog256", NID_id_GostR3411_2012_256},
    {"streebog512", NID_id_GostR3411_2012_512},
};

inline constexpr std::size_t imaHashAlgorithmCount = sizeof imaHashAlgorithms / sizeof imaHashAlgorithms[0];

}  // namespace PackageSignatures

#endif
