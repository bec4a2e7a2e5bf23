#include "managed_object.h"

#include "../platform/format.h"
#include "managed_object_internal.h"
#include "shared_block_internal.h"

#include <atomic>
#include <cstring>

namespace {

/// Default names given so far, to objects of every class.
constinit std::atomic<std::uint32_t> defaultNames{0};

constinit std::atomic<std::uint64_t> births{0};

bool same(const char* a, const char* b) { return a && b && std::strcmp(a, b) == 0; }

} // namespace

std::uint64_t core::nextBirth() { return births.fetch_add(1, std::memory_order_relaxed); }

Cmc::Cmc()
    : mName(nullptr), mParent(nullptr), mChildren(nullptr), mChildCount(0), mFlags(0), mWalks(nullptr), mLinks(nullptr),
      mFirstLoose(nullptr), mNextLoose(nullptr), mChainLink(nullptr), mFront(0), mRoom(0), mPlace(0), mBranches(0),
      mListed(false), mHasAttached(false), mHasCopiedList(false), mHasOwnNames(false), mBirth(core::nextBirth()),
      mReserved() {
	Cmc::_mcSetDefaultName();
}

Cmc::Cmc(const Cmc& other)
    : mName(other.mName), mParent(other.mParent), mChildren(other.mChildren), mChildCount(other.mChildCount),
      mFlags(other.mFlags), mWalks(nullptr), mLinks(nullptr), mFirstLoose(nullptr), mNextLoose(nullptr),
      mChainLink(nullptr), mFront(other.mFront), mRoom(other.mRoom), mPlace(0), mBranches(0), mListed(false),
      mHasAttached(false), mHasCopiedList(other.mChildCount > 0), mHasOwnNames(false), mBirth(core::nextBirth()),
      mReserved() {
	core::addSharedUser(mName);
	core::addSharedUser(childBlock());
	settleParent();
}

Cmc& Cmc::operator=(const Cmc& other) {
	if (this == &other || isSelfOrAncestor(&other) || other.isSelfOrAncestor(this)) return *this;
	core::addSharedUser(other.mName);
	core::addSharedUser(other.childBlock());
	if (mParent != other.mParent) leaveParent(); // or that parent would keep a child it cannot be rid of
	if (mChildCount > 0) {
		unlinkChildren(false);
		forgetChildren();
	}
	noteName(other.storedName());
	core::releaseShared(mName);
	mName = other.mName;
	mParent = other.mParent;
	mChildren = other.mChildren;
	mChildCount = other.mChildCount;
	mFront = other.mFront;
	mRoom = other.mRoom;
	mHasCopiedList = mChildCount > 0;
	if (mListed && mChildCount > 0) ++mParent->mBranches;
	mFlags = other.mFlags;
	settleParent();
	return *this;
}

Cmc::~Cmc() {
	for (auto* walk = mWalks; walk; walk = walk->outer) walk->owner = nullptr;
	leaveParent();
	while (mLinks && mLinks->holderCount > 0) mLinks->holders[0]->removeChild(this);
	unlinkChildren(true);
	while (mFirstLoose) {
		Cmc* child = mFirstLoose;
		child->unchain();
		child->mParent = nullptr;
	}
	core::releaseShared(mName);
	core::releaseShared(childBlock());
	delete mLinks;
}

const char* Cmc::gettype() const { return "Cmc"; }
qorMCClassFunc Cmc::getclassfunc() const { return qorMC__CLASSFUNC; }

int Cmc::classfunc(unsigned long command, unsigned long a, unsigned long b, void* out, void* p) {
	const auto function = base::callHost("Cmc::getclassfunc", [&] { return getclassfunc(); });
	if (!function) return kQorFailure;
	return base::callHost("class function", [&] { return function(command, a, b, out, p); });
}

int Cmc::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<Cmc>("Cmc", command, out);
}

void Cmc::_mcSetDefaultName() {
	char name[32];
	const auto number = defaultNames.fetch_add(1, std::memory_order_relaxed);
	platform::formatText(name, sizeof name, "%s_%d", "Cmc", static_cast<int>(number));
	setname(name);
}

const char* Cmc::getname() const { return storedName(); }

const char* Cmc::setname(const char* name) {
	char* copy = nullptr;
	if (name) {
		const auto size = std::strlen(name) + 1;
		copy = static_cast<char*>(core::allocateShared(size));
		if (!copy) return getname();
		std::memcpy(copy, name, size); // `name` may be the old name, so that goes last
	}
	noteName(copy ? copy : "");
	core::releaseShared(mName);
	mName = copy;
	return getname();
}

const char* Cmc::storedName() const { return mName ? mName : ""; }

/// To be called before the stored name changes.
void Cmc::noteName(const char* newName) {
	if (mListed && mParent->mLinks) mParent->mLinks->names.rename(this, storedName(), newName);
}

const char* Cmc::getbaseclass() const { return ""; }
const char* Cmc::getctx() const { return ""; }
const char* Cmc::getsubclass() const { return ""; }
const char* Cmc::getsub2class() const { return ""; }

int Cmc::_mcOnDestroy() { return 0; }
int Cmc::_mcReserved1(void*) { return 0; }
int Cmc::_mcReserved2(void*) { return 0; }
int Cmc::_mcReserved3(void*) { return 0; }
int Cmc::_mcReserved4(void*) { return 0; }

int Cmc::isname(const char* text) const { return same(core::nameOf(*this), text); }
int Cmc::istype(const char* text) const { return same(core::typeOf(*this), text); }

int Cmc::isctx(const char* text) const {
	return base::callHost("Cmc::getctx", [&] { return same(getctx(), text); });
}

int Cmc::issubclass(const char* text) const {
	return base::callHost("Cmc::getsubclass", [&] { return same(getsubclass(), text); });
}

int Cmc::issub2class(const char* text) const {
	return base::callHost("Cmc::getsub2class", [&] { return same(getsub2class(), text); });
}

int Cmc::isbaseclass(const char* text) const {
	return istype(text) || base::callHost("Cmc::getbaseclass", [&] { return same(getbaseclass(), text); });
}

int Cmc::_mcHasFlag(unsigned long mask) const { return (mFlags & mask) != 0; }

unsigned long Cmc::_mcModifyFlag(unsigned long set, unsigned long clear) {
	mFlags = static_cast<std::uint32_t>((mFlags & ~clear) | set);
	return mFlags;
}

unsigned long Cmc::_mcOpenBranch(int on) { return _mcModifyFlag(on ? kFlagBranchOpen : 0, kFlagBranchOpen); }
int Cmc::_mcIsBranchOpen() const { return _mcHasFlag(kFlagBranchOpen); }
unsigned long Cmc::_mcSelect(int on) { return _mcModifyFlag(on ? kFlagSelected : 0, kFlagSelected); }
int Cmc::_mcIsSelected() const { return _mcHasFlag(kFlagSelected); }
