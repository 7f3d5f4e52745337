// Signing many files at once on worker threads.
#include "signing_workers.hpp"

#include <atomic>
#include <exception>
#include <thread>

#include "cli.hpp"
#include "interruptions.hpp"
#include "json_output.hpp"

namespace sealkeep::cli {

std::optional<std::vector<Credentials>> credentialsPerThread(CredentialSource& source, unsigned threads)
{
    std::vector<Credentials> credentials;
    for (unsigned i = 0; i < threads; ++i) {
        auto loaded = source.load();
        if (!loaded)
            return std::nullopt;
        credentials.push_back(std::move(*loaded));
    }
    return credentials;
}

std::vector<nlohmann::json> signOnWorkers(std::vector<std::string> const& paths,
                                          std::vector<Credentials> const& credentials,
                                          std::string const& refusalReason, SignOne const& signOne,
                                          bool& anyFailed)
{
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    // One slot per path, each written by the one thread that signs it.
    std::vector<nlohmann::json> results(paths.size());
    auto work = [&](Credentials const& own) {
        for (std::size_t i; !interruptionPending() && (i = next++) < paths.size();) {
            FailureNotes notes;
            // An exception must not leave a worker thread (that would abort).
            try {
                if (!signOne(paths[i], own, results[i]))
                    failed = true;
            } catch (std::exception const& e) {
                reportFailure(paths[i], std::string("not signed: ") + e.what());
                failed = true;
            }
            if (results[i].is_null())
                results[i] = fileResult(paths[i], false, refusalReason, notes.text());
        }
    };
    std::vector<std::thread> workers;
    for (std::size_t i = 1; i < credentials.size(); ++i)
        workers.emplace_back(work, std::cref(credentials[i]));
    work(credentials[0]);
    for (auto& worker : workers)
        worker.join();
    anyFailed = failed;
    return results;
}

nlohmann::json resultArray(std::vector<nlohmann::json> results)
{
    nlohmann::json array = nlohmann::json::array();
    for (auto& result : results)
        if (!result.is_null())
            array.push_back(std::move(result));
    return array;
}

}  // namespace sealkeep::cli
