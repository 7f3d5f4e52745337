// Statement tracing through a connection hook.
#include "support/statement_log.hpp"

#include <utility>

#include <sqlite3.h>

namespace sealkeep::test {

namespace {

std::vector<std::string> recorded;

int recordStatement(unsigned, void*, void*, void* sql)
{
    recorded.emplace_back(static_cast<const char*>(sql));
    return 0;
}

}  // namespace

StatementLog::StatementLog()
    : hook_([](sqlite3* db) { sqlite3_trace_v2(db, SQLITE_TRACE_STMT, recordStatement, nullptr); })
{
    recorded.clear();
}

StatementLog::~StatementLog()
{
    recorded.clear();
}

std::vector<std::string> StatementLog::take()
{
    return std::exchange(recorded, {});
}

}  // namespace sealkeep::test
