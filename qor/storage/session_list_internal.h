#pragma once

#include "../base/linear_array.h"
#include "../platform/draft.h"
#include "session_claim_internal.h"
#include "session_list.h"

#include <atomic>
#include <mutex>
#include <string>

namespace storage_parts {

/// The sessions of a list and the file behind them.
///
/// What the file says is never dropped because it cannot be believed: damaged records stay
/// sessions with nothing to play, bytes that are no record are written back, and what the
/// file lost keeps the whole target occupied, until the host deletes the sessions. A file
/// that could not be read at all is never written.
class SessionListParts {
public:
	explicit SessionListParts(CmsSessionList& list) : mList(list) {}

	/// Remembers the path. @return false without memory or a path.
	bool setPath(const char* path);
	bool hasPath() const { return !mPath.empty(); }
	/// There is no file yet: the list that will be saved is the only one.
	void beginNewFile() { mRead = true; }
	bool isRead() const { return mRead.load(std::memory_order_acquire); }
	void forgetFile();

	/// @return null when the list is full, or without memory.
	CmsSession* addSession(const emsSTORAGE_SESSION& record);
	int count() const;
	CmsSession* session(int index) const;
	int indexOf(const CmsSession* session) const;
	/// Ends all sessions. `owed`: the space of what the file still counts stays occupied.
	void endSessions(bool owed);

	/// Replaces the sessions by those of the file. @return false when anything is not as it was written.
	bool load();
	bool save();
	/// Takes the memory that saves need, so that those while recording need none, and tries whether the
	/// file can be replaced.
	/// @return false without memory, and for a file that may not be replaced.
	bool prepareToSave();

	/// Holds the sessions that were loaded against a target that has become known, and against
	/// what the index file says of their places.
	void judgeSessions();

	long long maxIndex() const;
	long long maxStoragePos() const;
	/// Behind everything that any record claims; `kUnknownEnd` when nobody knows.
	long long claimedEnd() const;
	long long claimedIndex() const;
	/// Gives a session the places behind its last frame, up to another one's claim on the target
	/// or in the index file; those that were given places reaching into these end before them.
	void reserve(CmsSession* session);
	/// Sessions were removed, and the saved list still has them.
	bool owesRemoval() const { return mOwesRemoval.load(std::memory_order_acquire); }

	unsigned long long failedSaves() const { return mFailedSaves.load(std::memory_order_relaxed); }
	bool isUnsaved() const { return mUnsaved.load(std::memory_order_relaxed); }

private:
	bool readFile(std::string* bytes) const;
	bool loadRecords(const std::string& bytes);
	void loadRecord(const char* place, size_t size);
	static long long roomBeside(const emsSTORAGE_SESSION& own, CmsSession& other);
	void reportClaim(const CmsSession& session, int number) const;
	void followIndex(CmsSession& session, int number) const;
	bool snapshot(unsigned* removals);
	bool writeFile();
	bool keepDamagedFile();
	void removalSaved(unsigned removals);

	CmsSessionList& mList;
	std::string mPath;                // absolute: the current folder is the host's
	std::atomic<bool> mRead{false};   // the file was read, or made by this list
	CstmArray<CmsSession*> mSessions; // owned
	mutable std::mutex mListMutex;    // all up to mRemovals; session mutexes are taken inside it
	std::string mTail;                // what stands behind the file's last record and is too short for one
	uint32_t mMissing = 0;            // records that the file counts and does not have
	long long mRemovedEnd = 0;        // claims of removed sessions that the saved list still has
	long long mRemovedIndex = 0;
	unsigned mRemovals = 0; // how often sessions were removed
	std::atomic<bool> mOwesRemoval{false};

	std::mutex mFileMutex;  // one save at a time; mListMutex is taken inside it
	std::string mBytes;     // what is saved, kept between saves; under mFileMutex
	platform::Draft mDraft; // prepared for the path; under mFileMutex
	bool mDamaged = false;  // a copy of the file is kept before it is replaced; under mFileMutex
	std::atomic<unsigned long long> mFailedSaves{0};
	std::atomic<bool> mUnsaved{false};

	friend class ::CmsSessionList;
};

} // namespace storage_parts
