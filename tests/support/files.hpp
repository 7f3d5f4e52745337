// Whole-file helpers for tests.
#ifndef SEALKEEP_TESTS_SUPPORT_FILES_HPP
#define SEALKEEP_TESTS_SUPPORT_FILES_HPP

#include <string>
#include <vector>

namespace sealkeep::test {

using Bytes = std::vector<unsigned char>;

Bytes readFile(std::string const& path);
void writeFile(std::string const& path, Bytes const& bytes);
void writeText(std::string const& path, std::string const& text);
std::string readText(std::string const& path);
void appendFile(std::string const& path, Bytes const& bytes);
bool fileExists(std::string const& path);
long fileSize(std::string const& path);
Bytes concat(std::vector<Bytes> const& parts);
// Deterministic filler bytes.
Bytes patternBytes(std::size_t size, unsigned seed = 1);

}  // namespace sealkeep::test

#endif
