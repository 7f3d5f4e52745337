// The SQL text of every statement that SQLite connections run, recorded from
// the moment of opening, so that tests can check which statements an
// operation runs, in which order, character for character.
#ifndef SEALKEEP_TESTS_SUPPORT_STATEMENT_LOG_HPP
#define SEALKEEP_TESTS_SUPPORT_STATEMENT_LOG_HPP

#include <string>
#include <vector>

#include "support/sqlite_file.hpp"

namespace sealkeep::test {

// Records the statements of every connection opened while it lives (the
// library's included), as their unexpanded SQL text. One log at a time; it
// takes the process's connection hook.
class StatementLog {
public:
    StatementLog();
    ~StatementLog();
    StatementLog(StatementLog const&) = delete;
    StatementLog& operator=(StatementLog const&) = delete;

    // The statements run since the last call (or since the log began).
    std::vector<std::string> take();

private:
    ConnectionHook hook_;
};

}  // namespace sealkeep::test

#endif
