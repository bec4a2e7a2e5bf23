#include "session_list.h"

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../platform/folder.h"
#include "../platform/machine.h"
#include "session_internal.h"
#include "session_list_internal.h"
#include "storage.h"
#include "target_internal.h"

#include <algorithm>
#include <new>

namespace {

using storage_parts::kNoLimit;

/// How far something that begins at `from` and is filled up to `next` can go before it meets
/// [begin, end).
long long roomBefore(long long from, long long next, long long begin, long long end) {
	if (end <= next || begin >= end) return kNoLimit;
	return std::max(begin, next) == begin ? begin - from : next - from;
}

} // namespace

CmsSessionList::CmsSessionList()
    : mStorage(nullptr), mIndexList(nullptr), mParts(new (std::nothrow) storage_parts::SessionListParts(*this)) {
	settype("CmsSessionList");
}

CmsSessionList::~CmsSessionList() {
	Close();
	delete mParts;
}

void CmsSessionList::Attach(CmsStorage* storage, CmsStorageIndexList* indexList) {
	mStorage = storage;
	mIndexList = indexList;
}

int CmsSessionList::Open(const char* path) {
	Close();
	if (!mParts || !mParts->setPath(path)) return kQorFailure;
	if (storage_parts::stateOf(mParts->mPath.c_str(), platform::kAccessRead) == storage_parts::FileState::absent) {
		mParts->beginNewFile();
		if (Save() != kQorSuccess) {
			mParts->forgetFile();
			return kQorFailure;
		}
		platform::flushFolders(mParts->mPath.c_str());
	}
	return Load();
}

int CmsSessionList::IsOpen() const { return mParts && mParts->isRead() ? 1 : 0; }

void CmsSessionList::Close() {
	for (int i = 0; i < GetCount(); ++i) GetSession(i)->FreeResources();
	if (!mParts) return;
	if (mParts->isUnsaved()) Save(); // another chance for what the last commit could not save
	mParts->endSessions(false);
	mParts->forgetFile();
}

int CmsSessionList::Load() { return mParts && mParts->load() ? kQorSuccess : kQorFailure; }

int CmsSessionList::Save() { return mParts && mParts->save() ? kQorSuccess : kQorFailure; }

CmsSession* CmsSessionList::Add(const emsSTORAGE_SESSION* record) {
	// In the file a record of zeros would be taken for one that was lost.
	if (!record || !mParts || storage_parts::isEmptyRecord(*record)) return nullptr;
	return mParts->addSession(*record);
}

void CmsSessionList::DeleteAll() {
	if (mParts) mParts->endSessions(true);
}

int CmsSessionList::GetCount() const { return mParts ? mParts->count() : 0; }
CmsSession* CmsSessionList::GetSession(int index) const { return mParts ? mParts->session(index) : nullptr; }
int CmsSessionList::GetSessionIndex(const CmsSession* session) const { return mParts ? mParts->indexOf(session) : -1; }
long long CmsSessionList::GetMaxIndex() const { return mParts ? mParts->maxIndex() : 0; }
long long CmsSessionList::GetMaxStoragePos() const { return mParts ? mParts->maxStoragePos() : 0; }
unsigned long long CmsSessionList::GetFailedSaves() const { return mParts ? mParts->failedSaves() : 0; }
int CmsSessionList::IsUnsaved() const { return mParts && mParts->isUnsaved() ? 1 : 0; }

