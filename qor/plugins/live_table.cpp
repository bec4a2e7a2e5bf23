#include "live_table_internal.h"

#include "../platform/clock.h"

#include <bit>
#include <new>

namespace plugins {

namespace {

// An identity is <serial> <index of its place> 1. The serial is counted over all objects of the
// process; after 8.8e12 of them no more are given out.
constexpr int kIndexBits = 20;
constexpr uint64_t kSerials = uint64_t{1} << (63 - kIndexBits);
constexpr uint32_t kMaximumPlaces = 1u << kIndexBits;
static_assert(sizeof(void*) == sizeof(uint64_t));

// Chunk k has 64 << k places. The first needs no memory; none is ever freed.
constexpr uint32_t kFirstChunk = 64;
constexpr int kChunks = kIndexBits - 6 + 1;

constinit LivePlace firstChunk[kFirstChunk];
constinit std::atomic<LivePlace*> chunks[kChunks] = {firstChunk};
constinit std::atomic<uint32_t> placesUsed{0}; // ever; under tableLock
constinit std::atomic<uint32_t> tableLock{0};
constinit LivePlace* freePlaces = nullptr; // under tableLock
constinit std::atomic<uint64_t> serial{0};

thread_local const Pin* tInnermost = nullptr;

int chunkOf(uint32_t index) { return std::bit_width(index / kFirstChunk + 1) - 1; }

LivePlace* placeAt(uint32_t index) {
	const int chunk = chunkOf(index);
	auto* places = chunk < kChunks ? chunks[chunk].load(std::memory_order_acquire) : nullptr;
	return places ? places + (index - kFirstChunk * ((1u << chunk) - 1)) : nullptr;
}

/// Makes the next chunk, if it is still missing.
bool addChunk(int chunk) {
	if (chunks[chunk].load()) return true;
	auto* places = new (std::nothrow) LivePlace[size_t{kFirstChunk} << chunk];
	LivePlace* none = nullptr;
	if (places && !chunks[chunk].compare_exchange_strong(none, places)) delete[] places; // another thread was first
	return chunks[chunk].load() != nullptr;
}

/// Takes a free place, if there is one. @param missing receives the chunk to be made otherwise,
///                                                 kChunks when there can be no more
LivePlace* takePlace(int* missing) {
	*missing = kChunks;
	threads::lockWord(tableLock);
	LivePlace* place = freePlaces;
	if (place) {
		freePlaces = place->nextFree;
	} else if (const uint32_t index = placesUsed.load(); index < kMaximumPlaces) {
		place = placeAt(index);
		*missing = chunkOf(index);
		if (place) {
			place->index = index;
			placesUsed.store(index + 1);
		}
	}
	threads::unlockWord(tableLock);
	return place;
}

void freePlace(LivePlace* place) {
	threads::lockWord(tableLock);
	place->nextFree = freePlaces;
	freePlaces = place;
	threads::unlockWord(tableLock);
}

/// Of hosts, who may name an object of theirs by its address: a search, as there are few.
LivePlace* findAddress(const void* object) {
	const uint32_t count = placesUsed.load();
	for (uint32_t i = 0; object && i < count; ++i) {
		auto* place = placeAt(i);
		if (place->object.load() == object && place->identity.load() != 0) return place;
	}
	return nullptr;
}

/// For calls that usually end at once; one that does not is waited for by sleeping.
template <class Done>
void waitUntil(Done done) {
	constexpr int yields = 100;
	for (int turn = 0; !done(); ++turn) {
		if (turn < yields)
			platform::yieldThread();
		else
			platform::sleepMs(1);
	}
}

} // namespace

uint64_t newIdentity() {
	const uint64_t number = serial.fetch_add(1) + 1;
	return number < kSerials ? number << (kIndexBits + 1) | 1 : 0;
}

LivePlace* enrol(Live kind, void* object) {
	int missing = kChunks;
	auto* place = takePlace(&missing);
	while (!place && missing < kChunks && addChunk(missing)) place = takePlace(&missing);
	if (!place) return nullptr;
	const uint64_t identity = newIdentity();
	if (identity == 0) return freePlace(place), nullptr;
	place->kind = kind;
	place->left = false;
	place->object.store(object);
	place->tickets = 0;
	for (auto& ticket : place->changedBy) ticket = 0;
	place->identity.store(identity | uint64_t{place->index} << 1);
	return place;
}

void retire(LivePlace* place) {
	if (!place) return;
	// Sequentially consistent against LiveCall: either this sees its pin, or it sees this.
	place->identity.store(0);
	place->object.store(nullptr);
	waitUntil([&] { return place->pins.load() <= Pin::own(place); });
	if (Pin::own(place) == 0)
		freePlace(place);
	else
		place->left = true;
}

void* identityOf(const LivePlace* place) {
	return place ? reinterpret_cast<void*>(static_cast<uintptr_t>(place->identity.load())) : nullptr;
}

void waitForFormerCalls(LivePlace* place) {
	if (Pin::isInsideCall()) return;
	waitUntil([&] { return place->former.load(std::memory_order_acquire) <= 0; });
}

void Pin::enter(LivePlace* place, bool counted) {
	mCounted = counted || !tInnermost || tInnermost->mPlace != place;
	if (mCounted && !counted) place->pins.fetch_add(1);
	mPlace = place;
	mOuter = tInnermost;
	tInnermost = this;
}

Pin::~Pin() {
	if (!mPlace) return;
	tInnermost = mOuter;
	if (!mCounted) return;
	const bool last = mPlace->left && own(mPlace) == 0;
	mPlace->pins.fetch_sub(1);
	if (last) freePlace(mPlace);
}

int Pin::own(const LivePlace* place) {
	int count = 0;
	for (const auto* pin = tInnermost; pin; pin = pin->mOuter) count += pin->mCounted && pin->mPlace == place;
	return count;
}

bool Pin::isInsideCall() { return tInnermost != nullptr; }

const HostCall* HostCall::innermost(const LivePlace* place) {
	for (const auto* pin = tInnermost; pin; pin = pin->mOuter)
		if (pin->mIsHostCall && pin->mPlace == place) return static_cast<const HostCall*>(pin);
	return nullptr;
}

LiveCall::LiveCall(Live kind, const void* handle) {
	const auto number = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(handle));
	const bool isIdentity = number & 1;
	auto* place = isIdentity ? placeAt(static_cast<uint32_t>(number >> 1) & (kMaximumPlaces - 1)) : findAddress(handle);
	if (!place) return;
	place->pins.fetch_add(1);
	const uint64_t identity = place->identity.load();
	auto* object = place->object.load();
	if (identity == 0 || place->kind != kind || (isIdentity ? identity != number : object != handle)) {
		place->pins.fetch_sub(1);
		return;
	}
	mObject = object;
	enter(place, true);
}

} // namespace plugins
