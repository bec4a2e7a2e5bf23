#include "parameter_path_internal.h"
#include "parameter_section.h"

using parameter_file::PathName;

namespace {

/// Sections in front of this place are found quickly enough. They are not remembered, so that a
/// loop over many sections does not lose its place to the lookups in between.
constexpr int kNear = 16;

} // namespace

CqorBXML_Section* CqorBXML_Section::childOfTypeFrom(int position, const PathName& type) const {
	for (; position < mChildCount; ++position)
		if (type.equals(mChildren[position]->mType)) return mChildren[position];
	return nullptr;
}

CqorBXML_Section* CqorBXML_Section::childOfType(const PathName& type, int index) const {
	if (index < 0) return nullptr;
	int position = 0;
	int before = 0; // children of the type in front of `position`
	const auto remembered = mLastFound.load(std::memory_order_relaxed);
	const auto lastPosition = static_cast<int>(remembered >> 32);
	const auto lastBefore = static_cast<int>(remembered & UINT32_MAX);
	if (lastBefore <= index && lastPosition < mChildCount && type.equals(mChildren[lastPosition]->mType)) {
		position = lastPosition;
		before = lastBefore;
	}
	for (; auto* found = childOfTypeFrom(position, type); ++before) {
		if (before == index) {
			const auto place = static_cast<std::uint64_t>(found->mIndex);
			const auto last = place << 32 | static_cast<std::uint32_t>(index);
			if (found->mIndex >= kNear) mLastFound.store(last, std::memory_order_relaxed);
			return found;
		}
		position = found->mIndex + 1;
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
