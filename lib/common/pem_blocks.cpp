// PemBlocks: the BEGIN ... END blocks of PEM text, each read whole only when
// it is short enough to be a certificate.
#include "common/pem_blocks.hpp"

namespace sealkeep {
namespace {

bool startsWith(std::string const& text, char const* prefix)
{
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

}  // namespace

bool PemBlocks::readLine(std::string& line)
{
    line.clear();
    int c = 0;
    bool any = false;
    while ((c = getc(file_)) != EOF) {
        any = true;
        if (c == '\n')
            return true;
        line += static_cast<char>(c);
        if (line.size() > limit_)
            return true;  // too long for any use: the caller stops here
    }
    return any;
}

PemBlocks::Next PemBlocks::next(std::string& block)
{
    block.clear();
    std::size_t skipped = 0;
    std::string line;
    while (readLine(line)) {
        if (line.size() > limit_)
            return Next::TooLarge;
        if (block.empty()) {
            if (startsWith(line, "-----BEGIN ")) {
                block = line + "\n";
            } else if ((skipped += line.size() + 1) > limit_) {
                return Next::TooLarge;
            }
            continue;
        }
        if (block.size() + line.size() + 1 > limit_)
            return Next::TooLarge;
        block += line + "\n";
        if (startsWith(line, "-----END "))
            return Next::Block;
    }
    block.clear();
    return Next::End;
}

std::string PemBlocks::labelOf(std::string const& block)
{
    constexpr std::size_t begin = sizeof "-----BEGIN " - 1;
    std::size_t end = block.find("-----", begin);
    return startsWith(block, "-----BEGIN ") && end != std::string::npos ? block.substr(begin, end - begin)
                                                                         : std::string();
}

}  // namespace sealkeep
