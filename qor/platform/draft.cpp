#include "draft.h"

#include "draft_internal.h"
#include "folder.h"
#include "format.h"
#include "machine.h"
#include "memory.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <random>
#include <utility>

namespace platform {
namespace {

constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kInvalidHandle = 6;
constexpr uint32_t kFileExists = 80;
constexpr int kNames = 8;            // tried before giving up: somebody has them all, or pretends to
constexpr size_t kLongestStem = 200; // a draft's name fits where its target's does
constexpr size_t kPiece = 1 << 20;

constexpr char kExtension[] = ".draft";
constexpr size_t kDigits = 16;

std::string draftName(const std::string& target) {
	const size_t folder = static_cast<size_t>(fileNamePart(target.c_str()) - target.c_str());
	const std::string stem = target.substr(0, std::min(target.size(), folder + kLongestStem));
	return stem + '.' + std::string(kDigits, '0') + kExtension;
}

/// Gives the name digits that nobody can foresee. Throws without a source of chance.
void drawDigits(std::string* name) {
	std::random_device chance;
	char digits[kDigits + 1];
	formatText(digits, sizeof digits, "%08x%08x", chance(), chance());
	name->replace(name->size() - (sizeof kExtension - 1) - kDigits, kDigits, digits, kDigits);
}

/// Keeps the error of what failed from that of tidying up.
void removeKeepingError(FileSystem& files, const char* path) {
	const uint32_t error = lastError();
	files.remove(path);
	setLastError(error);
}

bool copyAll(File& from, Draft& to) {
	struct Releaser {
		void operator()(void* block) const { release(block); }
	};
	const std::unique_ptr<void, Releaser> buffer(allocate(kPiece));
	if (!buffer) return false;
	int64_t left = 0;
	if (!from.size(&left)) return false;
	for (; left > 0; left -= static_cast<int64_t>(kPiece)) {
		const auto count = static_cast<uint32_t>(std::min<int64_t>(left, kPiece));
		if (from.read(buffer.get(), count) != count || !to.write(buffer.get(), count)) return false;
	}
	return true;
}

} // namespace

bool Draft::open(const char* path, uint32_t flags) { return prepare(path) && begin(flags); }

bool Draft::prepare(const char* path) {
	forget();
	try {
		std::string target = draftTarget(path);
		if (target.empty()) return false;
		mName = draftName(target);
		mTarget = std::move(target);
	} catch (const std::exception&) {
		setLastError(kOutOfMemory);
		return false;
	}
	return true;
}

bool Draft::begin(uint32_t flags) {
	discard();
	if (!isPrepared()) {
		setLastError(kInvalidHandle);
		return false;
	}
	FileOpen how{Disposition::createNew, kAccessRead | kAccessWrite, kShareNone, flags};
	how.isPrivate = true;
	mFiles = &fileSystem();
	try {
		for (int i = 0; i < kNames && !mFile; ++i) {
			drawDigits(&mName);
			mFile = mFiles->open(mName.c_str(), how);
			if (!mFile && lastError() != kFileExists) return false;
		}
	} catch (const std::exception&) {
		setLastError(kOutOfMemory);
		return false;
	}
	return mFile != nullptr;
}

void Draft::forget() {
	discard();
	mTarget.clear();
	mName.clear();
}

bool Draft::write(const void* data, size_t size) {
	if (!mFile) return false;
	const auto* bytes = static_cast<const char*>(data);
	while (size > 0) {
		const auto count = static_cast<uint32_t>(std::min<size_t>(size, std::numeric_limits<uint32_t>::max() / 2));
		if (mFile->write(bytes, count) != count) return false;
		bytes += count;
		size -= count;
	}
	return true;
}

bool Draft::commit() { return finish(mTarget.c_str()); }

/// Closed before it is renamed: not every system renames an open file.
bool Draft::finish(const char* rightsOf) {
	if (!mFile) {
		setLastError(kInvalidHandle);
		return false;
	}
	mFile->takeRightsOf(rightsOf);
	mFile.reset();
	const bool replaced = mFiles->replace(mName.c_str(), mTarget.c_str());
	if (!replaced) removeKeepingError(*mFiles, mName.c_str());
	return replaced;
}

void Draft::discard() {
	if (!mFile) return;
	const uint32_t error = lastError();
	mFile.reset();
	setLastError(error);
	removeKeepingError(*mFiles, mName.c_str());
}

bool copyAside(const char* from, const char* to) {
	FileSystem& files = fileSystem();
	const auto original = files.open(from, {});
	if (!original) return false;
	// The name is taken first, so that nothing that comes up meanwhile is replaced.
	FileOpen claim{Disposition::createNew, kAccessWrite};
	claim.isPrivate = true;
	if (!files.open(to, claim)) return false;
	Draft copy;
	if (copy.open(to) && copyAll(*original, copy) && copy.finish(from)) return true;
	copy.discard();
	removeKeepingError(files, to);
	return false;
}

} // namespace platform
