#include "session_list.h"

#include "../base/status.h"
#include "../platform/file.h"
#include "../platform/format.h"
#include "../platform/machine.h"
#include "storage.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace {

constexpr size_t kCountSize = sizeof(uint32_t);
constexpr size_t kRecordSize = sizeof(emsSTORAGE_SESSION);
constexpr int kDamagedNames = 99;

/// How far something that begins at `from` and is filled up to `next` can go before it meets
/// [begin, end).
long long roomBefore(long long from, long long next, long long begin, long long end) {
	if (end <= next || begin >= end) return std::numeric_limits<long long>::max();
	return std::max(begin, next) == begin ? begin - from : next - from;
}

} // namespace

CmsSessionList::CmsSessionList()
    : mStorage(nullptr), mIndexList(nullptr), mDamaged(false), mFailedSaves(0), mUnsaved(false) {
	settype("CmsSessionList");
}

CmsSessionList::~CmsSessionList() { Close(); }

void CmsSessionList::Attach(CmsStorage* storage, CmsStorageIndexList* indexList) {
	mStorage = storage;
	mIndexList = indexList;
}

int CmsSessionList::Open(const char* path) {
	Close();
	if (!path || !path[0]) return kQorFailure;
	try {
		mPath = path;
	} catch (const std::bad_alloc&) {
		return kQorFailure;
	}
	if (!platform::fileSystem().exists(path) && Save() != kQorSuccess) {
		mPath.clear();
		return kQorFailure;
	}
	return Load();
}

void CmsSessionList::Close() {
	for (int i = 0; i < GetCount(); ++i) GetSession(i)->FreeResources();
	if (mUnsaved) Save(); // another chance for what the last commit could not save
	DeleteAll();
	mPath.clear();
	mDamaged = false;
	mUnsaved = false;
	mFailedSaves = 0;
}

// ---- sessions

CmsSession* CmsSessionList::Add(const emsSTORAGE_SESSION* record) {
	auto* session = record ? new (std::nothrow) CmsSession : nullptr;
	if (!session) return nullptr;
	session->Create(record);
	session->mStorage = mStorage;
	session->mList = this;
	session->mIndexList = mIndexList;
	const std::lock_guard guard(mListMutex);
	if (mSessions.Add(session)) return session;
	delete session;
	return nullptr;
}

/// All sessions finish writing before the first leaves the list: each buffer's commit saves
/// the list, which must not lose sessions on the way.
void CmsSessionList::DeleteAll() {
	for (int i = 0; i < GetCount(); ++i) GetSession(i)->FreeResources();
	const std::lock_guard guard(mListMutex);
	for (CmsSession* session : mSessions) delete session;
	mSessions.Delete(0, mSessions.Count());
}

int CmsSessionList::GetCount() const {
	const std::lock_guard guard(mListMutex);
	return mSessions.Count();
}

CmsSession* CmsSessionList::GetSession(int index) const {
	const std::lock_guard guard(mListMutex);
	auto* place = mSessions.Get(index);
	return place ? *place : nullptr;
}

int CmsSessionList::GetSessionIndex(const CmsSession* session) const {
	const std::lock_guard guard(mListMutex);
	const auto* found = std::find(mSessions.begin(), mSessions.end(), session);
	return found == mSessions.end() ? -1 : static_cast<int>(found - mSessions.begin());
}

long long CmsSessionList::GetMaxIndex() const {
	const std::lock_guard guard(mListMutex);
	long long largest = 0;
	for (const CmsSession* session : mSessions) {
		const emsSTORAGE_SESSION record = session->GetRecord();
		largest = std::max(largest, static_cast<long long>(record.mFirstIndex) + record.mFrameCount);
	}
	return largest;
}

long long CmsSessionList::GetMaxStoragePos() const {
	const std::lock_guard guard(mListMutex);
	long long largest = 0;
	for (const CmsSession* session : mSessions) largest = std::max(largest, session->GetEndPosition());
	return largest;
}

/// A session that is taken up again may stand in front of others: it must not run into them,
/// neither on the target nor in the index file.
long long CmsSessionList::framesThatFit(const CmsSession* session) const {
	const emsSTORAGE_SESSION own = session->GetRecord();
	long long frames = std::numeric_limits<long long>::max();
	if (!own.mAlignedFrameSize) return frames;
	const long long end = own.mStoragePos + static_cast<long long>(own.mFrameCount) * own.mAlignedFrameSize;
	const long long endIndex = static_cast<long long>(own.mFirstIndex) + own.mFrameCount;
	const std::lock_guard guard(mListMutex);
	for (const CmsSession* other : mSessions) {
		if (other == session) continue;
		const emsSTORAGE_SESSION record = other->GetRecord();
		const long long room = roomBefore(own.mStoragePos, end, record.mStoragePos, other->GetEndPosition());
		const long long indexRoom = roomBefore(own.mFirstIndex, endIndex, record.mFirstIndex,
		    static_cast<long long>(record.mFirstIndex) + record.mFrameCount);
		frames = std::min({frames, room / own.mAlignedFrameSize, indexRoom});
	}
	return frames;
}

// ---- file to sessions

int CmsSessionList::Load() {
	DeleteAll();
	if (mPath.empty()) return kQorFailure;
	bool whole = false;
	try {
		std::string bytes;
		if (readFile(&bytes)) whole = loadRecords(bytes);
	} catch (const std::bad_alloc&) {
		log(3, "No memory for %s", mPath.c_str());
	}
	mDamaged = !whole;
	return whole ? kQorSuccess : kQorFailure;
}

