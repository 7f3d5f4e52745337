// How the command meets signals while it writes. A file-size limit must not
// kill it halfway (SIGXFSZ is ignored, so a write beyond the limit fails
// with EFBIG and the write is undone); SIGINT, SIGTERM and SIGHUP that
// arrive while a package is being written are held until that write has
// ended, then honoured as they would have been, and no further package is
// begun.
#ifndef SEALKEEP_TOOLS_INTERRUPTIONS_HPP
#define SEALKEEP_TOOLS_INTERRUPTIONS_HPP

namespace sealkeep::cli {

// Installs the handlers; once, at start.
void handleInterruptions();

// True once SIGINT, SIGTERM or SIGHUP has arrived: begin no new write.
bool interruptionPending();

// Marks one write of a package in progress for its lifetime; the last one
// to end honours a signal that arrived meanwhile.
class WriteInProgress {
public:
    WriteInProgress();
    ~WriteInProgress();
    WriteInProgress(WriteInProgress const&) = delete;
    WriteInProgress& operator=(WriteInProgress const&) = delete;
};

}  // namespace sealkeep::cli

#endif
