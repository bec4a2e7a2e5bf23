#pragma once

#include "../base/linear_array.h"
#include "../core/object.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "session.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

/// The recordings of a storage and the file that describes them.
///
/// The file is replaced in one step, so that a reader, or a crash, meets the former list or
/// the new one. It counts only frames that are on the disk with their index records.
///
/// Any thread may call `Save`, `Add` and the getters. `Open`, `Load`, `DeleteAll` and
/// `Close` end sessions: their pointers become invalid, and no other thread may use them.
class QOR_API CmsSessionList : public qor {
public:
	CmsSessionList();
	~CmsSessionList();

	/// What new sessions are linked to; either may be null.
	void Attach(CmsStorage* storage, CmsStorageIndexList* indexList);

	/// Remembers the path and loads the file; makes an empty one when there is none.
	/// @return 0; 0x10000000 when it can neither be read nor made, or is damaged (see `Load`).
	int Open(const char* path);
	/// @return 1 once there is a file to save to, else 0.
	int IsOpen() const { return mPath.empty() ? 0 : 1; }
	/// Ends all sessions and forgets the path; the file stays as it is.
	void Close();

	/// Replaces the sessions by those of the file.
	///
	/// Records that cannot be true (sizes, positions outside the target, counts that
	/// overflow) are reported and left out, and so is what a cut file no longer holds. The
	/// next `Save` then first puts the damaged file aside as "<path>.damaged". Frames that a
	/// record counts beyond its bytes written are reported and cannot be read.
	/// @return 0; 0x10000000 when the file cannot be read, without memory, or when anything
	/// was left out.
	int Load();
	/// Writes count and records. Failures are logged and counted and leave the former file.
	/// @return 0; 0x10000000 without path or on failure.
	int Save();

	/// Appends a session with a copy of `record`; nothing is saved yet.
	/// @return the session, which belongs to the list; null for null or without memory.
	CmsSession* Add(const emsSTORAGE_SESSION* record);
	/// Writes what the sessions were fed and ends them. The file stays as it is.
	void DeleteAll();

	int GetCount() const;
	/// @return null for an index outside the list.
	CmsSession* GetSession(int index) const;
	/// @return the place of a session in the list; -1 when it is not there.
	int GetSessionIndex(const CmsSession* session) const;

	/// The largest first index + frame count, and the largest position + bytes written; 0
	/// for an empty list. Frames that are still on their way to the disk count.
	long long GetMaxIndex() const;
	long long GetMaxStoragePos() const;

	/// Saves that failed since `Open`.
	unsigned long long GetFailedSaves() const { return mFailedSaves.load(std::memory_order_relaxed); }
	/// @return 1 when the last save failed and none has succeeded since, else 0.
	int IsUnsaved() const { return mUnsaved.load(std::memory_order_relaxed) ? 1 : 0; }

private:
	friend class CmsSession;

	long long framesThatFit(const CmsSession* session) const;
	bool readFile(std::string* bytes) const;
	bool loadRecords(const std::string& bytes);
	const char* faultOf(const emsSTORAGE_SESSION& record) const;
	bool snapshot();
	bool writeFile();
	void putDamagedFileAside();

	std::string mPath;
	CstmArray<CmsSession*> mSessions; // owned
	CmsStorage* mStorage;
	CmsStorageIndexList* mIndexList;
	mutable std::mutex mListMutex; // mSessions; session mutexes are taken inside it
	std::mutex mFileMutex;         // one Save at a time; mListMutex is taken inside it
	std::string mBytes;            // what Save writes, kept between saves; under mFileMutex
	bool mDamaged;                 // the file is put aside before it is replaced
	std::atomic<unsigned long long> mFailedSaves;
	std::atomic<bool> mUnsaved;
};
