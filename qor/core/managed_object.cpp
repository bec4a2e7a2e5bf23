#include "managed_object.h"

#include "../platform/format.h"
#include "shared_block_internal.h"

#include <atomic>
#include <cstring>

namespace {

/// Default names given so far, to objects of every class.
constinit std::atomic<std::uint32_t> defaultNames{0};

bool same(const char* a, const char* b) { return a && b && std::strcmp(a, b) == 0; }

} // namespace

Cmc::Cmc() { Cmc::_mcSetDefaultName(); }

Cmc::Cmc(const Cmc& other)
    : mName(other.mName), mParent(other.mParent), mChildren(other.mChildren), mChildCount(other.mChildCount),
      mFlags(other.mFlags) {
	core::addSharedUser(mName);
	core::addSharedUser(mChildren);
}

Cmc& Cmc::operator=(const Cmc& other) {
	if (this == &other || isSelfOrAncestor(&other) || other.isSelfOrAncestor(this)) return *this;
	core::addSharedUser(other.mName);
	core::addSharedUser(other.mChildren);
	core::releaseShared(mName);
	core::releaseShared(mChildren);
	if (mParent != other.mParent) leaveParent(); // or that parent would keep a child it cannot be rid of
	mName = other.mName;
	mParent = other.mParent;
	mChildren = other.mChildren;
	mChildCount = other.mChildCount;
	mFlags = other.mFlags;
	return *this;
}

Cmc::~Cmc() {
	leaveParent();
	core::releaseShared(mName);
	core::releaseShared(mChildren);
}

const char* Cmc::gettype() const { return "Cmc"; }
qorMCClassFunc Cmc::getclassfunc() const { return qorMC__CLASSFUNC; }

int Cmc::classfunc(unsigned long command, unsigned long a, unsigned long b, void* out, void* p) {
	const auto function = getclassfunc();
	return function ? function(command, a, b, out, p) : kQorFailure;
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

const char* Cmc::getname() const { return mName ? mName : ""; }

const char* Cmc::setname(const char* name) {
	char* copy = nullptr;
	if (name) {
		const auto size = std::strlen(name) + 1;
		copy = static_cast<char*>(core::allocateShared(size));
		if (!copy) return getname();
		std::memcpy(copy, name, size); // `name` may be the old name, so that goes last
	}
	core::releaseShared(mName);
	mName = copy;
	return getname();
}

const char* Cmc::getbaseclass() const { return ""; }
const char* Cmc::getctx() const { return ""; }
const char* Cmc::getsubclass() const { return ""; }
const char* Cmc::getsub2class() const { return ""; }

int Cmc::_mcOnDestroy() { return 0; }

int Cmc::isname(const char* text) const { return same(getname(), text); }
int Cmc::istype(const char* text) const { return same(gettype(), text); }
int Cmc::isctx(const char* text) const { return same(getctx(), text); }
int Cmc::issubclass(const char* text) const { return same(getsubclass(), text); }
int Cmc::issub2class(const char* text) const { return same(getsub2class(), text); }
int Cmc::isbaseclass(const char* text) const { return istype(text) || same(getbaseclass(), text); }

int Cmc::_mcHasFlag(unsigned long mask) const { return (mFlags & mask) != 0; }

unsigned long Cmc::_mcModifyFlag(unsigned long set, unsigned long clear) {
	mFlags = static_cast<std::uint32_t>((mFlags & ~clear) | set);
	return mFlags;
}

unsigned long Cmc::_mcOpenBranch(int on) { return _mcModifyFlag(on ? kFlagBranchOpen : 0, kFlagBranchOpen); }
int Cmc::_mcIsBranchOpen() const { return _mcHasFlag(kFlagBranchOpen); }
unsigned long Cmc::_mcSelect(int on) { return _mcModifyFlag(on ? kFlagSelected : 0, kFlagSelected); }
int Cmc::_mcIsSelected() const { return _mcHasFlag(kFlagSelected); }
