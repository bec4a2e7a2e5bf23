#include "../core/runtime.h"
#include "../core/visible_text_internal.h"
#include "../platform/format.h"
#include "variable_blocks_internal.h"

using namespace variable_sets;

namespace {

constexpr size_t kLineSize = 8192;
constexpr size_t kShownCharacters = 256;
constexpr size_t kEscape = 4; // characters of the longest

/// The line of one value; what does not fit is cut.
class Line {
public:
	template <class... Arguments>
	void add(const char* format, Arguments... arguments) {
		mLength += platform::formatText(mText + mLength, kLineSize - mLength, format, arguments...);
	}
	void addString(const unsigned char* data, size_t size) {
		if (size == 0) return;
		char text[kShownCharacters + 1] = "";
		std::memcpy(text, data, std::min(size, kShownCharacters));
		char visible[kShownCharacters * kEscape + 1];
		core::copyVisible(visible, sizeof visible, text);
		add("%s", visible);
	}
	template <class Number>
	void addNumbers(const unsigned char* data, size_t count, const char* format) {
		for (size_t i = 0; i < count; ++i) {
			Number number;
			std::memcpy(&number, data + i * sizeof(number), sizeof(number));
			const size_t before = mLength;
			add(format, number);
			if (mLength < kLineSize - 1) continue;
			mText[mLength = before] = 0; // rather none than half a number
			return;
		}
	}
	/// Without a second formatting: texts of values may hold anything.
	void write() const { appmsg_Raw(mText); }

private:
	char mText[kLineSize];
	size_t mLength = 0;
};

void logValue(const qorDVar_VALUESET* vs, const qorDVar_VALUE& value, const qorDVar_DATATYPE& definition) {
	const unsigned char* data = valueData(vs, &value);
	const size_t size = data ? static_cast<size_t>(value.mSize) : 0;
	const size_t count = std::min(size / 4, static_cast<size_t>(std::max(definition.mCount, 0)));
	Line line;
	line.add("                ");
	line.addString(reinterpret_cast<const unsigned char*>(value.mID), sizeof value.mID - 1);
	line.add(" = ");
	if (definition.mType == kVariableString) line.addString(data, size);
	if (definition.mType == kVariableInt32) line.addNumbers<int32_t>(data, count, "%d,");
	if (definition.mType == kVariableFloat32) line.addNumbers<float>(data, count, "%.5f,");
	line.write();
}

} // namespace

void qorDVar_ValueSetHdr_Debug(const qorDVar_VALUESET* vs, const qorDVar_DATASET* schema) {
	if (!vs) return;
	appmsg("BEGIN> qorDVar_ValueSetHdr_Debug (%p)", static_cast<const void*>(vs));
	Line head;
	head.add("dvhdr       ID .................... ");
	head.addString(reinterpret_cast<const unsigned char*>(vs->mID), sizeof vs->mID - 1);
	head.write();
	appmsg("            Count ................. %d", vs->mCount);
	appmsg("            Total Byte Size ....... %d", vs->mTotalSize);
	appmsg("            Vars:");
	const Records known = definitions(schema);
	const int32_t count = descriptors(vs).count;
	const IdentifierIndex::Owner index = indexFor(known, count);
	for (int32_t i = 0; i < count; ++i) {
		const qorDVar_VALUE& value = *descriptorAt(vs, i);
		const Identifier identifier(value.mID);
		const int32_t place = index ? index->find(known, identifier) : identifier.walk(known);
		if (place != kNone) logValue(vs, value, *reinterpret_cast<const qorDVar_DATATYPE*>(known.at(place)));
	}
	appmsg("END  > qorDVar_ValueSetHdr_Debug (%p)", static_cast<const void*>(vs));
}
