#pragma once

#include "../base/file.h"
#include "../platform/export.h"

#include <cstddef>
#include <cstdint>

/// Encodings of `CstqLineFile::mEncoding`.
inline constexpr int kQorTextEightBit = 0;
inline constexpr int kQorTextUtf16LittleEndian = 1;
inline constexpr int kQorTextUtf16BigEndian = 2;

/// The lines of a text file or of a text in memory.
///
/// A line ends at a line feed or a carriage return; CR LF and LF CR are one line end. Empty lines
/// count; behind the last line end only a text that is not empty does. Files in UTF-16 (either
/// byte order, told by the marker) keep the low-order byte of each code unit; others are taken as
/// they are. A zero byte ends the text of its line for a reader, and nothing else: the lines
/// behind it are there.
///
/// The text stays until `Close`, the next open or destruction. One thread at a time.
class QOR_API CstqLineFile : public CstFile {
public:
	CstqLineFile();
	~CstqLineFile();
	CstqLineFile(const CstqLineFile&) = delete;
	CstqLineFile& operator=(const CstqLineFile&) = delete;

	/// Reads a file whole; it stays open (for reading, shared) until `Close`.
	/// @return 0; 0x10000000 when it cannot be read to its end or there is no memory; otherwise
	/// the status of `CstFile::OpenReadOnly`. After a failure the object is closed.
	int OpenReadOnly(const char* path);
	/// Splits a copy of `text`; `length` 0xFFFFFFFF: up to its terminator. `text` may be a line of this object.
	/// @return the line count; 0x10000000 for null or without memory.
	int OpenFromBuffer(const char* text, unsigned long length);
	/// Splits a terminated text of the caller in place; the lines point into it, so it must last as
	/// long as they are used. @return as `OpenFromBuffer`.
	int ProcessBuffer(char* text);
	int GetCount() const { return mLineCount; }
	/// Frees the text and closes the file. @return 0.
	unsigned long Close();

	char* mContents = nullptr; ///< the file or text as read; owned
	char* mText = nullptr;     ///< the eight-bit text that is split
	std::size_t mTextLength = 0;
	std::int32_t mEncoding = 0; ///< as found: `kQorTextEightBit` ...
	std::int32_t mLineCount = 0;
	char** mLines = nullptr; ///< `mLineCount` lines, terminated; null without lines

private:
	int readFile();
	int readContents(std::size_t size);
	int split(char* text, std::size_t length);
	void freeText();
};
