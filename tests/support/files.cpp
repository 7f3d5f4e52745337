#include "support/files.hpp"

#include <fstream>
#include <iterator>
#include <stdexcept>

#include <sys/stat.h>

namespace sealkeep::test {

Bytes readFile(std::string const& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(std::string const& path, Bytes const& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

void writeText(std::string const& path, std::string const& text)
{
    writeFile(path, Bytes(text.begin(), text.end()));
}

std::string readText(std::string const& path)
{
    Bytes bytes = readFile(path);
    return std::string(bytes.begin(), bytes.end());
}

void appendFile(std::string const& path, Bytes const& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot append to " + path);
}

bool fileExists(std::string const& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

long fileSize(std::string const& path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return -1;
    return static_cast<long>(st.st_size);
}

Bytes concat(std::vector<Bytes> const& parts)
{
    Bytes out;
    for (auto const& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes patternBytes(std::size_t size, unsigned seed)
{
    Bytes out(size);
    unsigned state = seed * 2654435761u + 1;
    for (auto& byte : out) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<unsigned char>(state >> 16);
    }
    return out;
}

}  // namespace sealkeep::test
