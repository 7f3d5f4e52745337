// std::unique_ptr aliases that release librpm objects with their own free
// functions, in the spirit of ossl_ptr.hpp.
#ifndef SEALKEEP_COMMON_RPM_PTR_HPP
#define SEALKEEP_COMMON_RPM_PTR_HPP

#include <memory>

#include <rpm/header.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmfiles.h>
#include <rpm/rpmio.h>

#include "ossl_ptr.hpp"

namespace sealkeep {

// Fdopen stacks decompressors on the same descriptor object, so one Fclose
// releases the whole stack.
using RpmFdPtr = std::unique_ptr<_FD_s, Deleter<Fclose>>;
using HeaderPtr = std::unique_ptr<headerToken_s, Deleter<headerFree>>;
using RpmFilesPtr = std::unique_ptr<rpmfiles_s, Deleter<rpmfilesFree>>;
using RpmFiPtr = std::unique_ptr<rpmfi_s, Deleter<rpmfiFree>>;

}  // namespace sealkeep

#endif
