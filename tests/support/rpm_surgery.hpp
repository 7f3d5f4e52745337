// Taking a real package apart and putting it back together, so that tests
// can make packages that rpmbuild never would (a header that lies about a
// file, a payload that repeats an entry) and that librpm still reads: the
// header digests in the signature header are computed afresh on joining.
#ifndef SEALKEEP_TESTS_SUPPORT_RPM_SURGERY_HPP
#define SEALKEEP_TESTS_SUPPORT_RPM_SURGERY_HPP

#include <cstdint>
#include <vector>

#include "support/files.hpp"

namespace sealkeep::test {

// The parts of a package file, in file order.
struct RpmParts {
    Bytes lead;       // 96 bytes
    Bytes signature;  // the signature header with its padding to 8 bytes
    Bytes header;     // the main header, from its magic to its last data byte
    Bytes payload;    // the compressed archive
};

constexpr std::uint32_t fileSizesTag = 1028;  // INT32 array
constexpr std::uint32_t fileModesTag = 1030;  // INT16 array

// Throws std::runtime_error when package is not laid out as rpm writes it.
RpmParts splitRpm(Bytes const& package);
// The package again, with the SHA-1 and SHA-256 header digests of the
// signature header made to match the main header.
Bytes joinRpm(RpmParts parts);

// The values of an INT16 or INT32 array of the main header.
std::vector<std::uint32_t> headerIntegers(Bytes const& header, std::uint32_t tag);
// Replaces element of an INT32 array of the main header.
void setHeaderInt32(Bytes& header, std::uint32_t tag, std::size_t element, std::uint32_t value);

}  // namespace sealkeep::test

#endif
