// The files the command reads by path: packages, CA files, configurations,
// databases, rotation chains. Each must be a regular file, and is looked at
// without blocking before anything is read: a FIFO, a terminal or a device
// given in its place would make the command wait for ever.
#ifndef SEALKEEP_TOOLS_INPUT_FILE_HPP
#define SEALKEEP_TOOLS_INPUT_FILE_HPP

#include <memory>
#include <string>

#include <sealkeep/file_with_cmses.hpp>

#include "owned.hpp"

namespace sealkeep::cli {

// What cannot be read: "not a regular file" or "cannot open: REASON".
constexpr char notRegularFile[] = "not a regular file";

struct InputFile {
    UniqueFd fd;          // open for reading, blocking reads
    std::string refusal;  // why not, when fd holds none
    std::string reason;   // the refusal without "cannot open: "
    int error = 0;        // errno of a refusal that is not notRegularFile
};

// The regular file at path, open for reading.
InputFile openInput(std::string const& path);

// Why the file at path cannot be read, for a file that the library opens
// by path itself; empty when it is a regular file that opens.
std::string inputRefusal(std::string const& path);

// The package at path, read-only; null (and why in refusal) when it is no
// regular file or does not open.
std::unique_ptr<PackageSignatures::FileWithCmses> openPackageForReading(std::string const& path,
                                                                        std::string& refusal);

}  // namespace sealkeep::cli

#endif
