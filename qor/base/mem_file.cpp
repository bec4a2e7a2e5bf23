#include "mem_file.h"

#include "../platform/format.h"
#include "../platform/memory.h"
#include "status.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace {

constexpr size_t kTextBuffer = 65536; // bytes
constexpr size_t kWideTextBuffer = kTextBuffer / sizeof(char16_t);

/// A position below 0 reads as a large unsigned number; this gives it back its sign.
int64_t signedPosition(uint32_t position) { return static_cast<int32_t>(position); }

/// Writes `count` bytes of `source`, which may overlap, or zeros. Records of 8 to 16 bytes, which most
/// are, go without a call: both halves are read before one is written.
inline void fill(unsigned char* target, const void* source, unsigned long count) {
	if (source && count >= 8 && count <= 16) {
		uint64_t head, tail;
		std::memcpy(&head, source, 8);
		std::memcpy(&tail, static_cast<const unsigned char*>(source) + count - 8, 8);
		std::memcpy(target, &head, 8);
		std::memcpy(target + count - 8, &tail, 8);
	} else if (count > 0) {
		source ? std::memmove(target, source, count) : std::memset(target, 0, count);
	}
}

constexpr uint64_t kWorthAnother = 65536; // refused room behind the contents that another try does without

/// The capacity a growing block of our own gets.
uint64_t roomBehind(uint64_t capacity) {
	constexpr uint64_t kSmallest = 256, kDoubled = 16 << 20;
	return std::min<uint64_t>(
	    INT32_MAX, std::max(kSmallest, capacity + (capacity < kDoubled ? capacity : capacity / 2)));
}

} // namespace

CstMemFile::CstMemFile() = default;

CstMemFile::~CstMemFile() {
	Close();
	platform::release(mText);
}

int CstMemFile::Create(unsigned long size, void** data) {
	if (data) *data = nullptr;
	if (size > INT32_MAX) return kQorFailure;
	auto* contents = size > 0 ? static_cast<unsigned char*>(platform::allocateZeroed(size)) : nullptr;
	if (size > 0 && !contents) return kQorFailure;
	start(contents, size, false);
	if (data) *data = contents;
	return kQorSuccess;
}

int CstMemFile::Open(void* buffer, unsigned long size) {
	if (size > INT32_MAX || (!buffer && size > 0)) return kQorFailure;
	start(static_cast<unsigned char*>(buffer), size, true);
	return kQorSuccess;
}

int CstMemFile::Close() {
	if (!mBorrowed) platform::release(mData);
	start(nullptr, 0, false);
	return kQorSuccess;
}

void CstMemFile::start(unsigned char* data, unsigned long size, bool borrowed) {
	mData = data;
	mSize = static_cast<int32_t>(size);
	mPosition = 0;
	mBorrowed = borrowed ? 1 : 0;
	mCapacity = mBorrowed ? 0 : static_cast<uint32_t>(size);
}

unsigned long CstMemFile::Seek(long offset, unsigned long origin) {
	const auto moved = std::clamp<int64_t>(offset, INT32_MIN, INT32_MAX);
	const int64_t size = mSize;
	if (origin == 0) {
		mPosition = static_cast<uint32_t>(std::min(moved, size));
	} else if (origin == 1) {
		mPosition = static_cast<uint32_t>(std::clamp<int64_t>(signedPosition(mPosition) + moved, 0, size));
	} else if (origin == 2) {
		mPosition = static_cast<uint32_t>(std::clamp<int64_t>(size + moved, 0, size));
	}
	return mPosition;
}

unsigned long CstMemFile::Read(void* destination, unsigned long count) {
	const auto size = static_cast<uint32_t>(mSize);
	if (mPosition >= size) return 0; // also a position below 0
	const auto n = static_cast<uint32_t>(std::min<uint64_t>(count, size - mPosition));
	if (destination && n > 0) std::memmove(destination, mData + mPosition, n); // may lie in this file
	mPosition += n;
	return n;
}

unsigned long CstMemFile::ReadAt(void* destination, unsigned long count, unsigned long position) {
	mPosition = static_cast<uint32_t>(std::min<uint64_t>(position, static_cast<uint64_t>(mSize)));
	return Read(destination, count);
}

void* CstMemFile::GetReadPtrAdv(unsigned long count) {
	const auto size = static_cast<uint32_t>(mSize);
	if (mPosition >= size || count > size - mPosition) return nullptr;
	auto* data = mData + mPosition;
	mPosition += static_cast<uint32_t>(count);
	return data;
}

