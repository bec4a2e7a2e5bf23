#pragma once

#include <cstdint>

class qor;

namespace core {

/// A dispatch, or another walk that calls handlers, in progress on this thread. Destructors and
/// child lists look through these, so that a walk never touches an object that a handler
/// destroyed and never passes over the sibling of one that left.
struct Dispatch {
	explicit Dispatch(const qor* object) noexcept;
	Dispatch(const Dispatch&) = delete;
	Dispatch& operator=(const Dispatch&) = delete;
	~Dispatch();

	/// For an object that is destroyed.
	static void forget(qor* object);
	/// For a child that leaves its place in the list of `object`; the ones behind it move up.
	static void noteLeaving(const qor* object, int32_t place);

	const qor* owner;     // null when destroyed meanwhile
	int32_t next = 0;     // the place of the next child to be called
	int32_t end = 0;      // behind the last of those that were there at the start
	qor** copy = nullptr; // of the child list; destroyed ones are null
	int32_t count = 0;
	int32_t depth;    // walks that this one stands within, and itself
	bool cut = false; // whether a child stood too deep to be called
	Dispatch* outer;
};

} // namespace core
