// sealkeep class interface, namespace PackageSignatures. Includes everything
// a C++ client needs, the flat interface included.
#ifndef SEALKEEP_SEALKEEP_HPP
#define SEALKEEP_SEALKEEP_HPP

#include <sealkeep/sealkeep.h>

#include <sealkeep/certificate.hpp>
#include <sealkeep/cms.hpp>
#include <sealkeep/configuration.hpp>
#include <sealkeep/database.hpp>
#include <sealkeep/detached_signing.hpp>
#include <sealkeep/file_with_cmses.hpp>
#include <sealkeep/groups.hpp>
#include <sealkeep/ima_hash_algorithms.hpp>
#include <sealkeep/limits.hpp>
#include <sealkeep/rotation.hpp>
#include <sealkeep/verification_report.hpp>

#endif
