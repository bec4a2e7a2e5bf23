#include "../base/status.h"
#include "../platform/number.h"
#include "parameter_section.h"

#include <algorithm>
#include <cstring>

namespace {

int toInt(const char* text, const char* end) { return platform::parseInt(text, end); }
double toDouble(const char* text, const char* end) { return platform::parseDouble(text, end); }

struct Range {
	const char* begin;
	const char* end;
};

/// The value; of one that begins with a quote all but the first and last characters, whatever
/// the last one is: in a self-closing tag it is the "/" and the closing quote stays.
Range withoutQuotes(const char* value) {
	const char* end = value + std::strlen(value);
	if (*value != '"') return {value, end};
	return {value + 1, std::max(value + 1, end - 1)};
}

/// The characters of a value that a number may consist of, on the stack. Leading zeros are left out, so that
/// what is cut off a long value is past the largest number or behind the last digit that counts.
class NumberText {
public:
	NumberText(const char* value, const char* others) {
		bool leading = true;
		for (; *value && mLength < sizeof mText; ++value) {
			const bool digit = *value >= '0' && *value <= '9';
			if (!digit && !std::strchr(others, *value)) continue;
			if (*value == '0' && leading && mLength > 0 && mText[mLength - 1] == '0') continue;
			if (*value != '0' && *value != '+' && *value != '-') leading = false;
			mText[mLength++] = *value;
		}
	}
	const char* begin() const { return mText; }
	const char* end() const { return mText + mLength; }

private:
	char mText[2048];
	std::size_t mLength = 0;
};

const char* itemEnd(const char* at, const char* end) {
	for (bool quoted = false; at < end && (quoted || *at != ','); ++at) {
		if (*at == '"')
			quoted = !quoted;
		else if (quoted && *at == '\\' && at + 1 < end && (at[1] == '"' || at[1] == '\\'))
			++at;
	}
	return at;
}

template <class Number, class Convert>
int fillArray(const eqorBXML_VAR* var, Number* out, int count, Number defaultValue, Convert convert) {
	count = out ? std::max(count, 0) : 0;
	std::fill_n(out, count, defaultValue);
	if (!var) return kQorFailure;
	const auto list = withoutQuotes(var->mValue);
	const char* item = list.begin;
	for (int i = 0; i < count; ++i) {
		const char* end = itemEnd(item, list.end);
		out[i] = static_cast<Number>(convert(item, end));
		if (end == list.end) break; // the last item, which may be empty
		item = end + 1;
	}
	return kQorSuccess;
}

/// @return false when the text was cut.
bool copyValue(const eqorBXML_VAR* var, char* out, std::size_t size, const char* defaultValue) {
	if (!defaultValue) defaultValue = "";
	const auto text = var ? withoutQuotes(var->mValue) : Range{defaultValue, defaultValue + std::strlen(defaultValue)};
	const auto length = static_cast<std::size_t>(text.end - text.begin);
	if (!out || size == 0) return false;
	const auto copied = std::min(length, size - 1);
	std::memmove(out, text.begin, copied); // the default may stand in `out`
	out[copied] = '\0';
	return copied == length;
}

} // namespace

int CqorBXML_Section::GetIntVar(const char* path, int defaultValue, int index, CqorBXML_Section** foundIn) const {
	const auto* var = FindVar(path, index, foundIn);
	if (!var) return defaultValue;
	const NumberText number(var->mValue, "+-");
	return toInt(number.begin(), number.end());
}

double CqorBXML_Section::GetDoubleVar(
    const char* path, double defaultValue, int index, CqorBXML_Section** foundIn) const {
	const auto* var = FindVar(path, index, foundIn);
	if (!var) return defaultValue;
	const NumberText number(var->mValue, "+-.");
	return toDouble(number.begin(), number.end());
}

int CqorBXML_Section::GetStringVar(
    const char* path, char* out, const char* defaultValue, int index, CqorBXML_Section** foundIn) const {
	const auto* var = FindVar(path, index, foundIn);
	copyValue(var, out, SIZE_MAX, defaultValue);
	return var ? kQorSuccess : kQorFailure;
}

int CqorBXML_Section::GetStringVar_Char(
    const char* path, char* out, const char* defaultValue, int index, CqorBXML_Section** foundIn) const {
	return GetStringVar(path, out, defaultValue, index, foundIn);
}

int CqorBXML_Section::CopyStringVar(const char* path, char* out, std::size_t size, const char* defaultValue, int index,
    CqorBXML_Section** foundIn) const {
	const auto* var = FindVar(path, index, foundIn);
	const bool whole = copyValue(var, out, size, defaultValue);
	return var && whole ? kQorSuccess : kQorFailure;
}

int CqorBXML_Section::GetIntArray(
    const char* path, int* out, int count, int defaultValue, int index, CqorBXML_Section** foundIn) const {
	return fillArray(FindVar(path, index, foundIn), out, count, defaultValue, toInt);
}

int CqorBXML_Section::GetFloatArray(
    const char* path, float* out, int count, float defaultValue, int index, CqorBXML_Section** foundIn) const {
	return fillArray(FindVar(path, index, foundIn), out, count, defaultValue, toDouble);
}

int CqorBXML_Section::GetDoubleArray(
    const char* path, double* out, int count, double defaultValue, int index, CqorBXML_Section** foundIn) const {
	return fillArray(FindVar(path, index, foundIn), out, count, defaultValue, toDouble);
}
