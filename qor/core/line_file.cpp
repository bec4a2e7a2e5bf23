#include "line_file.h"

#include "../base/status.h"
#include "../platform/memory.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t kReadPiece = 16 * 1024 * 1024;
constexpr std::size_t kFileSlack = 2;
constexpr std::size_t kTextSlack = 1000;
constexpr std::size_t kMarkerSize = 2;

enum Encoding { kEightBit = 0, kUtf16LittleEndian = 1, kUtf16BigEndian = 2 };

int encodingOf(const char* text, std::size_t size) {
	if (size < kMarkerSize) return kEightBit;
	if (std::memcmp(text, "\xFF\xFE", kMarkerSize) == 0) return kUtf16LittleEndian;
	if (std::memcmp(text, "\xFE\xFF", kMarkerSize) == 0) return kUtf16BigEndian;
	return kEightBit;
}

/// Keeps the low-order byte of each code unit behind the marker, in place. @return bytes kept.
std::size_t narrow(char* text, std::size_t size, int encoding) {
	const std::size_t units = (size - kMarkerSize) / 2;
	const char* low = text + kMarkerSize + (encoding == kUtf16BigEndian ? 1 : 0);
	for (std::size_t i = 0; i < units; ++i) text[i] = low[2 * i];
	return units;
}

bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

/// @return the place behind the line end at `text`, one character or a pair.
char* behindLineEnd(char* text, const char* end) {
	char* next = text + 1;
	return next < end && isLineEnd(*next) && *next != *text ? next + 1 : next;
}

/// Calls `visit(line, lineEnd, nextLine)` for every line of the text. A line end has been
/// visited before it may be overwritten.
template <class Visit>
void forEachLine(char* text, char* end, Visit visit) {
	while (text < end) {
		char* lineEnd = std::find_if(text, end, isLineEnd);
		char* next = lineEnd < end ? behindLineEnd(lineEnd, end) : end;
		visit(text, lineEnd, next);
		text = next;
	}
}

} // namespace

CstqLineFile::CstqLineFile() = default;

CstqLineFile::~CstqLineFile() { freeText(); }

unsigned long CstqLineFile::Close() {
	freeText();
	return CstFile::Close();
}

void CstqLineFile::freeText() {
	platform::release(mContents);
	platform::release(mLines);
	mContents = mText = nullptr;
	mTextLength = 0;
	mEncoding = kEightBit;
	mLineCount = 0;
	mLines = nullptr;
}

int CstqLineFile::OpenReadOnly(const char* path) {
	Close();
	const auto opened = CstFile::OpenReadOnly(path);
	if (opened != 0) return static_cast<int>(opened);
	const int result = readFile();
	if (result != kQorSuccess) Close();
	return result;
}

int CstqLineFile::readFile() {
	const auto size = GetSize64();
	if (size < 0 || static_cast<unsigned long long>(size) > SIZE_MAX - kFileSlack) return kQorFailure;
	const auto bytes = static_cast<std::size_t>(size);
	mContents = static_cast<char*>(platform::allocate(bytes + kFileSlack));
	if (!mContents || readContents(bytes) != kQorSuccess) return kQorFailure;
	mEncoding = encodingOf(mContents, bytes);
	const auto length = mEncoding == kEightBit ? bytes : narrow(mContents, bytes, mEncoding);
	mContents[length] = '\0';
	return split(mContents, length);
}

int CstqLineFile::readContents(std::size_t size) {
	for (std::size_t done = 0; done < size;) {
		const auto piece = static_cast<unsigned long>(std::min(size - done, kReadPiece));
		const auto read = Read(mContents + done, piece);
		if (read == 0) return kQorFailure;
		done += read;
	}
	return kQorSuccess;
}

int CstqLineFile::OpenFromBuffer(const char* text, unsigned long length) {
	if (!text) {
		Close();
		return kQorFailure;
	}
	// -1 passed where `unsigned long` has 64 bits means the terminator, too.
	const bool terminated = length == 0xFFFFFFFFul || length == static_cast<unsigned long>(-1);
	const std::size_t bytes = terminated ? std::strlen(text) : length;
	auto* copy = bytes > SIZE_MAX - kTextSlack ? nullptr : static_cast<char*>(platform::allocate(bytes + kTextSlack));
	if (copy) std::memcpy(copy, text, bytes); // before closing: the text may be a line of this object
	Close();
	if (!copy) return kQorFailure;
	copy[bytes] = '\0';
	mContents = copy;
	return split(copy, bytes) == kQorSuccess ? mLineCount : kQorFailure;
}

int CstqLineFile::ProcessBuffer(char* text) {
	if (!text) return kQorFailure;
	return split(text, std::strlen(text)) == kQorSuccess ? mLineCount : kQorFailure;
}

/// Counts first, so that the table is allocated once.
int CstqLineFile::split(char* text, std::size_t length) {
	platform::release(mLines);
	mLines = nullptr;
	mLineCount = 0;
	mText = text;
	mTextLength = length;
	long long count = 0;
	forEachLine(text, text + length, [&](char*, char*, char*) { ++count; });
	if (count == 0) return kQorSuccess;
	if (count > INT32_MAX) return kQorFailure;
	mLines = static_cast<char**>(platform::allocate(static_cast<std::size_t>(count) * sizeof *mLines));
	if (!mLines) return kQorFailure;
	forEachLine(text, text + length, [this](char* line, char* lineEnd, char* next) {
		mLines[mLineCount++] = line;
		for (char* c = lineEnd; c < next; ++c) *c = '\0';
	});
	return kQorSuccess;
}
