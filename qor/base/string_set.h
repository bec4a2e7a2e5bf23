#pragma once

#include "line_buffer_array.h"

/// A list of owned, terminated strings with a read cursor.
///
/// Strings keep their address until they are deleted; a caller may change the characters of
/// one, not its length upwards. Operations that take several strings take all or none: on
/// failure the set is as it was. Not locked.
class QOR_API CstmCharStringSet : public CstmRawObjLineArray {
public:
	CstmCharStringSet();
	~CstmCharStringSet();
	/// The copy is empty when memory is short; `Copy` tells.
	CstmCharStringSet(const CstmCharStringSet& other);
	/// Leaves the set as it was when memory is short.
	CstmCharStringSet& operator=(const CstmCharStringSet& other);

	/// Stores a copy of `text` at the end. @return the copy; null for null or without memory.
	char* Add(const char* text);
	/// Stores a copy before `index`; an index at or past the end appends.
	/// @return the copy; null for null, a negative index or without memory.
	char* InsertAt(int index, const char* text);
	/// @return the string at `index`; null outside the set.
	char* GetLine(int index) const { return static_cast<char*>(GetLineBuffer(index)); }

	/// Sequential reading: `for (s = FirstLine(); !eof(); s = NextLine())`. The cursor is the
	/// index of the string read last; each returns null when there is no such string.
	char* FirstLine();
	char* LastLine();
	char* NextLine();
	/// Whether the cursor is at or past the count.
	bool eof() const { return mCursor >= mItemCount; }

	/// Deletes all strings and resets the cursor.
	void Destroy();

	/// Replace the strings by copies of all, or of up to `count` from `first` on, of `other`
	/// (which may be this set), and reset the cursor.
	/// @return 0; 0x10000000 without memory or for a `first` below 0 or past the count.
	int Copy(const CstmCharStringSet& other);
	int CopyRange(const CstmCharStringSet& other, int first, int count);
	/// The same, behind the strings that are there.
	int Append(const CstmCharStringSet& other);
	int AppendRange(const CstmCharStringSet& other, int first, int count);
	/// Both append all strings of `other`; nothing is added when memory is short.
	CstmCharStringSet& operator+=(const CstmCharStringSet& other);
	CstmCharStringSet& operator&=(const CstmCharStringSet& other);

	/// Replaces the strings by the lines of a file. A carriage return ends a line, a line
	/// feed right behind it is skipped; a line feed of its own stays in its line. The last
	/// line needs no end. A zero byte ends a string; the rest of its line stays in the line
	/// buffer behind it.
	///
	/// The file is opened for reading and writing, so a read-only file is refused.
	/// @return 0; 0x10000000, with an empty set, when the file cannot be opened or read, or without memory.
	int LoadFromFile(const char* path);

	/// Writes every string and "\r\n" to a file. "%%" in a string becomes "%" on the way, so a set
	/// that holds percent signs holds them doubled; a single percent sign stays. Strings of any
	/// length are written whole.
	///
	/// The lines are written beside the file and replace it as one change when all of them are on
	/// the medium; its rights stay. A target that is there but not a regular file is refused.
	/// @return 0; 0x10000000, with an old file untouched, without memory or when not all of it
	///         could be written.
	int SaveToFile(const char* path) const;

private:
	char* insertText(int index, const char* text, size_t length);
	bool addLines(const char* text, size_t size);

	int32_t mCursor = 0;
};
