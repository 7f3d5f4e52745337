// Output shared by the subcommands: failure lines and result lines that stay
// whole when signing runs on several threads, and never carry a control
// character to the terminal.
#include <cerrno>
#include <cstring>
#include <iostream>
#include <mutex>

#include "cli.hpp"
#include "terminal_text.hpp"

namespace sealkeep::cli {
namespace {

std::mutex& outputMutex()
{
    static std::mutex mutex;
    return mutex;
}

// The failures reported on this thread while a FailureNotes lives.
thread_local std::vector<std::string>* notes = nullptr;

// Each subcommand escapes the file-supplied parts of its lines; a line that
// still holds a control character (a part left unescaped) is escaped whole
// rather than printed as it is.
std::string safeLine(std::string const& line)
{
    return printable(line) ? line : visible(line);
}

}  // namespace

FailureNotes::FailureNotes() : outer_(notes)
{
    notes = &reasons_;
}

FailureNotes::~FailureNotes()
{
    notes = outer_;
}

std::string FailureNotes::text() const
{
    std::string joined;
    for (auto const& reason : reasons_)
        joined += (joined.empty() ? "" : "; ") + reason;
    return joined;
}

void reportFailure(std::string const& file, std::string const& reason)
{
    if (notes)
        notes->push_back(reason);
    std::lock_guard<std::mutex> lock(outputMutex());
    std::cerr << safeLine("sealkeep: " + file + ": " + reason) << std::endl;
}

void reportProblem(std::string const& text)
{
    std::lock_guard<std::mutex> lock(outputMutex());
    std::cerr << safeLine("sealkeep: " + text) << std::endl;
}

void printLine(std::string const& line)
{
    std::lock_guard<std::mutex> lock(outputMutex());
    std::cout << safeLine(line) << std::endl;
}

void printText(std::string const& text)
{
    std::lock_guard<std::mutex> lock(outputMutex());
    std::cout << text << std::endl;
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
