#include "morvane/Interruption.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Backups/SnapshotMount.h"
#include "MorvanePlatform/Files.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace morvane::cli {
namespace {

constexpr std::array<int, 3> handledSignals = {SIGINT, SIGTERM, SIGHUP};
// The byte that tells the watcher to stop: no signal has the number 0.
constexpr unsigned char stopWatching = 0;

volatile std::sig_atomic_t signalWriteEnd = -1;

void forwardSignal(int number) {
    const int saved = errno;
    const auto byte = static_cast<unsigned char>(number);
    if (signalWriteEnd >= 0) (void)::write(signalWriteEnd, &byte, 1);
    errno = saved;
}

void cleanUp() {
    // Mounts first: a staged copy may lie on one.
    SnapshotMount::unmountAll();
    BackupLocator::removeAllStagedCopies();
    files::removeTemporaries();
}

} // namespace

InterruptionCleanup::InterruptionCleanup() {
    if (::pipe2(pipe_, O_CLOEXEC) != 0) return;
    // A handler must never block, even on a pipe that signals have filled.
    ::fcntl(pipe_[1], F_SETFL, O_NONBLOCK);
    watcher_ = std::thread([readEnd = pipe_[0]] {
        unsigned char byte = stopWatching;
        for (;;) {
            const ssize_t count = ::read(readEnd, &byte, 1);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0 || byte == stopWatching) return;
            cleanUp();
            ::_exit(128 + byte);
        }
    });
    signalWriteEnd = pipe_[1];
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : handledSignals)
        ::sigaction(number, &action, nullptr);
}

InterruptionCleanup::~InterruptionCleanup() {
    if (!watcher_.joinable()) return;
    for (const int number : handledSignals)
        std::signal(number, SIG_DFL);
    // A signal that came first is being handled: the watcher ends the process before it reads this.
    const unsigned char byte = stopWatching;
    (void)::write(pipe_[1], &byte, 1);
    watcher_.join();
    signalWriteEnd = -1;
    ::close(pipe_[0]);
    ::close(pipe_[1]);
}

} // namespace morvane::cli
