// Output shared by the subcommands: failure lines and result lines that stay
// whole when signing runs on several threads.
#include <cerrno>
#include <cstring>
#include <iostream>
#include <mutex>

#include "cli.hpp"

namespace sealkeep::cli {
namespace {

std::mutex& outputMutex()
{
    static std::mutex mutex;
    return mutex;
}

}  // namespace

void reportFailure(std::string const& file, std::string const& reason)
{
    std::lock_guard<std::mutex> lock(outputMutex());
    std::cerr << "sealkeep: " << file << ": " << reason << std::endl;
}

void printLine(std::string const& line)
{
    std::lock_guard<std::mutex> lock(outputMutex());
    std::cout << line << std::endl;
}

std::string countOf(std::size_t count, std::string const& noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string systemReason()
{
    return std::strerror(errno);
}

}  // namespace sealkeep::cli
