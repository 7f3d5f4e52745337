// Captures what a piece of code prints on standard error, so that tests can
// compare messages exactly.
#ifndef SEALKEEP_TESTS_SUPPORT_STDERR_CAPTURE_HPP
#define SEALKEEP_TESTS_SUPPORT_STDERR_CAPTURE_HPP

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace sealkeep::test {

// Runs body and returns everything written to file descriptor 2 meanwhile
// (stdio and iostreams alike).
template <typename Body>
std::string stderrOf(Body&& body)
{
    testing::internal::CaptureStderr();
    std::forward<Body>(body)();
    return testing::internal::GetCapturedStderr();
}

}  // namespace sealkeep::test

#endif
