#include "file.h"

#include <atomic>

namespace platform {
namespace {

std::atomic<FileSystem*> gInForce{nullptr}; // null: the operating system's

} // namespace

FileSystem& fileSystem() {
	FileSystem* other = gInForce.load(std::memory_order_acquire);
	return other ? *other : systemFileSystem();
}

FileSystem* replaceFileSystem(FileSystem* other) {
	FileSystem* former = gInForce.exchange(other, std::memory_order_acq_rel);
	return former ? former : &systemFileSystem();
}

} // namespace platform