unsigned long CstMemFile::Write(const void* source, unsigned long count, void** where) {
	return writeFrom(mPosition, source, count, where);
}

unsigned long CstMemFile::Append(const void* source, unsigned long count, void** where) {
	return writeFrom(static_cast<uint32_t>(mSize), source, count, where);
}

unsigned long CstMemFile::WriteAt(const void* source, unsigned long count, unsigned long position, void** where) {
	const auto start = std::min<uint64_t>(position, static_cast<uint64_t>(mSize));
	return writeFrom(static_cast<uint32_t>(start), source, count, where);
}

/// Moves the contents into a block with room behind them; a caller's is reallocated exactly.
bool CstMemFile::grow(uint64_t size) {
	if (size > INT32_MAX) return false;
	uint64_t capacity = mBorrowed ? size : std::max(size, roomBehind(mCapacity));
	void* data = platform::reallocate(mData, static_cast<size_t>(capacity));
	if (!data && capacity - size >= kWorthAnother)
		data = platform::reallocate(mData, static_cast<size_t>(capacity = size));
	if (!data) return false;
	mData = static_cast<unsigned char*>(data);
	mCapacity = mBorrowed ? 0 : static_cast<uint32_t>(capacity);
	mSize = static_cast<int32_t>(size);
	return true;
}

unsigned long CstMemFile::writeFrom(uint32_t position, const void* source, unsigned long count, void** where) {
	if (where) *where = nullptr;
	if (position > static_cast<uint32_t>(mSize)) return 0; // below 0
	const uint64_t end = static_cast<uint64_t>(position) + count;
	if (end < count) return 0;
	if (end > static_cast<uint64_t>(mSize)) {
		if (end <= mCapacity)
			mSize = static_cast<int32_t>(end);
		else if (!growAround(end, &source))
			return 0;
	}
	auto* target = mData + position;
	if (target) fill(target, source, count);
	mPosition = static_cast<uint32_t>(end);
	if (where) *where = target;
	return count;
}

/// Grows; bytes of this file that are to be written move with it.
bool CstMemFile::growAround(uint64_t size, const void** source) {
	const auto* bytes = static_cast<const unsigned char*>(*source);
	const std::less<const unsigned char*> less;
	const bool inside = bytes && mData && !less(bytes, mData) && less(bytes, mData + mSize);
	const auto offset = inside ? bytes - mData : 0;
	if (!grow(size)) return false;
	if (inside) *source = mData + offset;
	return true;
}

void* CstMemFile::GetBuffer(unsigned long* size) const {
	if (size) *size = GetSize();
	return mData;
}

void* CstMemFile::GetPtrAtAbsolutePos(unsigned long position) const {
	return position < GetSize() ? mData + position : nullptr;
}

unsigned long CstMemFile::WriteText(const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	const auto written = writeNarrow(format, arguments, false);
	va_end(arguments);
	return written;
}

unsigned long CstMemFile::WriteText(const wchar_t* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	const auto written = writeWide(format, arguments, false);
	va_end(arguments);
	return written;
}

unsigned long CstMemFile::WriteTextLine(const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	const auto written = writeNarrow(format, arguments, true);
	va_end(arguments);
	return written;
}

unsigned long CstMemFile::WriteTextLine(const wchar_t* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	const auto written = writeWide(format, arguments, true);
	va_end(arguments);
	return written;
}

bool CstMemFile::needText() {
	if (!mText) mText = static_cast<char*>(platform::allocate(kTextBuffer));
	return mText != nullptr;
}

unsigned long CstMemFile::writeNarrow(const char* format, va_list arguments, bool line) {
	if (!format || !needText()) return 0;
	const size_t end = line ? 2 : 0; // room kept for the line end
	size_t length = platform::formatTextV(mText, kTextBuffer - end, format, arguments);
	if (line) std::memcpy(mText + length, "\r\n", 2);
	length += end;
	return Write(mText, static_cast<unsigned long>(length));
}

unsigned long CstMemFile::writeWide(const wchar_t* format, va_list arguments, bool line) {
	if (!format || !needText()) return 0;
	auto* text = reinterpret_cast<char16_t*>(mText);
	const size_t end = line ? 2 : 0;
	size_t length = platform::formatWideV(text, kWideTextBuffer - end, format, arguments);
	if (line) std::memcpy(text + length, u"\r\n", 2 * sizeof(char16_t));
	length += end;
	return Write(text, static_cast<unsigned long>(length * sizeof(char16_t)));
}
