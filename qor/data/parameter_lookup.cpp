#include "parameter_arena_internal.h"
#include "parameter_path_internal.h"
#include "parameter_section.h"

#include <algorithm>
#include <new>

using parameter_file::PathName;

namespace {

/// Inner sections in front of this place are found quickly enough one after the other.
constexpr int kNear = 16;

} // namespace

/// By type, and in their own order where it is the same.
struct CqorBXML_Section::TypeOrder {
	bool operator()(const CqorBXML_Section* a, const CqorBXML_Section* b) const {
		const int order = PathName::whole(a->mType).compare(b->mType);
		return order ? order < 0 : a->mIndex < b->mIndex;
	}
	bool operator()(const CqorBXML_Section* a, const PathName& b) const { return b.compare(a->mType) > 0; }
	bool operator()(const PathName& a, const CqorBXML_Section* b) const { return a.compare(b->mType) < 0; }
};

/// Called by one thread at a time: the others see the new order when its count is that of the children.
/// @param sorted so many are in order already
bool CqorBXML_Section::sortChildrenFrom(int sorted) const {
	const auto count = static_cast<std::uint32_t>(mChildCount);
	if (mLookup->room < count) {
		const auto room = std::bit_ceil(count);
		auto** grown = static_cast<CqorBXML_Section**>(mArena->allocate(room * sizeof *mLookup->byType));
		if (!grown) return false;
		std::copy_n(mLookup->byType, sorted, grown);
		mLookup->byType = grown;
		mLookup->room = room;
	}
	auto **byType = mLookup->byType, **added = byType + sorted, **end = byType + count;
	std::copy(mChildren + sorted, mChildren + count, added);
	if (!std::is_sorted(added, end, TypeOrder())) std::sort(added, end, TypeOrder()); // often they are of one type
	std::inplace_merge(byType, added, end, TypeOrder());
	mLookup->sortedCount.store(mChildCount, std::memory_order_release);
	return true;
}

/// @return null without memory, and while another thread sorts in this tree.
const CqorBXML_Section::Lookup* CqorBXML_Section::sortChildren() const {
	const std::atomic_ref published(mLookup); // by whichever thread came first
	const Lookup* lookup = published.load(std::memory_order_acquire);
	if (lookup && lookup->sortedCount.load(std::memory_order_acquire) == mChildCount) return lookup;
	if (!mArena->enter()) return nullptr;
	if (!mLookup)
		if (void* memory = mArena->allocate(sizeof(Lookup)))
			published.store(::new (memory) Lookup, std::memory_order_release);
	bool complete = mLookup != nullptr;
	if (complete) {
		const int sorted = mLookup->sortedCount.load(std::memory_order_relaxed); // by now, maybe, all
		complete = sorted == mChildCount || sortChildrenFrom(sorted);
	}
	mArena->leave();
	return complete ? mLookup : nullptr;
}

CqorBXML_Section* CqorBXML_Section::childOfTypeFrom(int position, const PathName& type) const {
	for (; position < mChildCount; ++position)
		if (type.equals(mChildren[position]->mType)) return mChildren[position];
	return nullptr;
}

CqorBXML_Section* CqorBXML_Section::childOfType(const PathName& type, int index) const {
	if (index < 0) return nullptr;
	int before = 0;
	for (int i = 0; i < mChildCount; ++i) {
		const Lookup* lookup = i == kNear ? sortChildren() : nullptr;
		if (lookup) {
			auto** const byType = lookup->byType;
			const auto found = std::equal_range(byType, byType + mChildCount, type, TypeOrder());
			return index < found.second - found.first ? found.first[index] : nullptr;
		}
		if (type.equals(mChildren[i]->mType) && before++ == index) return mChildren[i];
	}
	return nullptr;
}

eqorBXML_VAR* CqorBXML_Section::varOfName(const PathName& name, int index) const {
	for (int i = 0; i < mVarCount; ++i)
		if (name.equals(mVars[i]->mName) && index-- == 0) return mVars[i];
	return nullptr;
}

int CqorBXML_Section::FindSectionCountByType(const char* type) const {
	if (!type) return 0;
	const auto wanted = PathName::whole(type);
	if (const Lookup* lookup = mChildCount > kNear ? sortChildren() : nullptr) {
		auto** const byType = lookup->byType;
		const auto found = std::equal_range(byType, byType + mChildCount, wanted, TypeOrder());
		return static_cast<int>(found.second - found.first);
	}
	int count = 0;
	for (int i = 0; i < mChildCount; ++i) count += wanted.equals(mChildren[i]->mType);
	return count;
}

CqorBXML_Section* CqorBXML_Section::GetSectionByType(const char* type, int index) const {
	return type ? childOfType(PathName::whole(type), index) : nullptr;
}

CqorBXML_Section* CqorBXML_Section::FindSection(const char* path, int index) const {
	if (!path || !*path) return nullptr;
	const auto* section = this;
	auto name = PathName::at(path);
	for (; section && !name.isLast(); name = name.next()) section = section->childOfType(name, 0);
	return section ? section->childOfType(name, index) : nullptr;
}

/// Goes down the path and, where nothing is found, back up to the next section of the same
/// type: parents and path hold all that the way back needs.
eqorBXML_VAR* CqorBXML_Section::FindVar(const char* path, int index, CqorBXML_Section** foundIn) const {
	if (foundIn) *foundIn = nullptr;
	if (!path || !*path || index < 0) return nullptr;
	auto* section = const_cast<CqorBXML_Section*>(this);
	for (auto name = PathName::at(path);; name = name.next()) {
		CqorBXML_Section* next = nullptr;
		if (!name.isLast()) {
			next = section->childOfType(name, 0);
		} else if (auto* var = section->varOfName(name, index)) {
			if (foundIn) *foundIn = section;
			return var;
		}
		while (!next) {
			if (section == this) return nullptr;
			name = name.previous(path);
			next = section->mParent->childOfTypeFrom(section->mIndex + 1, name);
			section = section->mParent;
		}
		section = next;
	}
}
