// A test base for key rotation: one CA and four developer identities, named
// 'a' to 'd', issued once per test suite, with their loaded keys and key ids.
#ifndef SEALKEEP_TESTS_SUPPORT_ROTATING_KEYS_HPP
#define SEALKEEP_TESTS_SUPPORT_ROTATING_KEYS_HPP

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <sealkeep/sealkeep.h>

#include "support/cms_builder.hpp"
#include "support/pki.hpp"

namespace sealkeep::test {

class RotatingKeysTest : public ::testing::Test {
protected:
    static constexpr int identityCount = 4;

    static void SetUpTestSuite()
    {
        pki = std::make_unique<Pki>();
        for (int i = 0; i < identityCount; ++i) {
            identities[i] = pki->issue(std::string(1, static_cast<char>('a' + i)), "developer");
            signers[i] = loadSigner(identities[i]);
            MallocPtr text(certificate_get_keyid(signers[i].cert.get()));
            keyids[i] = text ? text.get() : "";
        }
    }

    static void TearDownTestSuite()
    {
        for (auto& signer : signers)
            signer = LoadedSigner{};
        pki.reset();
    }

    static Identity const& identity(char name) { return identities[name - 'a']; }
    static LoadedSigner const& signer(char name) { return signers[name - 'a']; }
    static std::string const& keyid(char name) { return keyids[name - 'a']; }

    static inline std::unique_ptr<Pki> pki;
    static inline Identity identities[identityCount];
    static inline LoadedSigner signers[identityCount];
    static inline std::string keyids[identityCount];
};

}  // namespace sealkeep::test

#endif
