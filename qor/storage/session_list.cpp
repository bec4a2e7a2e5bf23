#include "session_list.h"

#include "../base/status.h"
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
	if (!record || !mParts || GetCount() >= kMaximumSessions) return nullptr;
	auto* session = new (std::nothrow) CmsSession;
	if (!session) return nullptr;
	session->mStorage = mStorage;
	session->mList = this;
	session->mIndexList = mIndexList;
	if (session->Create(record) == kQorSuccess && mParts->add(session)) return session;
	delete session;
	return nullptr;
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

bool SessionListParts::add(CmsSession* session) {
	const std::lock_guard guard(mListMutex);
	return mSessions.Add(session);
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

long long SessionListParts::framesThatFit(const CmsSession* session) const {
	const emsSTORAGE_SESSION own = session->GetRecord();
	const long long size = own.mAlignedFrameSize;
	if (!size || own.mStoragePos < 0) return 0;
	long long frames = kNoLimit;
	const long long end = placeOfFrame(own, own.mFrameCount);
	const long long endIndex = static_cast<long long>(own.mFirstIndex) + own.mFrameCount;
	const std::lock_guard guard(mListMutex);
	for (const CmsSession* other : mSessions) {
		if (other == session) continue;
		const SessionClaim claim = other->mParts->claim();
		const long long room = roomBefore(own.mStoragePos, end, claim.mBegin, claim.mEnd);
		const long long indexRoom = roomBefore(own.mFirstIndex, endIndex, claim.mFirstIndex, claim.mEndIndex);
		frames = std::min({frames, room / size, indexRoom});
	}
	return frames;
}

} // namespace storage_parts