bool CmsSessionList::readFile(std::string* bytes) const {
	constexpr int64_t kLargest = 0x40000000;
	const auto file = platform::fileSystem().open(mPath.c_str(), platform::FileOpen());
	int64_t size = 0;
	if (!file || !file->size(&size) || size > kLargest) {
		log(3, "%s cannot be read (err=%d)", mPath.c_str(), static_cast<int>(platform::lastError()));
		return false;
	}
	bytes->resize(static_cast<size_t>(size));
	bytes->resize(file->read(bytes->data(), static_cast<uint32_t>(size)));
	return true;
}

/// @return false when something had to be left out.
bool CmsSessionList::loadRecords(const std::string& bytes) {
	uint32_t count = 0;
	const bool hasCount = bytes.size() >= kCountSize;
	if (hasCount) std::memcpy(&count, bytes.data(), kCountSize);
	const size_t held = hasCount ? (bytes.size() - kCountSize) / kRecordSize : 0;
	bool whole = hasCount && bytes.size() == kCountSize + count * kRecordSize;
	if (!whole) {
		log(3, "%s is damaged: %I64d bytes for %I64d sessions", mPath.c_str(), static_cast<long long>(bytes.size()),
		    static_cast<long long>(count));
	}
	for (size_t i = 0; i < std::min<size_t>(held, count); ++i) {
		emsSTORAGE_SESSION record;
		std::memcpy(&record, bytes.data() + kCountSize + i * kRecordSize, kRecordSize);
		const char* fault = faultOf(record);
		CmsSession* session = fault ? nullptr : Add(&record);
		if (!session) {
			log(3, "%s: session %d left out: %s", mPath.c_str(), static_cast<int>(i), fault ? fault : "no memory");
			whole = false;
			continue;
		}
		session->limitToWritten();
		const unsigned int written = session->GetWrittenFrameCount();
		if (written < record.mFrameCount) {
			log(4, "%s: session %d counts %I64d frames, %I64d are written", mPath.c_str(), static_cast<int>(i),
			    static_cast<long long>(record.mFrameCount), static_cast<long long>(written));
		}
	}
	return whole;
}

/// @return why a record cannot be true; null when it may be.
const char* CmsSessionList::faultOf(const emsSTORAGE_SESSION& record) const {
	constexpr long long kIndexes = 1ll << 32;
	if (record.mFrameSize > kMaximumFrameSize || record.mAlignedFrameSize < record.mFrameSize ||
	    record.mAlignedFrameSize - record.mFrameSize >= kFrameAlignment || record.mAlignedFrameSize % kFrameAlignment) {
		return "frame sizes";
	}
	if (static_cast<long long>(record.mFirstIndex) + record.mFrameCount > kIndexes) return "frame count";
	if (record.mStoragePos < 0 || record.mStoragePos % kFrameAlignment || record.mBytesWritten < 0 ||
	    record.mStoragePos > std::numeric_limits<int64_t>::max() - record.mBytesWritten) {
		return "position";
	}
	const long long target = mStorage ? mStorage->GetTargetBytes() : 0;
	if (target > 0 && record.mStoragePos + record.mBytesWritten > target) return "outside the data target";
	return nullptr;
}

// ---- sessions to file

int CmsSessionList::Save() {
	const std::lock_guard guard(mFileMutex);
	if (mPath.empty()) return kQorFailure;
	const bool saved = snapshot() && writeFile();
	mUnsaved = !saved;
	if (saved) return kQorSuccess;
	mFailedSaves.fetch_add(1, std::memory_order_relaxed);
	log(3, "%s cannot be saved (err=%d)", mPath.c_str(), static_cast<int>(platform::lastError()));
	return kQorFailure;
}

/// The bytes of the file as the sessions stand now. The string keeps its room, so that saves
/// while recording allocate nothing.
bool CmsSessionList::snapshot() {
	const std::lock_guard guard(mListMutex);
	const auto count = static_cast<uint32_t>(mSessions.Count());
	try {
		mBytes.resize(kCountSize + count * kRecordSize);
	} catch (const std::bad_alloc&) {
		return false;
	}
	std::memcpy(mBytes.data(), &count, kCountSize);
	char* place = mBytes.data() + kCountSize;
	for (const CmsSession* session : mSessions) {
		const emsSTORAGE_SESSION record = session->savedRecord();
		std::memcpy(place, &record, kRecordSize);
		place += kRecordSize;
	}
	return true;
}

bool CmsSessionList::writeFile() {
	platform::FileSystem& files = platform::fileSystem();
	platform::FileOpen how;
	how.disposition = platform::Disposition::createAlways;
	how.access = platform::kAccessWrite;
	const std::string unfinished = mPath + ".saving";
	auto file = files.open(unfinished.c_str(), how);
	if (!file) return false;
	const auto size = static_cast<uint32_t>(mBytes.size());
	bool good = file->write(mBytes.data(), size) == size;
	const uint32_t error = platform::lastError();
	file.reset();
	if (good && mDamaged) putDamagedFileAside();
	if (good && files.replace(unfinished.c_str(), mPath.c_str())) return true;
	if (good) return false;
	files.remove(unfinished.c_str());
	platform::setLastError(error);
	return false;
}

/// Somebody may want to look what can be saved from it.
void CmsSessionList::putDamagedFileAside() {
	platform::FileSystem& files = platform::fileSystem();
	mDamaged = false;
	if (!files.exists(mPath.c_str())) return;
	for (int number = 1; number <= kDamagedNames; ++number) {
		std::string aside = mPath + ".damaged";
		if (number > 1) aside += std::to_string(number);
		if (files.exists(aside.c_str())) continue;
		if (files.replace(mPath.c_str(), aside.c_str())) log(4, "Damaged session list kept as %s", aside.c_str());
		return;
	}
}
