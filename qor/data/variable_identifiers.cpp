#include "../platform/clock.h"
#include "../platform/memory.h"
#include "variable_identifiers_internal.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

namespace variable_sets {
namespace {

using Word = uint64_t;

Word load(const void* from) {
	Word word;
	std::memcpy(&word, from, sizeof(word));
	return word;
}

/// The next number of a well mixed sequence.
uint64_t nextKey(uint64_t& state) {
	state += 0x9E3779B97F4A7C15u;
	uint64_t key = state;
	key = (key ^ key >> 30) * 0xBF58476D1CE4E5B9u;
	key = (key ^ key >> 27) * 0x94D049BB133111EBu;
	return key ^ key >> 31;
}

/// At most two thirds of the slots are used.
bool crowded(uint64_t used, uint64_t slots) { return used * 3 > slots * 2; }

} // namespace

Identifier::Identifier(const char* text) {
	const size_t length = text ? strnlen(text, kIdentifierSize) : kIdentifierSize;
	if (length == kIdentifierSize) return;
	std::memcpy(mWords, text, length);
	mBytes = length + 1;
}

bool Identifier::matches(const unsigned char* record) const {
	return mBytes != 0 && std::memcmp(record, mWords, mBytes) == 0;
}

/// Compares the first and the last 8 bytes of the identifier, which overlap or leave a gap,
/// without a branch, and the whole only where both are equal. Identifiers of a set have much
/// in common at one of the two ends, hardly at both.
int32_t Identifier::walk(const Records& records) const {
	if (!fits()) return kNone;
	const auto* const text = reinterpret_cast<const unsigned char*>(mWords);
	const size_t tailAt = mBytes > sizeof(Word) ? mBytes - sizeof(Word) : 0;
	Word mask = 0;
	std::memset(&mask, 0xFF, std::min(mBytes, sizeof(Word)));
	const Word head = load(text), tail = load(text + tailAt);
	const unsigned char* record = records.first;
	for (int32_t place = 0; place < records.count; ++place, record += records.stride) {
		const Word difference = ((load(record) ^ head) | (load(record + tailAt) ^ tail)) & mask;
		if (difference == 0 && matches(record)) return place;
	}
	return kNone;
}

IdentifierIndex::IdentifierIndex(int bits) : mMask((uint32_t{1} << bits) - 1), mShift(32 - bits) {
	auto state = static_cast<uint64_t>(platform::counter()) ^ reinterpret_cast<uintptr_t>(this);
	for (uint64_t& key : mKeys) key = nextKey(state);
}

IdentifierIndex::Owner IdentifierIndex::make(const Records& records) {
	int bits = 5;
	while (bits < 31 && crowded(static_cast<uint64_t>(records.count) + 1, uint64_t{1} << bits)) ++bits;
	void* block = platform::allocateZeroed(sizeof(IdentifierIndex) + (sizeof(Slot) << bits));
	if (!block) return nullptr;
	Owner index(new (block) IdentifierIndex(bits));
	for (int32_t place = 0; place < records.count; ++place) index->add(records, place);
	return index;
}

void IdentifierIndex::release(IdentifierIndex* index) { platform::release(index); }

uint32_t IdentifierIndex::hash(const Identifier& identifier) const {
	uint64_t sum = 0;
	for (size_t i = 0; i < std::size(mKeys); ++i) sum += mKeys[i] * identifier.words()[i];
	return static_cast<uint32_t>(sum >> 32);
}

int32_t IdentifierIndex::find(const Records& records, const Identifier& identifier) const {
	if (!identifier.fits()) return kNone;
	const uint32_t sought = hash(identifier);
	for (uint32_t at = sought >> mShift; slots()[at].place != 0; at = (at + 1) & mMask) {
		const int32_t place = slots()[at].place - 1;
		if (slots()[at].hash == sought && place < records.count && identifier.matches(records.at(place))) return place;
	}
	return kNone;
}

bool IdentifierIndex::add(const Records& records, int32_t place) {
	const Identifier identifier(reinterpret_cast<const char*>(records.at(place)));
	if (!identifier.fits() || find(records, identifier) != kNone) return true; // the first one counts
	if (crowded(uint64_t{mUsed} + 1, uint64_t{mMask} + 1)) return false;
	const uint32_t value = hash(identifier);
	uint32_t at = value >> mShift;
	while (slots()[at].place != 0) at = (at + 1) & mMask;
	slots()[at] = {value, place + 1};
	++mUsed;
	return true;
}

int32_t find(const Records& records, const IdentifierIndex* index, const char* text) {
	const Identifier identifier(text);
	if (index) {
		const int32_t place = index->find(records, identifier);
		if (place != kNone) return place;
	}
	return identifier.walk(records);
}

} // namespace variable_sets
