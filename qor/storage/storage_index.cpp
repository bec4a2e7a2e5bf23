#include "storage_index.h"

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../platform/file.h"
#include "../platform/machine.h"
#include "session.h"
#include "target_internal.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <new>

namespace {

constexpr long long kRecordSize = sizeof(emsSTORAGE_INDEX);
constexpr uint32_t kCreatePiece = 100000 * sizeof(emsSTORAGE_INDEX);
constexpr long long kMaximumRecords = std::numeric_limits<long long>::max() / kRecordSize;
/// Whole records of one transfer.
constexpr long long kTransferRecords = 0x40000000 / kRecordSize;

bool seekTo(platform::File* file, long long index) {
	int64_t position = 0;
	return file && file->seek(index * kRecordSize, platform::SeekOrigin::begin, &position);
}

} // namespace

namespace storage_parts {

struct IndexParts {
	std::unique_ptr<platform::File> mFile;      // under the mutex
	std::unique_ptr<platform::File> mFlushFile; // the same file, opened once more, for `Flush` alone
	long long mTotalCount = 0;
	base::OwnedHandle mMutex{platform::createMutex(false)}; // index-file mutex
};

} // namespace storage_parts

CmsStorageIndexList::CmsStorageIndexList() : mParts(new (std::nothrow) storage_parts::IndexParts) {
	settype("CmsStorageIndexList");
}

CmsStorageIndexList::~CmsStorageIndexList() {
	Close();
	delete mParts;
}

int CmsStorageIndexList::IsOpen() const { return mParts && mParts->mFile ? 1 : 0; }
long long CmsStorageIndexList::GetMaxCount() const { return mParts ? mParts->mTotalCount : 0; }

void CmsStorageIndexList::Lock() {
	if (mParts) platform::wait(mParts->mMutex.get(), platform::kInfinite);
}

void CmsStorageIndexList::Unlock() {
	if (mParts) platform::releaseMutex(mParts->mMutex.get());
}

static bool createIndexFile(const qor& owner, const char* path, long long recordCount) {
	owner.log("      CREATING FILE...");
	long long written = 0;
	if (!storage_parts::makeFilledFile(
	        path, recordCount * kRecordSize, kCreatePiece, nullptr, platform::kAttributeNormal, &written)) {
		owner.log(3, "CREATING FILE... %I64d of %I64d bytes (err=%d)", written, recordCount * kRecordSize,
		    static_cast<int>(platform::lastError()));
		return false;
	}
	owner.log("      CREATING FILE... [DONE]");
	return true;
}

/// Opens both handles and reads a first record: a file that gives none may hold any.
static bool openIndexFile(storage_parts::IndexParts& parts, const char* path) {
	platform::FileSystem& files = platform::fileSystem();
	platform::FileOpen how;
	how.access = platform::kAccessRead | platform::kAccessWrite;
	parts.mFile = files.open(path, how);
	if (parts.mFile) parts.mFlushFile = files.open(path, how);
	int64_t bytes = 0;
	if (!parts.mFlushFile || !parts.mFile->size(&bytes)) return false;
	parts.mTotalCount = bytes / kRecordSize;
	emsSTORAGE_INDEX first;
	return !parts.mTotalCount || parts.mFile->read(&first, sizeof(first)) == sizeof(first);
}

int CmsStorageIndexList::Open(const char* path, long long recordCount) {
	Close();
	if (!mParts || !path || !path[0] || recordCount < 0 || recordCount > kMaximumRecords) return kQorFailure;
	log(1, "Open(%s,%I64d)", path, recordCount);
	const bool absent = storage_parts::stateOf(path, platform::kAccessRead) == storage_parts::FileState::absent;
	if (absent && !createIndexFile(*this, path, recordCount)) return kQorFailure;
	if (!mParts->mMutex) mParts->mMutex.reset(platform::createMutex(false));
	if (!mParts->mMutex || !openIndexFile(*mParts, path)) {
		log(3, "Open(%s) (err=%d)", path, static_cast<int>(platform::lastError()));
		Close();
		return kQorFailure;
	}
	const long long count = mParts->mTotalCount;
	if (count < recordCount) log(4, "%s holds %I64d of %I64d records", path, count, recordCount);
	log(2, "Open(%s,%I64d) / TOTAL COUNT = %I64d", path, recordCount, count);
	return kQorSuccess;
}

void CmsStorageIndexList::Close() {
	if (!mParts) return;
	mParts->mFile.reset();
	mParts->mFlushFile.reset();
	mParts->mTotalCount = 0;
}

int CmsStorageIndexList::WriteRecords(long long firstIndex, const emsSTORAGE_INDEX* records, long long count) {
	if (!mParts || !records || firstIndex < 0 || count < 0 || firstIndex > kMaximumRecords - count) return kQorFailure;
	const base::MutexGuard guard(mParts->mMutex.get());
	if (!seekTo(mParts->mFile.get(), firstIndex)) return kQorFailure;
	while (count > 0) {
		const long long now = std::min(count, kTransferRecords);
		const auto bytes = static_cast<uint32_t>(now * kRecordSize);
		if (mParts->mFile->write(records, bytes) != bytes) return kQorFailure;
		records += now;
		count -= now;
	}
	return kQorSuccess;
}

int CmsStorageIndexList::ReadRecord(long long index, emsSTORAGE_INDEX* out) {
	if (!out) return kQorFailure;
	*out = emsSTORAGE_INDEX();
	if (!mParts || index < 0 || index >= kMaximumRecords) return kQorFailure;
	const base::MutexGuard guard(mParts->mMutex.get());
	if (!seekTo(mParts->mFile.get(), index)) return kQorFailure;
	emsSTORAGE_INDEX record;
	if (mParts->mFile->read(&record, sizeof(record)) != sizeof(record)) return kQorFailure;
	*out = record;
	return kQorSuccess;
}

int CmsStorageIndexList::Flush() {
	return mParts && mParts->mFlushFile && mParts->mFlushFile->flush() ? kQorSuccess : kQorFailure;
}

int CmsStorageIndexList::GetIndexFromFile(emsSTORAGE_INDEX* out, const CmsSession* session, long long frameNumber) {
	if (!out) return kQorFailure;
	*out = emsSTORAGE_INDEX();
	if (!session || frameNumber < 0 || frameNumber >= session->GetWrittenFrameCount()) return kQorFailure;
	return ReadRecord(static_cast<long long>(session->GetRecord().mFirstIndex) + frameNumber, out);
}
