#include "open_storage.h"

#include <algorithm>
#include <vector>

namespace {

/// The index records of one session, as far as the file has them.
class SessionIndex {
public:
	SessionIndex(CmsStorageIndexList& index, CmsSession& session)
	    : mIndex(index), mRecord(session.GetRecord()), mRecords(session.GetWrittenFrameCount()) {
		for (size_t i = 0; i < mRecords.size(); ++i)
			mIndex.ReadRecord(mRecord.mFirstIndex + static_cast<long long>(i), &mRecords[i]);
	}

	long long frames() const { return static_cast<long long>(mRecords.size()); }
	long long damaged() const {
		return std::count_if(mRecords.begin(), mRecords.end(), [this](auto& r) { return !isGood(r); });
	}
	/// A session of which no record agrees may itself be wrong about its place.
	bool canBeTold() const { return mRecord.mFirstIndex == mRecord.mFirstIndex2 && damaged() < frames(); }
	bool meets(const SessionIndex& other) const {
		return frames() && other.frames() && mRecord.mFirstIndex < other.mRecord.mFirstIndex + other.frames() &&
		       other.mRecord.mFirstIndex < mRecord.mFirstIndex + frames();
	}

	/// Writes the damaged records anew: place and size are the session's, the time is that of
	/// the frame before. @return false when the file does not take one.
	bool rebuild() {
		double time = std::find_if(mRecords.begin(), mRecords.end(), [this](auto& r) { return isGood(r); })->mTime;
		for (auto& record : mRecords) {
			if (!isGood(record)) {
				record = {time, placeOf(record), mRecord.mFrameSize, mRecord.mFlags};
				if (mIndex.WriteRecords(mRecord.mFirstIndex + (&record - mRecords.data()), &record, 1) != 0)
					return false;
			}
			time = record.mTime;
		}
		return mIndex.Flush() == 0;
	}

private:
	long long placeOf(const emsSTORAGE_INDEX& record) const {
		return mRecord.mStoragePos + (&record - mRecords.data()) * static_cast<long long>(mRecord.mAlignedFrameSize);
	}
	bool isGood(const emsSTORAGE_INDEX& record) const {
		return record.mStoragePos == placeOf(record) && record.mFrameSize <= mRecord.mAlignedFrameSize;
	}

	CmsStorageIndexList& mIndex;
	emsSTORAGE_SESSION mRecord;
	std::vector<emsSTORAGE_INDEX> mRecords;
};

} // namespace

int repair(const PlayOptions& options) {
	OpenStorage storage(options);
	if (const int result = storage.open()) return result;
	std::vector<SessionIndex> sessions;
	sessions.reserve(static_cast<size_t>(storage.list().GetCount()));
	for (int i = 0; i < storage.list().GetCount(); ++i)
		sessions.emplace_back(storage.index(), *storage.list().GetSession(i));
	long long left = 0;
	for (size_t i = 0; i < sessions.size(); ++i) {
		SessionIndex& session = sessions[i];
		const long long damaged = session.damaged();
		std::cout << i << "  " << session.frames() << " frames, " << damaged << " index records damaged";
		const bool alone = std::none_of(
		    sessions.begin(), sessions.end(), [&](auto& other) { return &other != &session && session.meets(other); });
		if (!damaged) {
			std::cout << "\n";
		} else if (!alone || !session.canBeTold()) {
			std::cout << ", left alone: where its frames stand cannot be told for sure\n";
			left += damaged;
		} else if (session.rebuild()) {
			std::cout << ", rebuilt from the frames' places; their times are those of the frames before\n";
		} else {
			return trouble("the index file cannot be written");
		}
	}
	if (storage.isDamaged()) return kExitTrouble;
	return left ? kExitFramesBad : kExitGood;
}
