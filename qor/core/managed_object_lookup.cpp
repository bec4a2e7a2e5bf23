#include "../platform/number.h"
#include "managed_object_internal.h"
#include "runtime.h"

#include <algorithm>
#include <cstring>

namespace {

/// Children up to which a list is looked through.
constexpr int kIndexedChildren = 32;

bool hasName(const Cmc* object, const char* name, std::size_t length) {
	const char* own = core::nameOf(*object);
	return std::strncmp(own, name, length) == 0 && std::strlen(own) == length;
}

bool matches(const Cmc* object, const char* name, const char* type) {
	return object->istype(type) && (!name || object->isname(name));
}

/// `name` null: any.
Cmc* findUp(const Cmc* object, const char* name, const char* type) {
	for (object = object->_mcGetParent(); object; object = object->_mcGetParent())
		if (matches(object, name, type)) return const_cast<Cmc*>(object);
	return nullptr;
}

/// Through the walk that has entered an object already.
Cmc* findDown(core::ManagedWalk& walk, const char* name, const char* type) {
	walk.open();
	while (walk.depth() > 0) {
		Cmc* child = walk.next();
		if (!child) {
			walk.leave();
			continue;
		}
		if (matches(child, name, type)) return child;
		if (!child->_mcHasChilds()) continue;
		const auto entered = walk.enter(child);
		if (entered == core::ManagedWalk::Entered::yes) {
			walk.open();
		} else if (entered == core::ManagedWalk::Entered::noMemory) {
			if (Cmc* found = child->_mcFindByNameAndType(name, type, 0)) return found;
		}
	}
	return nullptr;
}

Cmc* findDown(const Cmc* object, const char* name, const char* type) {
	if (!object->_mcHasChilds()) return nullptr;
	core::ManagedWalk walk;
	walk.enter(const_cast<Cmc*>(object));
	return findDown(walk, name, type);
}

/// Where a segment of a path leads, and the path behind it; `rest` null: the path ends here.
struct PathStep {
	Cmc* object = nullptr;
	const char* rest = nullptr;
};

bool isNameCharacter(char c) {
	return platform::isDigit(c) || platform::isLetter(c) || c == '_' || static_cast<unsigned char>(c) > 127;
}

/// @param named finds a child by the first characters of a text.
template <class Named>
PathStep nameStep(const char* path, Named named) {
	const std::size_t length = std::strcspn(path, ".-");
	Cmc* child = named(path, length);
	const char* end = path + length;
	if (!child) {
		std::size_t word = 0;
		while (word < length && isNameCharacter(path[word])) ++word;
		return {word > 0 && word < length ? named(path, word) : nullptr};
	}
	if (*end == '.') return {child, end + 1};
	if (*end == '\0') return {child};
	if (end[1] == '>' && end[2] != '\0') appmsg("MEMBER (%s)", end + 2);
	return {};
}

/// `index` is the text behind "child[", `end` the end of the keyword.
PathStep childStep(Cmc* from, const char* index, const char* end) {
	constexpr std::size_t kMaximumDigits = 9;
	const std::size_t length = std::strcspn(index, "]");
	if (length < 1 || length > kMaximumDigits || index + length + 1 != end) return {};
	if (*end == '.' && end[1] == '\0') return {};
	Cmc* child = from->_mcGetChild(platform::parseInt(index));
	return *end == '.' ? PathStep{child, end + 1} : PathStep{child};
}

PathStep keywordStep(Cmc* from, const char* path) {
	constexpr std::size_t kChildLength = 6;
	const char* keyword = path + 1;
	const std::size_t length = std::strcspn(keyword, ".");
	const char* end = keyword + length;
	// A shortened keyword is as good as the whole one, and "$" alone is the first.
	const auto is = [&](const char* whole) { return std::strncmp(keyword, whole, length) == 0; };
	Cmc* object = nullptr;
	if (is("root")) {
		object = from->_mcGetRoot();
	} else if (is("me")) {
		object = from;
	} else if (is("parent")) {
		object = from->_mcGetParent();
	} else if (std::strncmp(keyword, "child[", kChildLength) == 0) {
		return childStep(from, keyword + kChildLength, end);
	}
	return *end == '.' ? PathStep{object, end + 1} : PathStep{object};
}

} // namespace

