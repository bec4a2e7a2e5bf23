#pragma once

#include "../base/linear_array.h"
#include "../platform/export.h"

#include <cstddef>
#include <cstdint>

/// The parts of a file's path. That of "C:\img\cam_0012.bmp": folder "C:\img\", base name
/// "cam_", number text "0012", number 12, extension "bmp".
struct eqorFILESEQ_FILEATTR {
	char mFolder[260]; ///< with the separator at its end
	char mBaseName[128];
	char mExtension[32];  ///< without the point
	char mNumberText[32]; ///< the digits as written, with leading zeros; empty without digits
	int32_t mNumber;      ///< 2147483647 for larger ones; 0 without digits
};

/// A file of a sequence. Only the value is the host's to change.
struct eqorFILESEQ_CITEM {
	uint32_t mNumber;
	uint32_t mSpelling;   ///< 0: folder, base name and extension are written as the sequence's
	uint64_t mValue;      ///< bytes of the file, when the library made the sequence
	char mNumberText[32]; ///< the digits as written
};
static_assert(sizeof(eqorFILESEQ_CITEM) == 48 && offsetof(eqorFILESEQ_CITEM, mNumber) == 0);
static_assert(offsetof(eqorFILESEQ_CITEM, mValue) == 8 && offsetof(eqorFILESEQ_CITEM, mNumberText) == 16);

/// Constants of `CqorFileSeq`, where hosts can bind them by reference.
struct CqorFileSeqConstants {
	static constexpr size_t kNameSize = 512;   ///< characters that any name of a sequence fits into, with its end
	static constexpr int kMaximumFiles = 1024; ///< files that one listing of a folder looks at
};

/// The files of one folder that differ in nothing but the decimal number before the extension:
/// frame0001.bmp, frame0002.bmp, ...
///
/// Names are compared without regard to the case of ASCII letters, '\' and '/' alike. Each
/// item keeps its digits, and its own spelling where that is another, so that every name is
/// given back as the file has it, also where "Cam_1.bmp" and "cam_2.bmp" are two names.
///
/// A folder stays as it was written: the names of a sequence of a relative path are relative to the
/// current folder of their moment, as the path itself is.
///
/// Items keep the order in which they were added; those of a folder come in the order of the
/// bytes of their names. Addresses of items are valid until the next change. Not locked: one
/// thread at a time, or several that only read.
class QOR_API CqorFileSeq : public CqorFileSeqConstants {
public:
	CqorFileSeq();
	~CqorFileSeq();
	CqorFileSeq(const CqorFileSeq&) = delete;
	CqorFileSeq& operator=(const CqorFileSeq&) = delete;

	/// Divides a path; the file need not exist. Both '\' and '/' separate.
	///
	/// The extension stands behind the last point, the number just before it. A path without a
	/// point has neither, nor has one whose only point is its first character. A path without a
	/// folder gets that of the current folder ("./" on Linux, ".\" on Windows). If such a path is
	/// nothing but digits up to its point ("0007.bmp"), its number is 0, whatever the digits say.
	/// @return 0; 0x10000000, all parts empty, for null or when a part does not fit into its field.
	static int ParseByFilePath(eqorFILESEQ_FILEATTR* attributes, const char* path);

	/// Makes this the sequence that the path belongs to, from the files in its folder.
	///
	/// Of a folder with more files of the extension the first 1,024 in the order of their names
	/// are looked at (`HasMoreFiles`): there the sequence can be incomplete, and even empty.
	/// @return 0, also when no such file exists; 0x10000000, the sequence empty, for null, for
	///         parts that do not fit, for a folder that cannot be read, or without memory.
	int CreateFromFilePath(const char* path);

	/// Removes all items and names.
	void Reset();

	/// @return 1 when folder and base name are those of the sequence, else 0. The extension is
	///         not compared: a host finds the companions of a file (cam_1.bmp, cam_1.txt) with it.
	int BelongsToThis(const eqorFILESEQ_FILEATTR* attributes) const;

