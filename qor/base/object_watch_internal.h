#pragma once

namespace base {

/// Tells an operation whether its object outlived a callback: the host may have destroyed it
/// there, and then nothing of it may be touched any more.
///
///     base::ObjectWatch watch(mWatches);              // mWatches: a field of the object
///     base::callHost("...", [&] { callBack(this); });
///     if (!watch.alive()) return ...;
///
/// Watches stand on the stack and are taken off in any order, from any thread.
class ObjectWatch {
public:
	explicit ObjectWatch(ObjectWatch*& list);
	~ObjectWatch();
	ObjectWatch(const ObjectWatch&) = delete;
	ObjectWatch& operator=(const ObjectWatch&) = delete;

	bool alive() const { return mList != nullptr; }

	/// For the destructor of the object: all its watches learn that it is gone.
	static void objectGone(ObjectWatch*& list);

private:
	ObjectWatch** mList; // null once the object is gone
	ObjectWatch* mNext;
};

} // namespace base
