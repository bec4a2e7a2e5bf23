#pragma once

#include "file.h"

#include <string>

namespace platform {

/// New contents of a file, written beside it and put in its place as one change: a reader,
/// a crash or a power cut meets the old file or the new one. Until then the old file is not
/// touched.
///
///     Draft draft;
///     if (!draft.open(path) || !draft.write(bytes, count) || !draft.commit()) return lastError();
///
/// The draft is a new file in the target's folder, of a name that nobody can foresee. It is
/// never opened through a link, and until it is complete nobody else can read it (on Windows:
/// it has the rights that its folder gives, and cannot be opened beside us). It takes the
/// owner, group and rights of the file that it replaces; what the system refuses to give is
/// left out, never widened. Owners change only for root; the access lists of Linux are not kept.
///
/// A target that is a link keeps its link, and the file that it leads to is replaced, where
/// nobody but this user and root could have set the link: it belongs to one of them and its
/// folder is not writable by everybody. Another link is refused (error 5), and so is a target
/// that is there but not a regular file.
///
/// Everything goes through the `FileSystem` in force at `open`. One thread at a time.
class Draft {
public:
	Draft() = default;
	/// Removes a draft that was not committed.
	~Draft() { discard(); }
	Draft(const Draft&) = delete;
	Draft& operator=(const Draft&) = delete;

	/// Begins a draft for `path`, relative to the current folder of this moment; one that was
	/// begun before is discarded.
	/// @param flags as in `FileOpen`. @return false with `lastError()`.
	bool open(const char* path, uint32_t flags = kAttributeNormal);
	/// The two halves of `open`, for a file that is replaced often: once the target is found,
	/// each draft for it is begun without memory for more than the open file.
	bool prepare(const char* path);
	bool isPrepared() const { return !mTarget.empty(); }
	bool begin(uint32_t flags = kAttributeNormal);
	/// Discards what was begun, and forgets the target.
	void forget();
	/// Between `open` and `commit` only.
	File& file() { return *mFile; }
	/// Appends all of `data`. @return false with `lastError()`.
	bool write(const void* data, size_t size);
	/// Closes the draft and gives it the target's name; the step waits until the medium has
	/// both. @return false with `lastError()`, the draft removed and the target as it was
	/// (except when only the folder's flush failed: then it may be the new one).
	bool commit();
	/// Without an effect on the target.
	void discard();

private:
	friend bool copyAside(const char* from, const char* to);
	bool finish(const char* rightsOf);

	FileSystem* mFiles = nullptr;
	std::unique_ptr<File> mFile;
	std::string mTarget;
	std::string mName; // its last digits change with each draft
};

/// Makes a durable copy of a file under a name that nothing has yet, with the owner, group
/// and rights of the original, which is only read.
/// @return false with `lastError()`: 80 when `to` is there, which is left as it is.
bool copyAside(const char* from, const char* to);

} // namespace platform
