// A test base that makes one PKI per test suite, with the developer, seclab
// and client identities issued up front, for suites that sign a lot.
#ifndef SEALKEEP_TESTS_SUPPORT_SHARED_PKI_HPP
#define SEALKEEP_TESTS_SUPPORT_SHARED_PKI_HPP

#include <memory>

#include <gtest/gtest.h>

#include "support/pki.hpp"

namespace sealkeep::test {

class SharedPkiTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        pki = std::make_unique<Pki>();
        pki->developer();
        pki->seclab();
        pki->client();
    }
    static void TearDownTestSuite() { pki.reset(); }

    static inline std::unique_ptr<Pki> pki;
};

}  // namespace sealkeep::test

#endif
