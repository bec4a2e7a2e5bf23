#include "storage_index.h"

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../platform/file.h"
#include "../platform/machine.h"
#include "session.h"
#include "target_internal.h"

#include <algorithm>
#include <limits>

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

CmsStorageIndexList::CmsStorageIndexList()
    : mFile(nullptr), mFlushFile(nullptr), mTotalCount(0), mMutex(platform::createMutex(false)) {
	settype("CmsStorageIndexList");
}

CmsStorageIndexList::~CmsStorageIndexList() {
	Close();
	platform::closeHandle(mMutex);
}

void CmsStorageIndexList::Lock() { platform::wait(mMutex, platform::kInfinite); }
void CmsStorageIndexList::Unlock() { platform::releaseMutex(mMutex); }

int CmsStorageIndexList::create(const char* path, long long recordCount) {
	log("      CREATING FILE...");
	long long written = 0;
	if (!storage_parts::makeZeroedFile(
	        path, recordCount * kRecordSize, kCreatePiece, platform::kAttributeNormal, &written)) {
		log(3, "CREATING FILE... %I64d of %I64d bytes (err=%d)", written, recordCount * kRecordSize,
		    static_cast<int>(platform::lastError()));
		return kQorFailure;
	}
	log("      CREATING FILE... [DONE]");
	return kQorSuccess;
}

int CmsStorageIndexList::Open(const char* path, long long recordCount) {
	Close();
	if (!path || !path[0] || recordCount < 0 || recordCount > kMaximumRecords) return kQorFailure;
	log(1, "Open(%s,%I64d)", path, recordCount);
	platform::FileSystem& files = platform::fileSystem();
	if (!files.exists(path) && create(path, recordCount) != kQorSuccess) return kQorFailure;
	platform::FileOpen how;
	how.access = platform::kAccessRead | platform::kAccessWrite;
	mFile = files.open(path, how).release();
	mFlushFile = mFile ? files.open(path, how).release() : nullptr;
	int64_t bytes = 0;
	if (!mMutex) mMutex = platform::createMutex(false);
	if (!mMutex || !mFlushFile || !mFile->size(&bytes)) {
		log(3, "Open(%s) (err=%d)", path, static_cast<int>(platform::lastError()));
		Close();
		return kQorFailure;
	}
	mTotalCount = bytes / kRecordSize;
	if (mTotalCount < recordCount) log(4, "%s holds %I64d of %I64d records", path, mTotalCount, recordCount);
	log(2, "Open(%s,%I64d) / TOTAL COUNT = %I64d", path, recordCount, mTotalCount);
	return kQorSuccess;
}

void CmsStorageIndexList::Close() {
	delete mFile;
	delete mFlushFile;
	mFile = mFlushFile = nullptr;
	mTotalCount = 0;
}

int CmsStorageIndexList::WriteRecords(long long firstIndex, const emsSTORAGE_INDEX* records, long long count) {
	if (!records || firstIndex < 0 || count < 0 || firstIndex > kMaximumRecords - count) return kQorFailure;
	const base::MutexGuard guard(mMutex);
	if (!seekTo(mFile, firstIndex)) return kQorFailure;
	while (count > 0) {
		const long long now = std::min(count, kTransferRecords);
		const auto bytes = static_cast<uint32_t>(now * kRecordSize);
		if (mFile->write(records, bytes) != bytes) return kQorFailure;
		records += now;
		count -= now;
	}
	return kQorSuccess;
}

int CmsStorageIndexList::ReadRecord(long long index, emsSTORAGE_INDEX* out) {
	if (!out) return kQorFailure;
	*out = emsSTORAGE_INDEX();
	if (index < 0 || index >= kMaximumRecords) return kQorFailure;
	const base::MutexGuard guard(mMutex);
	if (!seekTo(mFile, index)) return kQorFailure;
	emsSTORAGE_INDEX record;
	if (mFile->read(&record, sizeof(record)) != sizeof(record)) return kQorFailure;
	*out = record;
	return kQorSuccess;
}

int CmsStorageIndexList::Flush() { return mFlushFile && mFlushFile->flush() ? kQorSuccess : kQorFailure; }

int CmsStorageIndexList::GetIndexFromFile(emsSTORAGE_INDEX* out, const CmsSession* session, long long frameNumber) {
	if (!out) return kQorFailure;
	*out = emsSTORAGE_INDEX();
	if (!session || frameNumber < 0 || frameNumber >= session->GetWrittenFrameCount()) return kQorFailure;
	return ReadRecord(static_cast<long long>(session->GetRecord().mFirstIndex) + frameNumber, out);
}
