// Internal: the private state of Database and the helpers through which every
// Database source runs SQL, so that each statement is prepared, reset and
// finalized in exactly one way.
#ifndef SEALKEEP_SRC_DATABASE_RECORD_HPP
#define SEALKEEP_SRC_DATABASE_RECORD_HPP

#include <chrono>
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

// The state of a connection's wait for another process's lock.
struct BusyWait {
    std::chrono::steady_clock::time_point since;
    // How many times a wait ran out, after which the statement failed busy.
    int expired = 0;
};

struct Database::Record {
    sqlite3* db = nullptr;
    BusyWait busyWait;
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
    BeginRead = 1101,
    CommitRead = 1102,
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
// Prepares sql to be run once; result receives the preparation's result
// code, so that the caller can tell a busy database from a statement that
// does not prepare. Nothing is reported.
StatementPtr prepareOnce(sqlite3* db, const char* sql, int& result);
// The same, with a busy database reported.
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

// Reports on std::cerr, as one line, that a result code means the database
// stayed busy: another process kept its lock for longer than this connection
// waits. True when it was busy.
bool reportBusy(int result);

// sqlite3_step, with a busy database reported.
inline int step(sqlite3_stmt* statement)
{
    const int result = sqlite3_step(statement);
    reportBusy(result);
    return result;
}

// Steps a statement that is expected to finish without a row.
inline bool stepDone(sqlite3_stmt* statement)
{
    return step(statement) == SQLITE_DONE;
}

// What the first step of a lookup found. A read that failed (the file stayed
// locked, an I/O error, a table that is not there, a statement that did not
// prepare) found nothing either way: it is never taken for a missing row,
// which could let in what the row would refuse, or add the row a second time.
enum class Lookup { Found, Absent, Failed };

// Steps a lookup whose parameters were bound with the result bound (a bind
// that failed is a read that failed); a row is left in the statement to be
// read.
inline Lookup lookUp(sqlite3_stmt* statement, int bound)
{
    if (bound != SQLITE_OK)
        return Lookup::Failed;
    switch (step(statement)) {
    case SQLITE_ROW:
        return Lookup::Found;
    case SQLITE_DONE:
        return Lookup::Absent;
    }
    return Lookup::Failed;
}

// Whether a transaction began; one that did not because the database stayed
// busy is reported.
inline bool began(Transaction const& transaction)
{
    if (transaction.active())
        return true;
    reportBusy(transaction.result());
    return false;
}

// Commits; a commit that failed (and was rolled back) because the database
// stayed busy is reported.
inline bool committed(Transaction& transaction)
{
    if (transaction.commit())
        return true;
    reportBusy(transaction.result());
    return false;
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

namespace sealkeep {

// How long the connections opened from now on wait for another process's
// lock before they report the database busy; 0 or less restores the
// library's own wait. Only tests change it, to keep their waits short.
void setDatabaseBusyTimeoutForTests(int milliseconds);

}  // namespace sealkeep

#endif
