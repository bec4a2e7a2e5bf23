#include "object.h"

#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../platform/format.h"
#include "../platform/memory.h"
#include "object_internal.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <tinyxml2.h>

namespace {

/// Children that a safe dispatch copies without the heap.
constexpr int32_t kChildrenOnStack = 64;

/// Formats into a text that may be an argument itself, and zeroes what is left of it: saved
/// trees hold no remains of former texts.
void setText(char (&text)[kQorTextSize], const char* format, va_list arguments) {
	char formatted[kQorTextSize] = "";
	if (format) {
		const size_t length = platform::formatTextV(formatted, sizeof formatted, format, arguments);
		std::memset(formatted + length, 0, sizeof formatted - length);
	}
	std::memcpy(text, formatted, sizeof text);
}

int isText(const char* text, const char* other) { return other && std::strcmp(text, other) == 0 ? 1 : 0; }

/// Places for `count` entries: grown to powers of two, so no capacity is kept.
bool haveRoom(qor**& list, int32_t count) {
	if (count == std::numeric_limits<int32_t>::max()) return false;
	const auto used = static_cast<uint32_t>(count);
	if (used != 0 && (used < 4 || !std::has_single_bit(used))) return true;
	const size_t places = std::max<size_t>(4, size_t{used} * 2);
	auto* grown = static_cast<qor**>(platform::reallocate(list, places * sizeof(qor*)));
	if (!grown) return false;
	list = grown;
	return true;
}

/// Searches from both ends: who deletes many children mostly takes the first or the last.
/// @return `count` when it is not there.
int32_t indexOf(qor* const* list, int32_t count, const qor* object) {
	for (int32_t low = 0, high = count - 1; low <= high; ++low, --high) {
		if (list[low] == object) return low;
		if (list[high] == object) return high;
	}
	return count;
}

/// @return the place it had; `count`, as it was, when it is not there.
int32_t removeEntry(qor** list, int32_t& count, const qor* object) {
	const int32_t index = indexOf(list, count, object);
	if (index == count) return index;
	std::copy(list + index + 1, list + count, list + index);
	--count;
	return index;
}

std::atomic<uint32_t> nextIDNumber{0};

std::atomic<uint64_t> searches{0};

thread_local core::Dispatch* innermost = nullptr;

} // namespace

namespace core {

Dispatch::Dispatch(const qor* object) noexcept
    : owner(object), depth(innermost ? innermost->depth + 1 : 1), outer(innermost) {
	innermost = this;
}

Dispatch::~Dispatch() { innermost = outer; }

void Dispatch::forget(qor* object) {
	for (Dispatch* running = innermost; running; running = running->outer) {
		if (running->owner == object) running->owner = nullptr;
		std::replace(running->copy, running->copy + running->count, object, static_cast<qor*>(nullptr));
	}
}

void Dispatch::noteLeaving(const qor* object, int32_t place) {
	for (Dispatch* running = innermost; running; running = running->outer) {
		if (running->owner != object) continue;
		if (place < running->next) --running->next;
		if (place < running->end) --running->end;
	}
}

} // namespace core

using core::Dispatch;

qor::qor()
    : mID(), mBaseContext("qor"), mType(), mSubType(), mParent(nullptr), mChildren(nullptr), mChildCount(0), mValues(),
      mHolders(nullptr), mHolderCount(0), mChildChanges(0), mFirstDependent(nullptr), mNextDependent(nullptr),
      mPreviousDependent(nullptr), mSearch(0), mPending(nullptr), mNextHolder(0), mLoaded(false), mReserved() {}

qor::~qor() {
	Dispatch::forget(this);
	unlinkParent();
	while (mFirstDependent) mFirstDependent->unlinkParent();
	while (mHolderCount > 0) mHolders[mHolderCount - 1]->removeChild(this);
	while (mChildCount > 0) {
		qor* child = mChildren[--mChildCount];
		removeEntry(child->mHolders, child->mHolderCount, this);
	}
	platform::release(mHolders);
	platform::release(mChildren);
}

void qor::setid(const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	setText(mID, format, arguments);
	va_end(arguments);
}

void qor::setbasecontext(const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	setText(mBaseContext, format, arguments);
	va_end(arguments);
}

void qor::settype(const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	setText(mType, format, arguments);
	va_end(arguments);
	noteChange();
}

void qor::setsubtype(const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	setText(mSubType, format, arguments);
	va_end(arguments);
}

