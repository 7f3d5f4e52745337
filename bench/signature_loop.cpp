// The key host's floor: COUNT GOST signatures of a digest with KEY, made in
// a loop in one process, one signing context reused, as cheaply as OpenSSL
// allows. Prints the seconds the loop took.
//
//   sealkeep_signature_loop KEY.pem COUNT
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <sealkeep/sealkeep.hpp>  // loading the library makes the GOST engine the default

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s KEY.pem COUNT\n", argv[0]);
        return 2;
    }
    const long count = std::strtol(argv[2], nullptr, 10);
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(argv[1], "r"), &std::fclose);
    if (!file) {
        std::perror(argv[1]);
        return 1;
    }
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr),
                                                       &EVP_PKEY_free);
    std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> ctx(key ? EVP_PKEY_CTX_new(key.get(), nullptr) : nullptr,
                                                               &EVP_PKEY_CTX_free);
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) <= 0) {
        std::fprintf(stderr, "%s: not a key this process can sign with\n", argv[1]);
        return 1;
    }
    unsigned char digest[32] = {1};
    unsigned char signature[256];
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i) {
        digest[i % sizeof digest] ^= static_cast<unsigned char>(i);
        std::size_t length = sizeof signature;
        if (EVP_PKEY_sign(ctx.get(), signature, &length, digest, sizeof digest) != 1) {
            std::fprintf(stderr, "signature %ld failed\n", i);
            return 1;
        }
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::printf("%.3f\n", seconds.count());
    return 0;
}