Cmc* Cmc::_mcGetChild(int index) const { return index >= 0 && index < mChildCount ? mChildren[index] : nullptr; }

unsigned int Cmc::_mcGetIndexChildByPtr(const Cmc* child) const {
	return static_cast<unsigned int>(findPlace(child)); // -1 is kQorNotFound
}
static_assert(static_cast<unsigned int>(-1) == kQorNotFound);

/// Brings the index of the names up to date. @return false when there is none.
bool Cmc::coverNames() {
	if (mHasAttached || mHasCopiedList || mHasOwnNames || !links()) return false;
	auto& names = mLinks->names;
	while (names.covered() < mChildCount) {
		Cmc* child = mChildren[names.covered()];
		const char* name = core::nameOf(*child);
		mHasOwnNames = child->mName ? name != child->mName : *name != '\0';
		if (mHasOwnNames || !names.add(child, name, std::strlen(name))) {
			names.clear();
			return false;
		}
	}
	return true;
}

/// The first child of exactly that name and, unless `type` is null, of that type.
Cmc* Cmc::childNamed(const char* name, std::size_t length, const char* type) const {
	const auto matches = [&](const Cmc* child) {
		return hasName(child, name, length) && (!type || child->istype(type));
	};
	if (mChildCount > kIndexedChildren && const_cast<Cmc*>(this)->coverNames())
		return mLinks->names.find(name, strnlen(name, length), matches);
	Cmc** const end = mChildren + mChildCount;
	Cmc** const found = std::find_if(mChildren, end, matches);
	return found == end ? nullptr : *found;
}

Cmc* Cmc::childNamedOr(const char* name, const char* alternative, int length, const char* type) const {
	const auto lengthOf = [length](const char* text) { return length > 0 ? length : std::strlen(text); };
	Cmc* child = childNamed(name, lengthOf(name), type);
	return child || !alternative ? child : childNamed(alternative, lengthOf(alternative), type);
}

Cmc* Cmc::_mcGetChildByName(const char* name, const char* alternative, int length) const {
	return name ? childNamedOr(name, alternative, length, nullptr) : nullptr;
}

Cmc* Cmc::_mcGetChildByNameAndType(const char* name, const char* type, const char* alternative, int length) const {
	return name && type ? childNamedOr(name, alternative, length, type) : nullptr;
}

Cmc* Cmc::_mcGetChildByType(const char* type, int n) const {
	for (int i = 0; i < mChildCount && n >= 0; ++i)
		if (mChildren[i]->istype(type) && n-- == 0) return mChildren[i];
	return nullptr;
}

int Cmc::_mcGetChildCountByType(const char* type) const {
	int count = 0;
	for (int i = 0; i < mChildCount; ++i) count += mChildren[i]->istype(type);
	return count;
}

unsigned int Cmc::_mcGetChildIndexByType(const Cmc* child, const char* type) const {
	unsigned int place = 0;
	for (int i = 0; i < mChildCount; ++i) {
		if (!mChildren[i]->istype(type)) continue;
		if (mChildren[i] == child) return place;
		++place;
	}
	return static_cast<unsigned int>(kQorNotFound);
}

Cmc* Cmc::_mcFindByType(const char* type, int up) const {
	return up ? findUp(this, nullptr, type) : findDown(this, nullptr, type);
}

Cmc* Cmc::_mcFindByNameAndType(const char* name, const char* type, int up) const {
	if (!name) return nullptr;
	return up ? findUp(this, name, type) : findDown(this, name, type);
}

Cmc* Cmc::_mcFindParentByBaseClass(const char* base) const {
	for (Cmc* object = mParent; object; object = object->mParent)
		if (object->isbaseclass(base)) return object;
	return nullptr;
}

Cmc* Cmc::_mcFind(const char* path) {
	PathStep step{this, path};
	if (!path) return nullptr;
	while (step.object && step.rest)
		step = *step.rest == '$' ? keywordStep(step.object, step.rest)
		                         : nameStep(step.rest, [&](const char* name, std::size_t length) {
			                           return step.object->childNamed(name, length, nullptr);
		                           });
	return step.object;
}
