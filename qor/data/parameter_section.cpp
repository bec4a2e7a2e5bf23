#include "parameter_section.h"

#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../platform/memory.h"
#include "parameter_arena_internal.h"
#include "parameter_file.h"

#include <new>

using parameter_file::Arena;

static_assert(sizeof(CqorBXML_Section) == 384, "hosts reach past it, to the callback of a document");

namespace {

const char* skipBlanks(const char* text) {
	while (*text && static_cast<unsigned char>(*text) <= ' ') ++text;
	return text;
}

/// The place of a walk and the walk around it: a callback may walk, too.
struct Walk {
	explicit Walk(const CqorBXML_Section* start) : at(start), outer(std::exchange(innermost, this)) {}
	Walk(const Walk&) = delete;
	Walk& operator=(const Walk&) = delete;
	~Walk() { innermost = outer; }

	const CqorBXML_Section* at; // null when a callback destroyed what it lies in
	Walk* outer;

	static thread_local Walk* innermost;
};

thread_local Walk* Walk::innermost = nullptr;

} // namespace

/// Leaves the 286 other characters of ID and type as they are: clearing them for every section
/// would cost as much as reading it.
CqorBXML_Section::CqorBXML_Section() { mID[0] = mType[0] = '\0'; }

CqorBXML_Section::~CqorBXML_Section() { Destroy(); }

void* CqorBXML_Section::operator new(std::size_t bytes) noexcept { return platform::allocate(bytes); }

void CqorBXML_Section::operator delete(void* section) noexcept { platform::release(section); }

void CqorBXML_Section::Destroy() {
	for (auto* walk = Walk::innermost; walk; walk = walk->outer)
		if (walk->at != this && contains(walk->at)) walk->at = nullptr;
	if (mArena && mArena->belongsTo(this)) Arena::destroy(std::exchange(mArena, nullptr));
	typeChanges();
	mID[0] = mType[0] = '\0';
	mHeaderBuff = nullptr;
	mContent = nullptr;
	mChildren = nullptr;
	mVars = nullptr;
	mLookup = nullptr;
	mContentLength = mChildCount = mVarCount = 0;
}

void CqorBXML_Section::typeChanges() {
	if (mParent && mParent->mLookup) mParent->mLookup->sortedCount.store(0, std::memory_order_relaxed);
}

Arena* CqorBXML_Section::arena() {
	if (!mArena) mArena = Arena::create(this);
	return mArena;
}

/// The child is not in the tree yet. Its destructor never runs: all it has lies in the arena.
CqorBXML_Section* CqorBXML_Section::makeChild() {
	void* memory = arena() ? mArena->allocate(sizeof(CqorBXML_Section)) : nullptr;
	if (!memory) return nullptr;
	auto* child = ::new (memory) CqorBXML_Section;
	child->mArena = mArena;
	child->mDocument = mDocument;
	child->mParent = this;
	child->mDepth = mDepth + 1;
	return child;
}

bool CqorBXML_Section::appendChild(CqorBXML_Section* child) {
	child->mIndex = mChildCount;
	return mArena->append(mChildren, mChildCount, child);
}

/// The next section in the order of the text; null when the last one below `top` is passed.
CqorBXML_Section* CqorBXML_Section::nextBelow(const CqorBXML_Section* top) {
	if (mChildCount > 0) return mChildren[0];
	for (auto* at = this; at != top; at = at->mParent) {
		const CqorBXML_Section* parent = at->mParent;
		if (!parent) return nullptr;
		if (at->mIndex + 1 < parent->mChildCount) return parent->mChildren[at->mIndex + 1];
	}
	return nullptr;
}

int CqorBXML_Section::walk(CqorBXML* document, int depth, CqorBXML_SectionCallBack callback) {
	for (auto* at = nextBelow(this); at; at = at->nextBelow(this)) {
		const Walk walk(at);
		const int here = depth + at->mDepth - mDepth - 1; // looked at afresh: the tree may be added to another
		base::callHost("CqorBXML section", [&] { callback(document, at, here); });
		if (!walk.at) return kQorFailure; // `at` is gone; this section and the document may be
	}
	return kQorSuccess;
}

bool CqorBXML_Section::contains(const CqorBXML_Section* section) const {
	if (mChildCount == 0) return section == this; // spares the way up where leaves are added
	while (section && section != this) section = section->mParent;
	return section == this;
}

int CqorBXML_Section::AddSection(CqorBXML_Section* section) {
	if (!section || section->mParent || section->contains(this)) return kQorFailure;
	if (section->mDocument && section == &section->mDocument->mRoot) return kQorFailure;
	if (!arena() || !appendChild(section)) return kQorFailure;
	if (!mArena->adopt(section)) {
		--mChildCount;
		return kQorFailure;
	}
	section->mParent = this;
	const int deeper = mDepth + 1 - section->mDepth;
	for (auto* at = section; at; at = at->nextBelow(section)) {
		at->mDocument = mDocument;
		at->mDepth += deeper;
	}
	return kQorSuccess;
}

eqorBXML_VAR* CqorBXML_Section::appendVar(char* name, char* value) {
	auto* var = name && value ? static_cast<eqorBXML_VAR*>(mArena->allocate(sizeof(eqorBXML_VAR))) : nullptr;
	if (!var || !mArena->append(mVars, mVarCount, var)) {
		logmsg("[ERROR] AddVar(%s,%s) - Cannot Alloc", name, value);
		return nullptr;
	}
	*var = {name, value};
	logmsg("Added Var %d = [%s] = [%s]", mVarCount, name, value);
	return var;
}

eqorBXML_VAR* CqorBXML_Section::AddVar(const char* name, const char* value) {
	if (!name || !arena()) return nullptr;
	name = skipBlanks(name);
	value = skipBlanks(value ? value : "");
	char* ownName = mArena->copyText(name, std::strlen(name));
	char* ownValue = mArena->copyText(value, std::strlen(value));
	return appendVar(ownName, ownValue);
}

int CqorBXML_Section::IsType(const char* type) const { return type && std::strcmp(mType, type) == 0; }

int CqorBXML_Section::IsID(const char* id) const { return id && std::strcmp(mID, id) == 0; }
