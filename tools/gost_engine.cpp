// Finding the GOST engine and naming the versions the command runs with.
#include "gost_engine.hpp"

#include <cstdlib>
#include <memory>

#include <openssl/crypto.h>
#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include "owned.hpp"

namespace sealkeep::cli {
namespace {

using EnginePtr = std::unique_ptr<ENGINE, FreeWith<ENGINE_free>>;

// Where OpenSSL looks for engines: the environment's choice, else its own.
std::string enginesDirectory()
{
    if (char const* fromEnvironment = getenv("OPENSSL_ENGINES"))
        return fromEnvironment;
    return OpenSSL_version(OPENSSL_ENGINES_DIR);
}

}  // namespace

std::optional<std::string> gostEngineProblem()
{
    EnginePtr engine(ENGINE_by_id("gost"));
    ERR_clear_error();
    if (!engine)
        return "the gost engine cannot be loaded (looked for in " + enginesDirectory() +
               "); nothing can be signed or verified without it";
    // The library made it the default for every algorithm; a GOST digest
    // found by name proves it is in place.
    if (!EVP_get_digestbyname(OBJ_nid2sn(NID_id_GostR3411_2012_256)))
        return "the gost engine is loaded but provides no GOST R 34.11-2012 digest";
    return std::nullopt;
}

std::string versionText(std::string const& commandVersion)
{
    std::string text = "sealkeep " + commandVersion + "\n" + OpenSSL_version(OPENSSL_VERSION);
    EnginePtr engine(ENGINE_by_id("gost"));
    ERR_clear_error();
    text += "\ngost engine: ";
    text += engine && ENGINE_get_name(engine.get()) ? ENGINE_get_name(engine.get()) : "not available";
    text += " (" + enginesDirectory() + ")";
    return text;
}

}  // namespace sealkeep::cli
