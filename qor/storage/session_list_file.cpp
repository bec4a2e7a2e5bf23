// The session list's file: reading, judging, saving.

#include "../base/status.h"
#include "../platform/draft.h"
#include "../platform/file.h"
#include "../platform/folder.h"
#include "../platform/machine.h"
#include "session_internal.h"
#include "session_list_internal.h"
#include "storage_internal.h"

#include <algorithm>
#include <cstring>
#include <exception>

namespace storage_parts {

namespace {

constexpr size_t kCountSize = sizeof(uint32_t);
constexpr size_t kRecordSize = sizeof(emsSTORAGE_SESSION);
/// A record that holds this much says where its frames stand.
constexpr size_t kTellingSize = offsetof(emsSTORAGE_SESSION, mUser);
constexpr size_t kLargestFile = kCountSize + kMaximumSessions * kRecordSize;
constexpr int kDamagedNames = 99;

} // namespace

bool SessionListParts::setPath(const char* path) {
	if (!path || !path[0]) return false;
	mPath = platform::fullPath(path);
	if (mPath.empty()) mList.log(3, "%s: no such place (err=%d)", path, static_cast<int>(platform::lastError()));
	return !mPath.empty();
}

void SessionListParts::forgetFile() {
	const std::lock_guard guard(mListMutex);
	mPath.clear();
	mDraft.forget();
	mRead = false;
	mRemovedEnd = mRemovedIndex = 0;
	mOwesRemoval = false;
	mDamaged = false;
	mUnsaved = false;
	mFailedSaves = 0;
}

// ---- file to sessions

bool SessionListParts::load() {
	endSessions(false);
	mRead = false;
	if (!hasPath()) return false;
	std::string bytes;
	bool whole = false;
	try {
		if (!readFile(&bytes)) return false;
		whole = loadRecords(bytes);
	} catch (const std::exception&) {
		mList.log(3, "No memory for %s", mPath.c_str());
		endSessions(false);
		return false;
	}
	mRemovedEnd = mRemovedIndex = 0; // what the file has is in force again
	mOwesRemoval = false;
	mRead = true;
	const CmsStorage* storage = mList.mStorage;
	if (storage && storage->mParts && storage->mParts->mOpening) return whole; // judged when the target is known
	judgeSessions();
	for (int i = 0; i < count(); ++i) whole = whole && !session(i)->mParts->mClaim.mFault;
	return whole;
}

bool SessionListParts::readFile(std::string* bytes) const {
	const auto file = platform::fileSystem().open(mPath.c_str(), platform::FileOpen());
	int64_t size = 0;
	if (!file || !file->size(&size)) {
		mList.log(3, "%s cannot be read (err=%d)", mPath.c_str(), static_cast<int>(platform::lastError()));
		return false;
	}
	if (size > static_cast<int64_t>(kLargestFile)) {
		mList.log(3, "%s holds more than %d sessions", mPath.c_str(), kMaximumSessions);
		return false;
	}
	bytes->resize(static_cast<size_t>(size));
	const auto wanted = static_cast<uint32_t>(size);
	if (wanted == 0 || file->read(bytes->data(), wanted) == wanted) return true;
	mList.log(3, "%s cannot be read (err=%d)", mPath.c_str(), static_cast<int>(platform::lastError()));
	return false;
}

/// The file says twice how many records there are, by its count and by its size: all that
/// are there become sessions, and all that the count knows of are missed.
bool SessionListParts::loadRecords(const std::string& bytes) {
	uint32_t counted = 0;
	const bool hasCount = bytes.size() >= kCountSize;
	if (hasCount) std::memcpy(&counted, bytes.data(), kCountSize);
	const size_t space = hasCount ? bytes.size() - kCountSize : 0;
	const bool rightSize = hasCount && space == counted * kRecordSize;
	if (!rightSize) {
		mList.log(3, "%s is damaged: %I64d bytes for %I64d sessions", mPath.c_str(),
		    static_cast<long long>(bytes.size()), static_cast<long long>(counted));
	}
	const size_t left = space % kRecordSize;
	const size_t telling = space / kRecordSize + (left >= kTellingSize ? 1 : 0);
	for (size_t i = 0; i < telling; ++i) {
		const size_t offset = kCountSize + i * kRecordSize;
		const size_t size = std::min(kRecordSize, bytes.size() - offset);
		loadRecord(bytes.data() + offset, size);
	}
	{
		const std::lock_guard guard(mListMutex);
		if (left && left < kTellingSize) mTail = bytes.substr(bytes.size() - left);
		mMissing = counted > telling ? static_cast<uint32_t>(counted - telling) : !hasCount;
	}
	if (mMissing || !mTail.empty()) {
		mList.log(3, "%s: where %d sessions stand is not known: the data target counts as occupied", mPath.c_str(),
		    static_cast<int>(std::max<uint32_t>(mMissing, 1)));
	}
	const std::lock_guard guard(mFileMutex);
	mDamaged = !rightSize;
	return rightSize;
}

/// Throws without memory for the session.
void SessionListParts::loadRecord(const char* place, size_t size) {
	emsSTORAGE_SESSION record = {};
	std::memcpy(&record, place, size);
	CmsSession* session = addSession(record);
	if (!session) throw std::bad_alloc();
	session->mParts->judge(kUnknownSize, 0);
}

void SessionListParts::judgeSessions() {
	const StorageParts* storage = mList.mStorage ? mList.mStorage->mParts : nullptr;
	for (int i = 0; i < count(); ++i) {
		CmsSession& session = *this->session(i);
		if (!session.mParts->mLoaded) continue;
		session.mParts->judge(storage ? storage->mHeldBytes : kUnknownSize, storage ? storage->mTargetBytes : 0);
		followIndex(session, i);
		reportClaim(session, i);
	}
}

void SessionListParts::reportClaim(const CmsSession& session, int number) const {
	const SessionClaim& claim = session.mParts->mClaim;
	const uint32_t counted = session.mSession.mFrameCount;
	if (claim.mFault) mList.log(3, "%s: session %d cannot be believed: %s", mPath.c_str(), number, claim.mFault);
	if (claim.mFramesThere >= counted && !claim.mFault) return;
	mList.log(4, "%s: session %d counts %I64d frames, %I64d are there; its space stays occupied", mPath.c_str(), number,
	    static_cast<long long>(counted), static_cast<long long>(claim.mFramesThere));
}

/// Index records say where frames stand, too. Where they and the session's record differ,
/// both places stay occupied.
void SessionListParts::followIndex(CmsSession& session, int number) const {
	CmsStorageIndexList* index = mList.mIndexList;
	const emsSTORAGE_SESSION& record = session.mSession;
	const long long target = mList.mStorage ? mList.mStorage->GetTargetBytes() : 0;
	emsSTORAGE_INDEX first;
	if (!record.mFrameCount || !target || !index || index->ReadRecord(record.mFirstIndex, &first) != kQorSuccess)
		return;
	const bool possible = first.mStoragePos > 0 && first.mStoragePos < target && !(first.mStoragePos % kFrameAlignment);
	if (!possible || first.mStoragePos == record.mStoragePos) return;
	SessionClaim& claim = session.mParts->mClaim;
	claim.include(first.mStoragePos, std::min(claim.mEnd - claim.mBegin, target - first.mStoragePos));
	claim.mFault = "the index file has its frames at another place";
	mList.log(3, "%s: session %d: frames at %I64d, by the index file at %I64d", mPath.c_str(), number,
	    static_cast<long long>(record.mStoragePos), static_cast<long long>(first.mStoragePos));
}

// ---- sessions to file

bool SessionListParts::save() {
	const std::lock_guard guard(mFileMutex);
	if (!hasPath()) return false;
	if (!mRead) {
		mList.log(3, "%s is not saved: it has not been read", mPath.c_str());
		return false;
	}
	unsigned removals = 0;
	StorageParts* storage = mList.mStorage ? mList.mStorage->mParts : nullptr;
	// Frames first: what the list counts is on the medium.
	const bool saved = snapshot(&removals) && (!storage || storage->flushTarget()) && writeFile();
	mUnsaved = !saved;
	if (saved) {
		removalSaved(removals);
		return true;
	}
	mFailedSaves.fetch_add(1, std::memory_order_relaxed);
	mList.log(3, "%s cannot be saved (err=%d)", mPath.c_str(), static_cast<int>(platform::lastError()));
	return false;
}

/// The bytes of the file as the sessions stand now. The string keeps its room, so that saves
/// while recording allocate nothing.
bool SessionListParts::snapshot(unsigned* removals) {
	const std::lock_guard guard(mListMutex);
	*removals = mRemovals;
	const auto held = static_cast<size_t>(mSessions.Count());
	const auto count = static_cast<uint32_t>(held + mMissing);
	try {
		mBytes.resize(kCountSize + held * kRecordSize);
		mBytes += mTail;
	} catch (const std::bad_alloc&) {
		return false;
	}
	std::memcpy(mBytes.data(), &count, kCountSize);
	char* place = mBytes.data() + kCountSize;
	for (const CmsSession* session : mSessions) {
		const emsSTORAGE_SESSION record = session->mParts->savedRecord();
		std::memcpy(place, &record, kRecordSize);
		place += kRecordSize;
	}
	return true;
}

bool SessionListParts::prepareToSave() {
	const std::lock_guard guard(mFileMutex);
	if (!hasPath() || !mRead) return true; // nothing will be saved
	try {
		mBytes.reserve(kCountSize + static_cast<size_t>(count()) * kRecordSize + mTail.size());
	} catch (const std::exception&) {
		return false;
	}
	// A list that can never be replaced would let the next run record over these frames.
	const bool replaceable = (mDraft.isPrepared() || mDraft.prepare(mPath.c_str())) && mDraft.begin();
	if (!replaceable)
		mList.log(3, "%s cannot be saved (err=%d)", mPath.c_str(), static_cast<int>(platform::lastError()));
	mDraft.discard();
	return replaceable;
}

bool SessionListParts::writeFile() {
	if (mDamaged && !keepDamagedFile()) return false;
	if (!mDraft.isPrepared() && !mDraft.prepare(mPath.c_str())) return false;
	if (!mDraft.begin()) return false;
	if (mDraft.write(mBytes.data(), mBytes.size()) && mDraft.commit()) {
		mDamaged = false;
		return true;
	}
	mDraft.discard();
	return false;
}

/// Somebody may want to look what can be saved from it.
bool SessionListParts::keepDamagedFile() {
	constexpr uint32_t kFileNotFound = 2, kFileExists = 80;
	try {
		for (int number = 1; number <= kDamagedNames; ++number) {
			std::string aside = mPath + ".damaged";
			if (number > 1) aside += std::to_string(number);
			if (platform::copyAside(mPath.c_str(), aside.c_str())) {
				mList.log(4, "Damaged session list kept as %s", aside.c_str());
				return true;
			}
			if (platform::lastError() == kFileNotFound) return true; // nothing is left to keep
			if (platform::lastError() != kFileExists) break;
		}
	} catch (const std::exception&) {
	}
	mList.log(3, "No copy of the damaged session list can be kept: it is not replaced");
	return false;
}

void SessionListParts::removalSaved(unsigned removals) {
	const std::lock_guard guard(mListMutex);
	if (mRemovals != removals) return; // more were removed meanwhile
	mRemovedEnd = mRemovedIndex = 0;
	mOwesRemoval = false;
}

} // namespace storage_parts
