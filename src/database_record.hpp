// Internal: the private state of Database and the helpers through which every
// Database source runs SQL, so that each statement is prepared, reset and
// finalized in exactly one way.
#ifndef SEALKEEP_SRC_DATABASE_RECORD_HPP
#define SEALKEEP_SRC_DATABASE_RECORD_HPP

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include <sqlite3.h>

#include <sealkeep/certificate.hpp>
#include <sealkeep/database.hpp>

#include "common/ossl_ptr.hpp"

namespace PackageSignatures {

struct Database::Record {
    sqlite3* db = nullptr;
    std::string confPath;
    // Prepared once per connection and kept until the destructor; a null
    // entry is a statement whose preparation failed and is retried on use.
    std::unordered_map<int, sqlite3_stmt*> statements;
    // Certificates already decoded from the certificates table, by row id.
    std::unordered_map<int, Certificate> certificateCache;
    // Certificates already decoded, by their DER. Decoding a GOST certificate
    // costs more than everything else an admission decision asks of the
    // database, and the same few developer certificates are asked for again
    // and again. A DER always decodes to the same certificate, so entries
    // never go stale; failures are not kept, so they are reported each time.
    std::unordered_map<std::string, Certificate> decodedCertificates;

    Record() = default;
    Record(Record const&) = delete;
    Record& operator=(Record const&) = delete;
    // Finalizes every cached statement first, so that closing the connection
    // cannot fail on a statement still open.
    ~Record();
};

// The fixed keys under which Database caches its statements, one per SQL
// text.
namespace StatementKeys {
enum : int {
    RemovePackage = 239,
    PackageExists = 247,
    PackageCertificates = 322,
    PackageCertificateWithGroup = 356,
    CertificateReferences = 378,
    SelectGroup = 729,
    InsertGroup = 735,
    SelectSubgroup = 748,
    InsertSubgroup = 754,
    SelectCertificate = 768,
    InsertCertificate = 781,
    InsertPackageWithCertificate = 804,
    RemoveRevokedKeyid = 815,
    InsertRevokedKeyid = 831,
    KeyidRevocationStatus = 988,
    HasCertificatesWithGroup = 1010,
    PackageHasCertificateWithGroup = 1023,
};
}  // namespace StatementKeys

// Holds a cached statement for one use and resets it however the scope is
// left (a return or an exception), so that the next use starts from a clean
// statement and no read lock outlives the operation. A null statement is
// allowed: binds and steps on it fail with SQLITE_MISUSE, which callers
// treat as failure, and resetting it does nothing.
class StatementUse {
public:
    explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
    ~StatementUse() { sqlite3_reset(statement_); }
    StatementUse(StatementUse const&) = delete;
    StatementUse& operator=(StatementUse const&) = delete;

    sqlite3_stmt* get() const { return statement_; }

private:
    sqlite3_stmt* statement_;
};

// A statement run once and finalized on every path.
using StatementPtr = std::unique_ptr<sqlite3_stmt, sealkeep::Deleter<sqlite3_finalize>>;
StatementPtr prepareOnce(sqlite3* db, const char* sql);

// Binds text in place: the caller's NUL-terminated buffer must outlive the
// step, which every caller guarantees by stepping within the same scope.
inline int bindText(sqlite3_stmt* statement, int index, std::string_view text)
{
    return sqlite3_bind_text(statement, index, text.data(), -1, SQLITE_STATIC);
}

// A text column as a string; empty for NULL, which the schema rules out.
inline std::string columnText(sqlite3_stmt* statement, int column)
{
    const unsigned char* text = sqlite3_column_text(statement, column);
    if (!text)
        return std::string();
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

// Steps a statement that is expected to finish without a row.
inline bool stepDone(sqlite3_stmt* statement)
{
    return sqlite3_step(statement) == SQLITE_DONE;
}

// One statement of a sequence and the message that introduces its failure.
struct SqlStep {
    const char* sql;
    const char* failurePrefix;
    // Whether SQLite's error text follows the prefix in the message.
    bool withErrorText = true;
};

// Runs the steps in order and stops at the first failure, which is reported
// on std::cerr as its prefix (and the error text when asked for) on one line.
bool runSqlSteps(sqlite3* db, std::initializer_list<SqlStep> steps);

}  // namespace PackageSignatures

#endif
