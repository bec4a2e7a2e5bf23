#include "live_table_internal.h"

#include "../base/wait_guard.h"
#include "../platform/clock.h"

namespace plugins {

namespace {

// Serialises enrolment and retirement of all tables; never closed, since objects may
// outlive every static of this file.
platform::WaitHandle tableMutex() {
	static const platform::WaitHandle mutex = platform::createMutex(false);
	return mutex;
}

size_t firstSlot(uintptr_t object) { return (static_cast<uint64_t>(object) * 0x9E3779B97F4A7C15u) >> 52; }
static_assert(LiveTable::kSlots == 1u << (64 - 52));

thread_local const LiveCall* tInnermostCall = nullptr;

} // namespace

LiveTable& liveManagers() {
	static constinit LiveTable table;
	return table;
}

LiveTable& liveObjects() {
	static constinit LiveTable table;
	return table;
}

LiveTable::Slot* LiveTable::find(uintptr_t object) {
	if (object <= kLeaving) return nullptr;
	const auto first = firstSlot(object);
	for (size_t n = 0; n < kSlots; ++n) {
		auto& slot = mSlots[(first + n) % kSlots];
		const auto present = slot.object.load();
		if (present == object) return &slot;
		if (present == 0) return nullptr;
	}
	return nullptr;
}

bool LiveTable::enrol(const void* object) {
	const base::MutexGuard guard(tableMutex());
	const auto address = reinterpret_cast<uintptr_t>(object);
	const auto first = firstSlot(address);
	for (size_t n = 0; n < kSlots; ++n) {
		auto& slot = mSlots[(first + n) % kSlots];
		if (slot.object.load() > kRemoved) continue;
		slot.object.store(address);
		return true;
	}
	return false;
}

void LiveTable::retire(const void* object) {
	Slot* slot = nullptr;
	{
		const base::MutexGuard guard(tableMutex());
		slot = find(reinterpret_cast<uintptr_t>(object));
		if (!slot) return;
		slot->object.store(kLeaving);
	}
	// Without the mutex: the calls waited for may make or retire objects themselves.
	while (slot->calls.load() > LiveCall::ownCalls(slot)) platform::sleepMs(1);
	slot->object.store(kRemoved);
}

LiveCall::LiveCall(LiveTable& table, const void* object) {
	const auto address = reinterpret_cast<uintptr_t>(object);
	auto* slot = table.find(address);
	if (!slot) return;
	// Sequentially consistent against retire(): either it sees this call, or this sees it.
	slot->calls.fetch_add(1);
	if (slot->object.load() != address) {
		slot->calls.fetch_sub(1);
		return;
	}
	mSlot = slot;
	mOuter = tInnermostCall;
	tInnermostCall = this;
}

LiveCall::~LiveCall() {
	if (!mSlot) return;
	tInnermostCall = mOuter;
	mSlot->calls.fetch_sub(1);
}

int LiveCall::ownCalls(const void* slot) {
	int count = 0;
	for (const auto* call = tInnermostCall; call; call = call->mOuter) count += call->mSlot == slot;
	return count;
}

} // namespace plugins