	/// Appends an item, whether it belongs here or not. A sequence without names takes those of
	/// its first item.
	/// @return the item; null, with nothing changed, for null, for a folder that is longer than
	///         255 characters, or without memory.
	eqorFILESEQ_CITEM* AddItem(const eqorFILESEQ_FILEATTR* attributes, uint64_t value);

	/// Makes this a copy of the other sequence.
	/// @return 0; 0x10000000, with nothing changed, without memory.
	int Copy(const CqorFileSeq& other);

	/// @return the first item with that number; null when there is none.
	eqorFILESEQ_CITEM* GetItemByIndexNum(uint32_t number) const;

	/// Writes the path of the first file with that number: folder, base name, number text, a
	/// point, extension. The point stands there also behind a name without one: callers who split
	/// the text again rely on its form, and Windows takes both for the same file.
	/// @param out has room for `kNameSize` characters
	/// @return 0; 0x10000000 when `out` is null or, `out` empty, when no item has the number.
	int FillNameByIndexNum(char* out, uint32_t number) const;
	/// The same into `size` characters. @return 0x10000000, `out` empty, also when the path does
	/// not fit: it is never cut.
	int FillNameByIndexNum(char* out, size_t size, uint32_t number) const;
	/// Writes the path of the item with that index, 0 to count - 1, in the same form: it names every
	/// file, also where several have one number.
	/// @return 0; 0x10000000 when `out` is null or, `out` empty, outside the sequence or when the
	///         path does not fit into `size` characters.
	int FillNameByIndex(char* out, size_t size, int index) const;

	const char* GetFolder() const;
	const char* GetBaseName() const;
	const char* GetExtension() const;
	int GetCount() const;
	/// @return null outside the sequence.
	eqorFILESEQ_CITEM* GetItem(int index) const;

	/// Files that `CreateFromFilePath` passed over since a part of their path is too long for
	/// its field: more than 31 digits, for one. They may or may not belong to the sequence.
	int GetUnfitCount() const;
	/// @return 1 when the folder had more than `kMaximumFiles` files with the extension, else 0.
	int HasMoreFiles() const;

private:
	friend class CqorFileSeqList;
	struct Names;
	struct State;
	struct Access;

	char mFolder[256] = {};
	char mBaseName[128] = {};
	char mExtension[64] = {};
	CstmArray<eqorFILESEQ_CITEM> mItems; // with room behind the last item
	int mItemCount = 0;
	State* mState = nullptr; // null while nothing was added or listed
};

/// The sequences of a folder.
///
/// Not locked. A sequence belongs to the list and lives until the list is made anew or destroyed.
class QOR_API CqorFileSeqList {
public:
	CqorFileSeqList();
	~CqorFileSeqList();
	CqorFileSeqList(const CqorFileSeqList&) = delete;
	CqorFileSeqList& operator=(const CqorFileSeqList&) = delete;

	/// Divides the files of a folder with that extension (without the point) into sequences, in
	/// the order of their first files. A file without digits before its extension is a sequence
	/// with one item, number 0 and an empty number text.
	///
	/// At most the first 1,024 files in the order of their names (`HasMoreFiles`); with
	/// subfolders a folder's own files come first.
	/// @param recursive other than 0: subfolders too; each has sequences of its own
	/// @return 0; 0x10000000, the list empty, for null, for a folder that cannot be read, or
	///         without memory.
	int CreateFromFolder(const char* folder, const char* extension, int recursive);

	/// Deletes all sequences.
	void Destroy();

	int GetCount() const;
	/// @return null outside the list.
	CqorFileSeq* Get(int index) const;

	/// Files that are in no sequence since a part of their path is too long for its field.
	int GetUnfitCount() const;
	/// @return 1 when the folder had more than `CqorFileSeq::kMaximumFiles` such files, else 0.
	int HasMoreFiles() const;

private:
	struct Access;

	CstmArray<CqorFileSeq*> mItems; // owned
	int mUnfitCount = 0;
	int mHasMoreFiles = 0;
};
