// Reading PEM text a block at a time in bounded memory and time. OpenSSL's
// PEM reader takes a block of any length whole (a gigabyte of base64 costs a
// gigabyte or two of memory before it is found not to decode); here a block
// longer than any certificate, or a long stretch of text outside any block,
// ends the read.
#ifndef SEALKEEP_COMMON_PEM_BLOCKS_HPP
#define SEALKEEP_COMMON_PEM_BLOCKS_HPP

#include <cstddef>
#include <cstdio>
#include <string>

namespace sealkeep {

// Longer than any certificate, certificate request or key this library reads.
constexpr std::size_t maxPemBlockSize = 1024 * 1024;

class PemBlocks {
public:
    enum class Next {
        Block,     // block holds one block, BEGIN and END lines included
        End,       // no further block (the end of the file, or an unfinished block)
        TooLarge,  // a block, or the text in front of one, is longer than the limit
    };

    // Borrows file, read from where it stands.
    explicit PemBlocks(FILE* file, std::size_t limit = maxPemBlockSize) : file_(file), limit_(limit) {}

    Next next(std::string& block);

    // The label of a block: "CERTIFICATE" for "-----BEGIN CERTIFICATE-----".
    static std::string labelOf(std::string const& block);

private:
    // One line without its newline, at most limit_ + 1 characters kept (the
    // rest is read and dropped); false at the end of the file with no text.
    bool readLine(std::string& line);

    FILE* file_;
    std::size_t limit_;
};

}  // namespace sealkeep

#endif