namespace storage_parts {

// ---- sessions

CmsSession* SessionListParts::addSession(const emsSTORAGE_SESSION& record) {
	if (count() >= kMaximumSessions) return nullptr;
	auto* session = new (std::nothrow) CmsSession;
	if (!session) return nullptr;
	session->mStorage = mList.mStorage;
	session->mList = &mList;
	session->mIndexList = mList.mIndexList;
	if (session->Create(&record) == kQorSuccess) {
		const std::lock_guard guard(mListMutex);
		if (mSessions.Add(session)) return session;
	}
	delete session;
	return nullptr;
}

int SessionListParts::count() const {
	const std::lock_guard guard(mListMutex);
	return mSessions.Count();
}

CmsSession* SessionListParts::session(int index) const {
	const std::lock_guard guard(mListMutex);
	auto* place = mSessions.Get(index);
	return place ? *place : nullptr;
}

int SessionListParts::indexOf(const CmsSession* session) const {
	const std::lock_guard guard(mListMutex);
	const auto* found = std::find(mSessions.begin(), mSessions.end(), session);
	return found == mSessions.end() ? -1 : static_cast<int>(found - mSessions.begin());
}

/// All sessions finish writing before the first leaves the list: each buffer's commit saves
/// the list, which must not lose sessions on the way.
void SessionListParts::endSessions(bool owed) {
	for (int i = 0; i < count(); ++i) session(i)->FreeResources();
	const long long end = claimedEnd();
	const long long index = claimedIndex();
	const std::lock_guard guard(mListMutex);
	const bool any = mSessions.Count() > 0 || mMissing > 0 || !mTail.empty();
	for (CmsSession* session : mSessions) delete session;
	mSessions.Delete(0, mSessions.Count());
	mTail.clear();
	mMissing = 0;
	if (!any || !owed || !mRead) return;
	mRemovedEnd = std::max(mRemovedEnd, end);
	mRemovedIndex = std::max(mRemovedIndex, index);
	++mRemovals;
	mOwesRemoval = true;
}

// ---- where they stand

long long SessionListParts::maxIndex() const {
	const std::lock_guard guard(mListMutex);
	long long largest = 0;
	for (const CmsSession* session : mSessions) {
		const emsSTORAGE_SESSION record = session->GetRecord();
		largest = std::max(largest, static_cast<long long>(record.mFirstIndex) + record.mFrameCount);
	}
	return largest;
}

long long SessionListParts::maxStoragePos() const {
	const std::lock_guard guard(mListMutex);
	long long largest = 0;
	for (const CmsSession* session : mSessions) largest = std::max(largest, session->GetEndPosition());
	return largest;
}

long long SessionListParts::claimedEnd() const {
	const std::lock_guard guard(mListMutex);
	if (mMissing > 0 || !mTail.empty() || (hasPath() && !mRead)) return kUnknownEnd;
	long long end = mRemovedEnd;
	for (const CmsSession* session : mSessions) {
		end = std::max({end, session->GetEndPosition(), session->mParts->claim().mEnd});
	}
	return end;
}

long long SessionListParts::claimedIndex() const {
	const std::lock_guard guard(mListMutex);
	long long end = mRemovedIndex;
	for (const CmsSession* session : mSessions) end = std::max(end, session->mParts->claim().mEndIndex);
	return end;
}

/// Sessions that record at the same time stand one behind the other, wherever the host has put
/// them: who comes later ends who stands before it, and gets nothing where somebody is.
void SessionListParts::reserve(CmsSession* session) {
	const std::lock_guard guard(mListMutex);
	const emsSTORAGE_SESSION own = session->GetRecord();
	const long long size = own.mAlignedFrameSize;
	long long frames = size && own.mStoragePos >= 0 ? kNoLimit : 0;
	for (CmsSession* other : mSessions) {
		if (other != session && frames > own.mFrameCount) frames = std::min(frames, roomBeside(own, *other));
	}
	const base::MutexGuard sessionGuard(session->mMutex);
	SessionParts& parts = *session->mParts;
	parts.mFrameLimit = frames;
	parts.mReserved = frames > own.mFrameCount;
	parts.mLimitKnown = true;
}

/// Also ends the other one before `own`, where it was given places that reach there.
long long SessionListParts::roomBeside(const emsSTORAGE_SESSION& own, CmsSession& other) {
	const long long size = own.mAlignedFrameSize;
	const base::MutexGuard guard(other.mMutex);
	SessionParts& parts = *other.mParts;
	const emsSTORAGE_SESSION& record = other.mSession;
	SessionClaim claim = parts.claim();
	if (parts.mReserved && !record.mFrameCount) { // its first frame is as good as there
		claim.include(record.mStoragePos, record.mAlignedFrameSize);
		claim.mEndIndex = claim.mFirstIndex + 1;
	}
	const long long room =
	    roomBefore(own.mStoragePos, placeOfFrame(own, own.mFrameCount), claim.mBegin, claim.mEnd) / size;
	const long long endIndex = static_cast<long long>(own.mFirstIndex) + own.mFrameCount;
	const long long frames = std::min(room, roomBefore(own.mFirstIndex, endIndex, claim.mFirstIndex, claim.mEndIndex));
	if (frames > own.mFrameCount && parts.mReserved) {
		long long& limit = parts.mFrameLimit;
		if (record.mStoragePos < own.mStoragePos) {
			limit = std::min<long long>(limit, (own.mStoragePos - record.mStoragePos) / record.mAlignedFrameSize);
		}
		if (record.mFirstIndex < own.mFirstIndex)
			limit = std::min<long long>(limit, own.mFirstIndex - record.mFirstIndex);
	}
	return frames;
}

} // namespace storage_parts