int qor::isid(const char* text) const { return isText(mID, text); }
int qor::isbasecontext(const char* text) const { return isText(mBaseContext, text); }
int qor::istype(const char* text) const { return isText(mType, text); }
int qor::issubtype(const char* text) const { return isText(mSubType, text); }

uint32_t qor::qorNextIDNumber() { return nextIDNumber.fetch_add(1, std::memory_order_relaxed); }

void qor::qorReserveIDNumbers(uint32_t next) {
	uint32_t current = nextIDNumber.load(std::memory_order_relaxed);
	while (current < next && !nextIDNumber.compare_exchange_weak(current, next, std::memory_order_relaxed)) {
	}
}

uint32_t qor::setidsequence(const char* prefix) {
	const uint32_t number = qorNextIDNumber();
	char suffix[16];
	const size_t length = platform::formatText(suffix, sizeof suffix, "_%u", number);
	setid("%.*s%s", static_cast<int>(kQorTextSize - 1 - length), prefix ? prefix : "", suffix);
	return number;
}

int qor::setparent(qor* parent) {
	if (parent == this || (parent && parent->standsBelow(this))) return 0;
	if (parent) {
		if (parent->hasChild(this)) {
			const int32_t index = indexOf(parent->mChildren, parent->mChildCount, this);
			qor** const end = parent->mChildren + parent->mChildCount;
			std::rotate(parent->mChildren + index, parent->mChildren + index + 1, end);
			Dispatch::noteLeaving(parent, index);
			++parent->mChildChanges;
		} else if (!parent->addChild(this)) {
			return 0;
		}
	}
	if (mParent && mParent != parent) mParent->removeChild(this);
	unlinkParent();
	if (parent) linkParent(parent);
	return 1;
}

int qor::attach(qor* child) {
	if (!child || child == this || hasChild(child)) return 0;
	return !standsBelow(child) && addChild(child) ? 1 : 0;
}

int qor::detach(qor* child) {
	if (!child || indexOf(mChildren, mChildCount, child) == mChildCount) return 0;
	removeChild(child);
	return 1;
}

qor* qor::getchild(int32_t index) const { return index >= 0 && index < mChildCount ? mChildren[index] : nullptr; }

/// Whether a dispatch to `ancestor` would come by here. Each object above is looked at once, however
/// many ways lead to it.
bool qor::standsBelow(const qor* ancestor) const {
	if (ancestor->mChildCount == 0) return false; // trees grow leaf by leaf, to any depth
	const uint64_t search = searches.fetch_add(1, std::memory_order_relaxed) + 1;
	const qor* pending = nullptr;
	const qor* object = this;
	while (true) {
		if (object->mSearch != search) {
			object->mSearch = search;
			object->mNextHolder = 0;
			object->mPending = pending;
			pending = object;
		}
		while (pending && pending->mNextHolder == pending->mHolderCount) pending = pending->mPending;
		if (!pending) return false;
		object = pending->mHolders[pending->mNextHolder++];
		if (object == ancestor) return true;
	}
}

/// Appends a child that is not in the list.
bool qor::addChild(qor* child) {
	if (!haveRoom(mChildren, mChildCount) || !haveRoom(child->mHolders, child->mHolderCount)) return false;
	mChildren[mChildCount++] = child;
	child->mHolders[child->mHolderCount++] = this;
	++mChildChanges;
	return true;
}

void qor::removeChild(qor* child) {
	Dispatch::noteLeaving(this, removeEntry(mChildren, mChildCount, child));
	removeEntry(child->mHolders, child->mHolderCount, this);
	++mChildChanges;
}

void qor::noteChange() {
	for (int32_t i = 0; i < mHolderCount; ++i) ++mHolders[i]->mChildChanges;
}

bool qor::hasChild(const qor* child) const {
	if (mChildCount < child->mHolderCount) return indexOf(mChildren, mChildCount, child) < mChildCount;
	return indexOf(child->mHolders, child->mHolderCount, this) < child->mHolderCount;
}

void qor::linkParent(qor* parent) {
	mParent = parent;
	mNextDependent = parent->mFirstDependent;
	if (mNextDependent) mNextDependent->mPreviousDependent = this;
	parent->mFirstDependent = this;
}

void qor::unlinkParent() {
	if (!mParent) return;
	(mPreviousDependent ? mPreviousDependent->mNextDependent : mParent->mFirstDependent) = mNextDependent;
	if (mNextDependent) mNextDependent->mPreviousDependent = mPreviousDependent;
	mParent = mNextDependent = mPreviousDependent = nullptr;
}

