#include "string_set.h"

#include "../platform/draft.h"
#include "../platform/format.h"
#include "../platform/memory.h"
#include "file.h"
#include "status.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

struct Release {
	void operator()(char* block) const { platform::release(block); }
};
using TextBlock = std::unique_ptr<char, Release>;

TextBlock allocateText(size_t size) { return TextBlock(static_cast<char*>(platform::allocate(size))); }

constexpr size_t kLargestTransfer = size_t{1} << 30;

/// Gathers lines and writes them to a draft in large pieces.
class LineWriter {
public:
	LineWriter(platform::Draft& draft, char* buffer, size_t size) : mDraft(draft), mBuffer(buffer), mSize(size) {}

	/// The buffer holds any line with its end and terminator.
	void add(const char* text) {
		constexpr size_t kLineEnd = 3; // "\r\n" and the terminator of the text
		if (std::strlen(text) + kLineEnd > mSize - mUsed) flush();
		mUsed += platform::collapsePercents(mBuffer + mUsed, mSize - mUsed, text);
		mBuffer[mUsed++] = '\r';
		mBuffer[mUsed++] = '\n';
	}

	/// @return whether the draft took everything so far.
	bool flush() {
		mComplete = mComplete && mDraft.write(mBuffer, mUsed);
		mUsed = 0;
		return mComplete;
	}

private:
	platform::Draft& mDraft;
	char* mBuffer;
	size_t mSize;
	size_t mUsed = 0;
	bool mComplete = true;
};

bool readWhole(CstFile& file, char* buffer, size_t size) {
	for (size_t done = 0; done < size;) {
		const auto piece = static_cast<unsigned long>(std::min(size - done, kLargestTransfer));
		const auto read = file.Read(buffer + done, piece);
		if (read == 0) return false;
		done += read;
	}
	return true;
}

} // namespace

CstmCharStringSet::CstmCharStringSet() : CstmRawObjLineArray(1) {}

CstmCharStringSet::~CstmCharStringSet() = default;

CstmCharStringSet::CstmCharStringSet(const CstmCharStringSet& other) : CstmCharStringSet() { Copy(other); }

CstmCharStringSet& CstmCharStringSet::operator=(const CstmCharStringSet& other) {
	Copy(other);
	return *this;
}

char* CstmCharStringSet::insertText(int index, const char* text, size_t length) {
	if (length >= UINT32_MAX) return nullptr;
	auto* copy = static_cast<char*>(insertBuffer(index, static_cast<unsigned long>(length + 1)));
	if (!copy) return nullptr;
	std::memcpy(copy, text, length);
	copy[length] = '\0';
	return copy;
}

char* CstmCharStringSet::Add(const char* text) {
	return text ? insertText(mItemCount, text, std::strlen(text)) : nullptr;
}

char* CstmCharStringSet::InsertAt(int index, const char* text) {
	if (!text || index < 0) return nullptr;
	return insertText(std::min(index, mItemCount), text, std::strlen(text));
}

char* CstmCharStringSet::FirstLine() {
	mCursor = 0;
	return GetLine(mCursor);
}

char* CstmCharStringSet::LastLine() {
	mCursor = std::max(mItemCount - 1, 0);
	return GetLine(mCursor);
}

char* CstmCharStringSet::NextLine() {
	if (!eof()) ++mCursor;
	return GetLine(mCursor);
}

void CstmCharStringSet::Destroy() {
	Release();
	mCursor = 0;
}

int CstmCharStringSet::Copy(const CstmCharStringSet& other) { return CopyRange(other, 0, other.mItemCount); }

int CstmCharStringSet::CopyRange(const CstmCharStringSet& other, int first, int count) {
	CstmCharStringSet copy;
	if (copy.AppendRange(other, first, count) != kQorSuccess) return kQorFailure;
	laSwap(copy);
	mCursor = 0;
	return kQorSuccess;
}

int CstmCharStringSet::Append(const CstmCharStringSet& other) { return AppendRange(other, 0, other.mItemCount); }

int CstmCharStringSet::AppendRange(const CstmCharStringSet& other, int first, int count) {
	if (first < 0 || first > other.mItemCount) return kQorFailure;
	const int end = first + std::clamp(count, 0, other.mItemCount - first); // `other` may grow with this set
	const int before = mItemCount;
	for (int i = first; i < end; ++i) {
		if (Add(other.GetLine(i))) continue;
		while (mItemCount > before) DeleteAt(mItemCount - 1);
		return kQorFailure;
	}
	return kQorSuccess;
}

CstmCharStringSet& CstmCharStringSet::operator+=(const CstmCharStringSet& other) {
	Append(other);
	return *this;
}

CstmCharStringSet& CstmCharStringSet::operator&=(const CstmCharStringSet& other) {
	Append(other);
	return *this;
}

int CstmCharStringSet::LoadFromFile(const char* path) {
	Destroy();
	CstFile file;
	if (file.Open(path, 3, 0xC0000000, 3) != 0) return kQorFailure;
	const auto size = static_cast<uint64_t>(file.GetSize64());
	if (size == 0) return kQorSuccess;
	if (size > SIZE_MAX / 2) return kQorFailure;
	const auto text = allocateText(static_cast<size_t>(size));
	if (!text || !readWhole(file, text.get(), static_cast<size_t>(size)) ||
	    !addLines(text.get(), static_cast<size_t>(size))) {
		Destroy();
		return kQorFailure;
	}
	return kQorSuccess;
}

bool CstmCharStringSet::addLines(const char* text, size_t size) {
	const char* const end = text + size;
	while (text < end) {
		const auto* lineEnd = static_cast<const char*>(std::memchr(text, '\r', static_cast<size_t>(end - text)));
		if (!lineEnd) return insertText(mItemCount, text, static_cast<size_t>(end - text)) != nullptr;
		if (!insertText(mItemCount, text, static_cast<size_t>(lineEnd - text))) return false;
		text = lineEnd + 1;
		if (text < end && *text == '\n') ++text;
	}
	return true;
}

int CstmCharStringSet::SaveToFile(const char* path) const {
	constexpr size_t kGathered = 65536; // bytes that go to the file at once
	size_t longest = 0;
	for (int i = 0; i < mItemCount; ++i) longest = std::max(longest, std::strlen(GetLine(i)));
	const size_t size = std::max(kGathered, longest + 3);
	const auto buffer = allocateText(size);
	if (!buffer) return kQorFailure;

	platform::Draft draft;
	if (!draft.open(path)) return kQorFailure;
	LineWriter writer(draft, buffer.get(), size);
	for (int i = 0; i < mItemCount; ++i) writer.add(GetLine(i));
	return writer.flush() && draft.commit() ? kQorSuccess : kQorFailure;
}
