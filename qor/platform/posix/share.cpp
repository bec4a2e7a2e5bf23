#include "share_internal.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>

// The Windows sharing contract from advisory locks. Four bytes far behind any data stand for
// "somebody reads", "somebody writes", "nobody else may read", "nobody else may write". An
// open file holds shared locks on the bytes of its access and of its denials, so any number
// of equals get along, and it must find no lock of another on the opposite bytes. The locks
// belong to the open file description: two opens in one process meet like two processes.
//
// A claim is set before the test, so two simultaneous opens never both miss each other; the
// guard, a lock of the other kind on the same file, keeps them from both giving way.
namespace platform {
namespace {

constexpr off_t kReadAccess = 0x7FFFFFFFFFFFFF00;
constexpr off_t kWriteAccess = kReadAccess + 1;
constexpr off_t kDenyRead = kReadAccess + 2;
constexpr off_t kDenyWrite = kReadAccess + 3;
constexpr off_t kNothing = 0;

struct flock byteLock(short type, off_t byte) {
	struct flock lock = {};
	lock.l_type = type;
	lock.l_whence = SEEK_SET;
	lock.l_start = byte;
	lock.l_len = 1;
	return lock;
}

/// @return false only when another holds the byte exclusively.
bool hold(int descriptor, off_t byte) {
	struct flock lock = byteLock(F_RDLCK, byte);
	return fcntl(descriptor, F_OFD_SETLK, &lock) == 0 || (errno != EAGAIN && errno != EACCES);
}

bool heldByOthers(int descriptor, off_t byte) {
	struct flock lock = byteLock(F_WRLCK, byte);
	return fcntl(descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

/// Taken for the few calls of a claim. A stranger may hold this lock for reasons of its own,
/// so the wait is short and what follows is right without it.
class ClaimGuard {
public:
	explicit ClaimGuard(int descriptor) : mDescriptor(descriptor) {
		for (int i = 0; i < 50 && flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; ++i) {
			const timespec pause = {0, 200000};
			nanosleep(&pause, nullptr);
		}
	}
	~ClaimGuard() { flock(mDescriptor, LOCK_UN); }
	ClaimGuard(const ClaimGuard&) = delete;
	ClaimGuard& operator=(const ClaimGuard&) = delete;

private:
	int mDescriptor;
};

} // namespace

bool claimSharing(int descriptor, uint32_t access, uint32_t share) {
	const struct {
		off_t mine;
		off_t opposite;
	} claims[] = {
	    {access & kAccessRead ? kReadAccess : kNothing, kDenyRead},
	    {access & kAccessWrite ? kWriteAccess : kNothing, kDenyWrite},
	    {share & kShareRead ? kNothing : kDenyRead, kReadAccess},
	    {share & kShareWrite ? kNothing : kDenyWrite, kWriteAccess},
	};
	ClaimGuard guard(descriptor);
	for (const auto& claim : claims) {
		if (claim.mine && !hold(descriptor, claim.mine)) return false;
	}
	for (const auto& claim : claims) {
		if (claim.mine && heldByOthers(descriptor, claim.opposite)) return false;
	}
	return true;
}

} // namespace platform
