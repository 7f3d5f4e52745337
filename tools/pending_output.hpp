// An output file the library writes by path (a certificate, a rotation
// chain), made under a temporary name beside its destination and renamed
// over it only once complete and read back. The library opens its output
// "wb" before it knows whether it will succeed, and removes it when saving
// fails: written in place, a failure would destroy the file it replaces.
#ifndef SEALKEEP_TOOLS_PENDING_OUTPUT_HPP
#define SEALKEEP_TOOLS_PENDING_OUTPUT_HPP

#include <optional>
#include <string>

namespace sealkeep::cli {

class PendingOutput {
public:
    // A new empty file in the directory of destination; nothing when it
    // cannot be made (why says so).
    static std::optional<PendingOutput> create(std::string const& destination, std::string& why);
    // Removes the temporary file unless it was committed.
    ~PendingOutput();
    PendingOutput(PendingOutput&& other) noexcept;
    PendingOutput& operator=(PendingOutput&&) = delete;
    PendingOutput(PendingOutput const&) = delete;
    PendingOutput& operator=(PendingOutput const&) = delete;

    // Where the library is to write.
    std::string const& path() const { return path_; }

    // Gives the file the permissions the destination has (or, when new, what
    // creating it would have given) and renames it over the destination.
    // False with errno set when that fails; the destination is then as it was.
    bool commit();

private:
    PendingOutput(std::string destination, std::string path);

    std::string destination_;
    std::string path_;  // empty once committed or moved from
};

}  // namespace sealkeep::cli

#endif