int qor::_OnPreDispatchMessage(uint32_t, void*, void*) { return 0; }
int qor::_OnPostDispatchMessage(uint32_t, void*, void*) { return 0; }

namespace {

bool refuses(qor* object, uint32_t message, void* first, void* second) {
	return base::callHost("qor::_OnPreDispatchMessage",
	           [&] { return object->_OnPreDispatchMessage(message, first, second); }) != 0;
}

void finish(qor* object, uint32_t message, void* first, void* second) {
	base::callHost("qor::_OnPostDispatchMessage", [&] { object->_OnPostDispatchMessage(message, first, second); });
}

void dispatchTo(qor* child, uint32_t message, void* first, void* second) {
	base::callHost("qor::_DispatchMessage", [&] { child->_DispatchMessage(message, first, second); });
}

/// Whether the dispatch stands too deep to go on; the ones around it learn of it.
bool isTooDeep(const qor& object, const Dispatch& running) {
	if (running.depth <= kQorMaximumDispatchDepth) return false;
	if (running.outer && !running.outer->cut)
		object.log(3, "a message did not get here: more than %d levels", kQorMaximumDispatchDepth);
	for (Dispatch* outer = running.outer; outer; outer = outer->outer) outer->cut = true;
	return true;
}

} // namespace

int qor::_DispatchMessage(uint32_t message, void* first, void* second) {
	Dispatch running(this);
	if (isTooDeep(*this, running) || refuses(this, message, first, second)) return kQorFailure;
	if (running.owner) running.end = mChildCount;
	while (running.owner && running.next < running.end) dispatchTo(mChildren[running.next++], message, first, second);
	if (running.owner) finish(this, message, first, second);
	return running.cut ? kQorFailure : kQorSuccess;
}

int qor::_DispatchMessageSafe(uint32_t message, void* first, void* second) {
	Dispatch running(this);
	if (isTooDeep(*this, running) || refuses(this, message, first, second)) return kQorFailure;
	if (!running.owner) return kQorSuccess;
	qor* onStack[kChildrenOnStack];
	const bool fits = mChildCount <= kChildrenOnStack;
	auto* copy =
	    fits ? onStack : static_cast<qor**>(platform::allocate(static_cast<size_t>(mChildCount) * sizeof(qor*)));
	if (!copy) return kQorFailure;
	std::copy(mChildren, mChildren + mChildCount, copy);
	running.copy = copy;
	running.count = mChildCount;
	for (int32_t i = 0; i < running.count; ++i) {
		if (copy[i]) dispatchTo(copy[i], message, first, second);
	}
	if (running.owner) finish(this, message, first, second);
	if (!fits) platform::release(copy);
	return running.cut ? kQorFailure : kQorSuccess;
}

int qor::qorReserved1(void*) { return 0; }
int qor::qorReserved2(void*) { return 0; }
int qor::qorReserved3(void*) { return 0; }
int qor::qorReserved4(void*) { return 0; }
int qor::qorCustomCB(uint32_t, void*, void*) { return 0; }
int qor::qorOnSaveToBuffer(CstMemFile*) { return 0; }
int qor::qorOnLoadFromBuffer(CstMemFile*, uint32_t) { return 0; }
int qor::qorOnXMLText(tinyxml2::XMLText*, int, int) { return 0; }
int qor::qorOnXMLElement(tinyxml2::XMLElement*, int, int) { return 0; }

int qor::qorOnXML(tinyxml2::XMLNode* node, int depth, int flag) {
	if (!node) return 0;
	int handled = 0;
	if (auto* element = node->ToElement()) {
		handled = base::callHost("qor::qorOnXMLElement", [&] { return qorOnXMLElement(element, depth, flag); });
	} else if (auto* text = node->ToText()) {
		handled = base::callHost("qor::qorOnXMLText", [&] { return qorOnXMLText(text, depth, flag); });
	}
	if (!handled) base::callHost("qor::qorDoXMLNodes", [&] { qorDoXMLNodes(node, depth + 1, flag); });
	return handled;
}

int qor::qorDoXMLNodes(tinyxml2::XMLNode* node, int depth, int flag) {
	tinyxml2::XMLNode* child = node ? node->FirstChild() : nullptr;
	while (child) {
		tinyxml2::XMLNode* next = child->NextSibling(); // a handler may remove its node
		base::callHost("qor::qorOnXML", [&] { qorOnXML(child, depth, flag); });
		child = next;
	}
	return 0;
}
