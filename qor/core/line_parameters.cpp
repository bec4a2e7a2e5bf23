#include "line_parameters.h"

#include "../base/status.h"
#include "../platform/letter_case_internal.h"
#include "../platform/memory.h"
#include "../platform/number.h"
#include "line_split_internal.h"

#include <climits>
#include <cstring>

using namespace line_split;

namespace {

/// The text behind "=" when `text` is `name=...`, otherwise null.
const char* valueOf(const char* text, const char* name) {
	for (; *name; ++name, ++text)
		if (platform::lowerCase(*text) != platform::lowerCase(*name)) return nullptr;
	return *text == '=' ? text + 1 : nullptr;
}

} // namespace

CmcLineParSet::CmcLineParSet() = default;

CmcLineParSet::CmcLineParSet(char separator, const char* text, int postProcessing) : mSeparator(separator) {
	Feed(text, postProcessing, 1);
}

CmcLineParSet::~CmcLineParSet() {
	platform::release(mLine);
	platform::release(mScratch);
	platform::release(mParameters);
}

void CmcLineParSet::Reset() { mCount = mCursor = 0; }

int CmcLineParSet::Feed(const char* text, int postProcessing, int escapes) {
	Reset();
	if (!text) return kQorFailure;
	const std::size_t length = std::strlen(text);
	if (length == 0) return 0;
	if (length >= kMaximumLength) return kQorFailure;
	if (length > static_cast<std::size_t>(mBufferLength)) {
		if (!growBuffers(mLine, mScratch, 2 * (length + 1))) return kQorFailure;
		mBufferLength = static_cast<std::int32_t>(length);
	}
	std::memmove(mLine, text, length + 1); // a parameter of this line may be fed; it always fits
	return split(length, postProcessing != 0, escapes != 0);
}

int CmcLineParSet::split(std::size_t length, bool postProcessing, bool escapes) {
	const auto isBlank = [](char c) { return static_cast<unsigned char>(c - 1) < ' '; };
	char* const end = mLine + length;
	char* start = mLine;
	while (isBlank(*start)) ++start;
	char* text = start;
	while ((text = findStop(text, end, mSeparator)) < end) {
		if (*text == '"') {
			text = skipQuoted(text, end, escapes);
			continue;
		}
		if (!append(start, text, postProcessing)) return kNoParameterMemory;
		// A blank that separates is no blank: it makes an empty parameter.
		do ++text;
		while (isBlank(*text) && *text != mSeparator);
		start = text;
	}
	if (start < end && !append(start, end, postProcessing)) return kNoParameterMemory;
	return mCount;
}

bool CmcLineParSet::append(char* start, char* end, bool postProcessing) {
	if (mCount == mCapacity) {
		void* grown = growParameters(mParameters, mCapacity, sizeof *mParameters);
		if (!grown) {
			Reset();
			return false;
		}
		mParameters = static_cast<emcLPS_PAR*>(grown);
		mCapacity += kParameterGrowth;
	}
	*end = '\0';
	if (postProcessing) {
		// The result goes to where the parameter began, so that text and offset agree.
		const char* result = postProcess(start, end, mScratch);
		if (result != start) std::memmove(start, result, std::strlen(result) + 1);
	}
	mParameters[mCount++] = {start, static_cast<std::int32_t>(start - mLine)};
	return true;
}

/// Null outside the line.
const char* CmcLineParSet::at(long long index) const {
	return index >= 0 && index < mCount ? mParameters[index].mText : nullptr;
}

char* CmcLineParSet::GetPar(int index, char* output, const char* fallback) const {
	return GetPar(index, output, SIZE_MAX, fallback);
}

char* CmcLineParSet::GetPar(int index, char* output, std::size_t size, const char* fallback) const {
	const char* text = at(index);
	return copyText(output, size, text ? text : fallback);
}

int CmcLineParSet::GetIntPar(int index, int fallback) const {
	const char* text = at(index);
	return text ? platform::parseInt(text) : fallback;
}

double CmcLineParSet::GetDoublePar(int index, double fallback) const {
	const char* text = at(index);
	return text ? platform::parseDouble(text) : fallback;
}

unsigned int CmcLineParSet::GetParIdx(const char* name) const {
	for (int i = 0; name && i < mCount; ++i)
		if (std::strcmp(mParameters[i].mText, name) == 0) return static_cast<unsigned int>(i);
	return static_cast<unsigned int>(kQorNotFound);
}

const char* CmcLineParSet::GetSrcText(int index, const char* source) const {
	if (!source || !at(index)) return nullptr;
	const auto offset = static_cast<std::size_t>(mParameters[index].mOffset);
	return std::memchr(source, '\0', offset) ? nullptr : source + offset;
}

/// Null when there is none.
const char* CmcLineParSet::behind(const char* name, int k) const {
	const auto index = GetParIdx(name);
	return index == kQorNotFound ? nullptr : at(static_cast<long long>(index) + k + 1);
}

const char* CmcLineParSet::par(const char* name, int k) const {
	const char* text = behind(name, k);
	return text ? text : "";
}

int CmcLineParSet::parInt(const char* name, int k, int fallback) const {
	const char* text = behind(name, k);
	return text ? platform::parseInt(text) : fallback;
}

double CmcLineParSet::parDouble(const char* name, int k, double fallback) const {
	const char* text = behind(name, k);
	return text ? platform::parseDouble(text) : fallback;
}

char* CmcLineParSet::parString(const char* name, int k, char* output, const char* fallback) const {
	return parString(name, k, output, SIZE_MAX, fallback);
}

char* CmcLineParSet::parString(const char* name, int k, char* output, std::size_t size, const char* fallback) const {
	const char* text = behind(name, k);
	return copyText(output, size, text ? text : fallback);
}

const char* CmcLineParSet::ePar(const char* name) const { return ePar(name, nullptr); }

const char* CmcLineParSet::ePar(const char* name, const char* fallback) const {
	for (int i = 0; name && *name && i < mCount; ++i)
		if (const char* value = valueOf(mParameters[i].mText, name)) return value;
	return fallback;
}

const char* CmcLineParSet::operator()(int index) const {
	const char* text = at(index);
	return text ? text : "";
}

const char* CmcLineParSet::operator()() const { return (*this)(mCursor); }

const char* CmcLineParSet::operator[](int offset) const {
	const char* text = at(static_cast<long long>(mCursor) + offset);
	return text ? text : "";
}

int CmcLineParSet::operator++() {
	if (mCursor < INT_MAX) ++mCursor;
	return mCursor;
}

const char* CmcLineParSet::operator=(int index) {
	mCursor = index < 0 ? 0 : index;
	return (*this)();
}
