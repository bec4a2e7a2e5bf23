#include "../base/status.h"
#include "../platform/memory.h"
#include "../platform/number.h"
#include "line_parameters.h"
#include "line_split_internal.h"

#include <climits>
#include <cstring>

using namespace line_split;

CstqLineParSet::CstqLineParSet() = default;

CstqLineParSet::~CstqLineParSet() {
	platform::release(mLine);
	platform::release(mScratch);
	platform::release(mParameters);
}

void CstqLineParSet::Reset() { mCount = 0; }

int CstqLineParSet::Feed(const char* text, int postProcessing) {
	Reset();
	if (!text) return kQorFailure;
	const std::size_t length = std::strlen(text);
	if (length == 0) return 0;
	if (length >= kMaximumLength) return kQorFailure;
	if (length > static_cast<std::size_t>(mBufferLength)) {
		if (!growBuffers(mLine, mScratch, length + 1)) return kQorFailure;
		mBufferLength = static_cast<std::int32_t>(length);
	}
	std::memmove(mLine, text, length + 1); // a parameter of this line may be fed; it always fits
	return split(length, postProcessing != 0);
}

int CstqLineParSet::split(std::size_t length, bool postProcessing) {
	char* const end = mLine + length;
	char* start = mLine;
	char* text = start;
	while ((text = findStop(text, end, mSeparator)) < end) {
		if (*text == '"') {
			text = skipQuoted(text, end, true);
			continue;
		}
		if (!append(start, text, postProcessing)) return kNoParameterMemory;
		start = ++text;
	}
	if (start < end) return append(start, end, postProcessing) ? mCount : kNoParameterMemory;
	// The line ends with a separator: the parameter in front of it counts twice. It has been
	// post-processed already, so only the pointer is repeated.
	char* last = mParameters[mCount - 1];
	return append(last) ? mCount : kNoParameterMemory;
}

bool CstqLineParSet::append(char* start, char* end, bool postProcessing) {
	*end = '\0';
	return append(postProcessing ? postProcess(start, end, mScratch) : start);
}

bool CstqLineParSet::append(char* text) {
	if (mCount == mCapacity) {
		void* grown = growParameters(mParameters, mCapacity, sizeof *mParameters);
		if (!grown) {
			Reset();
			return false;
		}
		mParameters = static_cast<char**>(grown);
		mCapacity += kParameterGrowth;
	}
	mParameters[mCount++] = text;
	return true;
}

/// Null outside the line.
const char* CstqLineParSet::at(int index) const { return index >= 0 && index < mCount ? mParameters[index] : nullptr; }

char* CstqLineParSet::GetPar(int index, char* output, const char* fallback) const {
	return GetPar(index, output, SIZE_MAX, fallback);
}

char* CstqLineParSet::GetPar(int index, char* output, std::size_t size, const char* fallback) const {
	const char* text = at(index);
	return copyText(output, size, text ? text : fallback);
}

// Parameters of this set are never missing, so the two ways to get one agree.
char* CstqLineParSet::GetCHARPar(int index, char* output, const char* fallback) const {
	return GetPar(index, output, fallback);
}

char* CstqLineParSet::GetCHARPar(int index, char* output, std::size_t size, const char* fallback) const {
	return GetPar(index, output, size, fallback);
}

int CstqLineParSet::GetIntPar(int index, int fallback) const {
	const char* text = at(index);
	return text ? platform::parseInt(text) : fallback;
}

double CstqLineParSet::GetDoublePar(int index, double fallback) const {
	const char* text = at(index);
	return text ? platform::parseDouble(text) : fallback;
}
