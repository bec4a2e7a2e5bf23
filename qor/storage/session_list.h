#pragma once

#include "../core/object.h"
#include "../platform/export.h"
#include "session.h"

namespace storage_parts {
class SessionListParts;
}

/// Sessions that one list file can hold.
inline constexpr int kMaximumSessions = 65536;

/// The recordings of a storage and the file that describes them.
///
/// The file is replaced in one step, so that a reader, or a crash, meets the former list or
/// the new one. It counts only frames that are on the disk with their index records.
///
/// What cannot be believed is not destroyed. A file that is there and cannot be read is
/// never renamed, replaced or written. A record that cannot be true is a session all the
/// same: it plays the frames that are there, `Save` writes it back as it was read, and the
/// space that it claims stays occupied until the host deletes the sessions.
///
/// Any thread may call `Save`, `Add` and the getters. `Open`, `Load`, `DeleteAll` and
/// `Close` end sessions: their pointers become invalid, and no other thread may use them.
class QOR_API CmsSessionList : public qor {
public:
	CmsSessionList();
	~CmsSessionList();

	/// What new sessions are linked to; either may be null.
	void Attach(CmsStorage* storage, CmsStorageIndexList* indexList);

	/// Remembers the path (made absolute, so that the host may change its current folder) and
	/// loads the file; makes an empty one when there is none.
	/// @return 0; 0x10000000 when it can neither be read nor made (`IsOpen` is then 0), or is
	/// damaged (see `Load`).
	int Open(const char* path);
	/// @return 1 once the file was read or made, so that the list can be saved; else 0.
	int IsOpen() const;
	/// Ends all sessions and forgets the path; the file stays as it is.
	void Close();

	/// Replaces the sessions by those of the file.
	///
	/// Each record becomes a session. Of one that cannot be true (sizes, positions outside
	/// the target, counts that overflow, frames beyond its bytes written) the log says why;
	/// `GetWrittenFrameCount` tells how many of its frames can be played, and it takes no
	/// more. A record that is cut off is filled up with zeros; where more is missing, the log
	/// says so and the whole target counts as occupied. Records without any contents are left
	/// out. Before a file that is cut or too long is replaced, `Save` keeps a copy as
	/// "<path>.damaged".
	/// @return 0; 0x10000000 when anything was not as `Save` writes it, without memory, and
	/// when the file cannot be read or holds more than `kMaximumSessions` sessions: there are
	/// then no sessions, and `IsOpen` is 0 until a later `Load` succeeds.
	int Load();
	/// Writes count and records. Failures are logged and counted and leave the former file.
	/// @return 0; 0x10000000 without a path, on failure, and for a file that was not read.
	int Save();

	/// Appends a session with a copy of `record`; nothing is saved yet.
	/// @return the session, which belongs to the list; null for null, without memory, and
	/// above `kMaximumSessions`.
	CmsSession* Add(const emsSTORAGE_SESSION* record);
	/// Writes what the sessions were fed and ends them. The file stays as it is: until a list
	/// without them is saved, their space stays occupied and no session takes frames.
	void DeleteAll();

	int GetCount() const;
	/// @return null for an index outside the list.
	CmsSession* GetSession(int index) const;
	/// @return the place of a session in the list; -1 when it is not there.
	int GetSessionIndex(const CmsSession* session) const;

	/// The largest first index + frame count, and the largest position + bytes written; 0
	/// for an empty list. Frames that are still on their way to the disk count. What damaged
	/// records claim beside that is in `CmsStorage::GetAvailableSpace`.
	long long GetMaxIndex() const;
	long long GetMaxStoragePos() const;

	/// Saves that failed since `Open`.
	unsigned long long GetFailedSaves() const;
	/// @return 1 when the last save failed and none has succeeded since, else 0.
	int IsUnsaved() const;

private:
	friend class CmsSession;
	friend class CmsStorage;
	friend class storage_parts::SessionListParts;
	friend struct storage_parts::SessionParts;

	CmsStorage* mStorage;
	CmsStorageIndexList* mIndexList;
	storage_parts::SessionListParts* mParts; // owned; null without memory: every call then fails
};
