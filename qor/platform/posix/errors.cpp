#include "errors.h"

#include <cerrno>

namespace platform {

namespace {

// Numbers without a twin are kept apart from the Windows ones.
constexpr uint32_t kForeignError = 0x20000000;

constexpr struct {
	int posix;
	uint32_t windows;
} kTwins[] = {
    {0, 0}, {ENOENT, 2},                 // file not found
    {ENOTDIR, 3},                        // path not found
    {EMFILE, 4},                         // too many open files
    {ENFILE, 4}, {EACCES, 5},            // access denied
    {EPERM, 5}, {EISDIR, 5}, {EBADF, 6}, // invalid handle
    {ENOMEM, 8},                         // not enough memory
    {EXDEV, 17},                         // not the same device
    {EROFS, 19},                         // write protected
    {ENXIO, 20},                         // no such unit
    {ENODEV, 20}, {ENOMEDIUM, 21},       // not ready
    {ESPIPE, 25},                        // not seekable
    {ETXTBSY, 32},                       // sharing violation
    {ENOTSUP, 50},                       // not supported
    {ENOSYS, 50}, {EEXIST, 80},          // file exists
    {EINVAL, 87},                        // invalid parameter
    {EPIPE, 109},                        // broken pipe
    {ENOSPC, 112},                       // disk full
    {EDQUOT, 112}, {ENOTEMPTY, 145},     // directory not empty
    {EBUSY, 170},                        // in use
    {ENAMETOOLONG, 206},                 // name too long
    {EFBIG, 223},                        // file too large
    {EIO, 1117},                         // device error
    {ETIMEDOUT, 1460},                   // time-out
};

} // namespace

uint32_t windowsError(int errnoValue) {
	for (const auto& twin : kTwins) {
		if (twin.posix == errnoValue) return twin.windows;
	}
	return static_cast<uint32_t>(errnoValue) + kForeignError;
}

} // namespace platform
