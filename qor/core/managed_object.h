#pragma once

#include "../base/status.h"
#include "../platform/export.h"
#include "log_levels.h"

#include <cstddef>
#include <cstdint>
#include <new>

namespace tinyxml2 {
class XMLElement;
class XMLNode;
} // namespace tinyxml2

namespace core {
class ManagedWalk;
struct ManagedLinks;
struct WalkFrame;
} // namespace core

class Cmc;
class CstMemFile;
struct eqorMC_SEQHDR;

/// The class function of a managed class: answers questions about the class without an object of it.
///
/// | command | effect | result |
/// |---|---|---|
/// | 1 | stores the type name through `out` (a `const char**`) | 0 |
/// | 256 | makes an object with the default constructor and stores it through `out` (a `Cmc**`) | 0 |
/// | other, or a null `out`, or no memory | nothing | 0x10000000 |
///
/// `a`, `b` and `p` are free for further commands of a class.
using qorMCClassFunc = int (*)(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

/// The record that message 3 (report) carries in `p`.
struct eqorMC_REPORT {
	void* mContext = nullptr;
	const char* mType = nullptr; ///< only objects of this type; null: every object
	int (*mCallback)(void* context, Cmc* object, int depth) = nullptr;
};

/// One object of a flattened tree.
struct eqorMC_SEQITEM {
	Cmc* mObject;
	int mDepth; ///< 0 for the object the fill started at
};

/// What a filter callback decides about an object.
enum eqorMC_SEQVERDICT {
	kSequenceAdd = 0,          ///< add it and visit its children (also every value not named here)
	kSequenceChildrenOnly = 1, ///< leave it out and visit its children
	kSequenceSkipBranch = 2,   ///< leave out the object and everything below it
	kSequenceAddLeaf = 3,      ///< add it and leave out everything below it
};

/// A flattened tree with the filters that made it. `_mcAllocSeqHdr` makes one; a header of the
/// caller's own works too, whose `mItems` the caller then releases with `free`.
struct eqorMC_SEQHDR {
	eqorMC_SEQITEM* mItems = nullptr;
	std::int32_t mCount = 0;
	std::int32_t mCapacity = 0;
	std::int32_t mDepth = 0;        ///< depth of the object being visited
	const char* mType = nullptr;    ///< only objects of this type; null: any
	const char* mContext = nullptr; ///< only objects whose `getctx` is this text; null: any
	void* mUser = nullptr;          ///< the caller's, like `mUserValue`
	long long mUserValue = 0;
	int (*mCallback)(
	    eqorMC_SEQHDR* header, Cmc* object) = nullptr; ///< a verdict for every object that passes the filters
};

/// The numbers of `Cmc`, reached as `Cmc::kMessageReport`.
struct CmcConstants {
	static constexpr unsigned long kClassCommandType = 1;
	static constexpr unsigned long kClassCommandNew = 256;
	static constexpr unsigned long kMessageUnselect = 2;
	static constexpr unsigned long kMessageReport = 3;
	static constexpr unsigned long kFlagFromXml = 1; ///< created or matched by XML text
	static constexpr unsigned long kFlagBranchOpen = 2;
	static constexpr unsigned long kFlagSelected = 4;
	static constexpr int kXmlCreate = 0; ///< the flag of the operations that read XML
	static constexpr int kXmlUpdate = 1;
	static constexpr int kFindDown = 0; ///< where `_mcFindByType` and `_mcFindByNameAndType` search
	static constexpr int kFindUp = 1;
	static constexpr unsigned long kLastPlace = 0xFFFFFFFF; ///< of `_mcMoveChild`
	static constexpr int kXmlMaximumLevels = 96;            ///< of elements in XML text that is written
};

/// A named, typed object in a tree; the base of every managed class.
///
/// A tree belongs to one thread at a time. Only the object log (`_mclog`, `_mclogtree`) may be
/// called from any thread.
///
/// Ownership: a parent refers to its children and owns them only in the sense that `_mcDestroy`
/// deletes them. The destructor does not delete them: they become roots. Whoever deletes a tree calls
/// `_mcDestroy` (or `_mcDestroyChilds`) first. An object that is deleted leaves every list that has
/// it, but for lists that are copies.
///
/// A copy shares the name and the child list of its original until one of the two changes its
/// own; the storage goes with the last one that uses it. The copy has the same parent but is not
/// among that parent's children, and the children's parent stays the original. Destroying the
/// children of one of the two leaves the other with references to objects that are gone. An object
/// that is assigned to leaves the children of the parent it had.
///
/// A tree that would contain itself cannot be built: `_mcSetParent` and `_mcAttach` refuse the
/// object itself and every object that lists it, directly or through others, and an assignment between
/// an object and its ancestor changes nothing. Operations on a whole tree do not recurse: deep trees
/// cost memory, not stack.
///
/// Appending a child, taking the first or the last one off and finding a child by name take the same
/// time in lists of any length. For that a list of more than 32 children keeps an index of their names,
/// which follows `setname`; a class whose `getname` makes a name up itself is looked up one by one.
/// What a class overrides, and the functions a host hands over, must not throw (runtime.h).
///
/// A derived class overrides `gettype` and `getclassfunc` and registers itself with the class
/// manager (class_manager.h); then it can be rebuilt from XML text:
///
/// ```
/// class Camera : public Cmc {
/// public:
///     const char* gettype() const override { return "Camera"; }
///     qorMCClassFunc getclassfunc() const override { return qorMC__CLASSFUNC; }
///     static int qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
///         return managed::classFunction<Camera>("Camera", command, out);
///     }
/// };
/// ```
///
/// Virtual operations stand in a fixed order; new ones are only ever added behind the last.
class QOR_API Cmc : public CmcConstants {
public:
	/// Has the default name "Cmc_<n>"; `n` counts the default names of the whole process from 0.
	Cmc();
	Cmc(const Cmc& other);
	Cmc& operator=(const Cmc& other);
	/// Takes the object out of its parent's children; its own children are left as they are.
	virtual ~Cmc();

	/// A constant of the class; "Cmc" here.
	virtual const char* gettype() const;
	virtual qorMCClassFunc getclassfunc() const;
	/// The class function of this object's class.
	virtual int classfunc(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);
	/// Gives the name "Cmc_<n>", whatever the type; a class with default names of its own overrides it
	/// (the constructor of `Cmc` always calls this one).
	virtual void _mcSetDefaultName();
	/// Never null; valid until the next `setname`.
	virtual const char* getname() const;
	/// Stores a copy; null takes the name away. Without memory the old name stays. @return `getname`.
	virtual const char* setname(const char* name);
	virtual const char* getbaseclass() const;
	virtual const char* getctx() const;
	virtual const char* getsubclass() const;
	virtual const char* getsub2class() const;
	/// Called first by `_mcDestroy`, with parent and children still in place; the result is ignored.
	virtual int _mcOnDestroy();
	/// Receives every message of `_mcDispatchMsg`. @return non-zero: neither the children nor
	/// `_mcOnPostDispatchMsg` of this object see the message.
	virtual int _mcOnDispatchMsg(unsigned long message, unsigned long a, unsigned long b, void* p, void* q, int depth);
	/// Called when the children have seen the message; the result is ignored.
	virtual int _mcOnPostDispatchMsg(
	    unsigned long message, unsigned long a, unsigned long b, void* p, void* q, int depth);
	/// Writes further attributes of the object's element, each as `name="value" ` with a blank behind
	/// (`managed::writeXmlAttribute` of managed_xml.h does). @return 0; 0x10000000 makes the saving fail.
	virtual int _mcOnXMLWritePars(CstMemFile* memfile);
	/// A text between tags. @return non-zero when it needs no further handling.
	virtual int _mcOnXMLText(tinyxml2::XMLNode* text, int depth, int flag);
	/// Matches (`flag` non-zero) or creates a child for the element, then reads the nested elements into it.
	/// @return 1; 0 for an unknown type, which is logged, and the nested elements are then read into this
	/// object; 0x10000000 when there was no memory for the child.
	virtual int _mcOnXMLElement(tinyxml2::XMLElement* element, int depth, int flag);
	/// Hands a node to the handler of its kind, and its child nodes to `_mcDoXMLNodes` when there is
	/// no handler or the handler answered 0. @return 0, or 0x10000000 when an object could not be made.
	virtual int _mcOnXML(tinyxml2::XMLNode* node, int depth, int flag);
	/// Calls `_mcOnXML` for every child node. @return as `_mcOnXML`.
	virtual int _mcDoXMLNodes(tinyxml2::XMLNode* node, int depth, int flag);
	/// Reads the attributes of an object just made (`managed::xmlAttribute` of managed_xml.h).
	/// @return non-zero: the nested elements are not read. Calls `_mcOnUpdateFromXML`, answers 0.
	virtual int _mcOnCreateFromXML(tinyxml2::XMLElement* element);
	/// The same for an object that was there. Answers 0.
	virtual int _mcOnUpdateFromXML(tinyxml2::XMLElement* element);

	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

	/// Whether the text is the name, the type ...: exact, case-sensitive; 1 or 0, 0 for null.
	int isname(const char* text) const;
	int istype(const char* text) const;
	int isctx(const char* text) const;
	int issubclass(const char* text) const;
	int issub2class(const char* text) const;
	/// Whether the text is the type or the base class.
	int isbaseclass(const char* text) const;

	/// 1 when any bit of `mask` is set.
	int _mcHasFlag(unsigned long mask) const;
	/// Clears, then sets. @return the new flags; 32 bits.
	unsigned long _mcModifyFlag(unsigned long set, unsigned long clear);
	unsigned long _mcOpenBranch(int on);
	int _mcIsBranchOpen() const;
	unsigned long _mcSelect(int on);
	int _mcIsSelected() const;

	/// A plain object below `parent` (may be null), to be deleted by the caller or by `_mcDestroy` of
	/// an ancestor. @return null without memory.
	static Cmc* _mcCreate(Cmc* parent, const char* name);
	/// Moves the object to the end of `parent`'s children; null makes it a root.
	/// @return 0; 0x10000000 when the parent is the object itself or below it (nothing changed), or
	/// without memory (the object is then a root).
	int _mcSetParent(Cmc* parent);
	Cmc* _mcGetParent() const { return mParent; }
	/// The object itself when it has no parent.
	Cmc* _mcGetRoot() const;
	/// Change the child list only; the child's parent stays what it is, so whoever deletes an attached
	/// child detaches it first. @return 1 on change; 0 for null, a child already there (attach) or not
	/// there (detach), the object itself or an ancestor, or without memory.
	int _mcAttach(Cmc* child);
	int _mcDetach(Cmc* child);
	/// Moves a child to `index` (0xFFFFFFFF: the last place); the others keep their order.
	/// @return 0; 0x10000000 when it is not a child or the index is outside the list.
	int _mcMoveChild(Cmc* child, unsigned long index);

	/// `_mcOnDestroy`, then destroys and deletes every child, then leaves the parent. The object
	/// itself stays, without parent and children. @return 0.
	int _mcDestroy();
	/// `_mcDestroy` of a child, and its deletion when `del` is non-zero. @return 0; 0x10000000 for
	/// null or an object that is not a child.
	int _mcDestroyChild(Cmc* child, int del);
	/// The same for every child, first to last; the list is empty afterwards. @return 0.
	int _mcDestroyChilds(int del);

	/// Null outside the list.
	Cmc* _mcGetChild(int index) const;
	int _mcGetChildCount() const { return mChildCount; }
	int _mcHasChilds() const { return mChildCount > 0; }
	/// Index lookups answer 0xFFFFFFFF for "not found".
	unsigned int _mcGetIndexChildByPtr(const Cmc* child) const;
	/// The first child of that name. `length` > 0: the name is the first `length` characters of `name`,
	/// and so it is for `alternative`, which is tried when no child has the first name.
	Cmc* _mcGetChildByName(const char* name, const char* alternative = nullptr, int length = 0) const;
	Cmc* _mcGetChildByNameAndType(
	    const char* name, const char* type, const char* alternative = nullptr, int length = 0) const;
	/// The `n`-th child (from 0) of that type.
	Cmc* _mcGetChildByType(const char* type, int n) const;
	int _mcGetChildCountByType(const char* type) const;
	/// The place of a child among the children of that type.
	unsigned int _mcGetChildIndexByType(const Cmc* child, const char* type) const;

	/// `up` 0: the first object of that type below this one, depth first, an object before its own
	/// children. `up` non-zero: the nearest ancestor of that type. Null when there is none.
	Cmc* _mcFindByType(const char* type, int up) const;
	Cmc* _mcFindByNameAndType(const char* name, const char* type, int up) const;
	/// The nearest ancestor whose type or base class that is.
	Cmc* _mcFindParentByBaseClass(const char* base) const;
	/// The object at the end of a path: child names and keywords with points between them, for
	/// example "Cam.Gain", "$root.Cam", "$parent.Gain", "$child[0].Gain".
	///
	/// - Keywords are `$root`, `$me`, `$parent` and `$child[<1 to 9 characters>]`. The first three may be
	///   shortened: `$r` and `$` are `$root`, `$p` is `$parent`; they are tried in this order.
	/// - A name is matched whole. Names with "." or "-" in them, or with "$" in front, have no path.
	/// - "Cam->Gain" is reserved for members: it logs "MEMBER (Gain)" and finds nothing.
	/// - Any other character that cannot belong to the name ends the path: "Cam[2]" finds `Cam`
	///   unless a child has the whole name "Cam[2]".
	Cmc* _mcFind(const char* path);

	/// Sends a message through the tree, an object before its children, the children with `depth` + 1.
	///
	/// Handlers of an object run when its depth is 0 or more, so -1 leaves out the object itself. The
	/// built-in messages 2 (clear the selected flag; `p`: a type or null) and 3 (report; `p`: an
	/// `eqorMC_REPORT`) act before `_mcOnDispatchMsg`. Handlers may change the tree and destroy objects,
	/// their own included: a child that was there when the message came to its parent, and is there when
	/// its turn comes, gets it once; one that joined meanwhile does not.
	/// @return 0; 0x10000000 when there was no memory for the levels below 16: those did not get it.
	int _mcDispatchMsg(unsigned long message, unsigned long a, unsigned long b, void* p, void* q, int depth);
	/// Clears the selected flag of this object and all below it; `type` null: of every type. @return 0.
	int _mcUnselectAll(const char* type);
	/// Calls `callback` for this object (depth 0) and all below it of that type (null: every type); its
	/// result is ignored. @return 0; 0x10000000 without a callback.
	int _mcReport(void* context, const char* type, int (*callback)(void* context, Cmc* object, int depth));

	/// @return a header with room for `capacity` items, to be freed with `_mcFreeSeqHdr`; null without memory.
	static eqorMC_SEQHDR* _mcAllocSeqHdr(int capacity);
	/// Frees a header of `_mcAllocSeqHdr` with its items; null does nothing.
	static void _mcFreeSeqHdr(eqorMC_SEQHDR* header);
	/// Empties a header for another fill: no items, depth 0, no filters, no callback; the room stays.
	static void _mcInitSeqHdr(eqorMC_SEQHDR* header);
	/// The next free item, counted as used; grows the array by 1,000. @return null without memory.
	static eqorMC_SEQITEM* _mcAllocItemFromSeqHdr(eqorMC_SEQHDR* header);
	/// Appends this object and all below it, as filters and callback of the header decide.
	/// @return the item count; 0 when the verdict on this object is 2 or 3 (with 3 it was added all
	/// the same); 0x10000000 for null or without memory, with the items found so far.
	int _mcfillseq(eqorMC_SEQHDR* header);

	/// Writes "[type] <name> : text" to the log, or "[type] : text" without a name. The text is cut
	/// to 4,095 characters. Any thread; no lock is held while the line is made, and delivered as
	/// `appmsg` delivers. Control characters of a name that came with XML text stand as "\n", "\x1B" ...
	void _mclog(const char* format, ...) const;
	/// The same with a prefix (log_levels.h): 1 "[BEGIN] ", 2 "[ END ] ", 3 "[ERROR] ", 4 "[WARNING] ",
	/// 5 "[OK] ".
	void _mclog(int level, const char* format, ...) const;
	/// One log line "name (type)" for this object and each below it, four blanks a level (at most 63 levels).
	void _mclogtree();

	/// Writes the object and all below it as XML text at the memory file's position (docs/formats/managed_xml.md).
	/// `depth`: tabs in front, 0 to 255.
	/// @return 0; 0x10000000 without memory file or memory, for a type that is no XML name, or for more
	/// than 96 levels, which could not be read back and which the log tells; the text is then incomplete.
	int _mcSaveToXML(CstMemFile* memfile, int depth);
	int _mcSaveChildsToXML(CstMemFile* memfile, int depth);
	/// Writes the children (not the object) into a file, replacing it. `flag` is reserved.
	/// The text is written beside the file and put in its place as one change.
	/// @return 0; 0x10000000 as `_mcSaveToXML`, or when the disk does not take the whole text: an old
	/// file is then untouched.
	int _mcSaveToXMLFile(const char* path, int flag);
	/// Reads XML text into this object: `flag` 0 creates every object of it; non-zero updates those
	/// found below this object by type and name, and creates the others.
	/// @return 0, also for a blank text; 0x10000000 when it cannot be read or is not well-formed
	/// (no object is made then), or when memory ran out on the way.
	int _mcLoadFromXMLMemFile(CstMemFile* memfile, int flag);
	int _mcLoadFromXMLFile(const char* path, int flag);

private:
	// Slots for operations to come, so that the tables of host classes keep their shape.
	virtual int _mcReserved1(void* p);
	virtual int _mcReserved2(void* p);
	virtual int _mcReserved3(void* p);
	virtual int _mcReserved4(void* p);

	friend class core::ManagedWalk;
	const char* storedName() const;
	void noteName(const char* newName);
	void* childBlock() const;
	int placeOf(const Cmc* child, int expected) const;
	int findPlace(const Cmc* child) const;
	bool lists(const Cmc* child) const;
	bool ownChildren(int places);
	bool insertChild(Cmc* child);
	void removeChildAt(int index);
	bool removeChild(Cmc* child);
	void settleParent();
	void unchain();
	void beListed(int place);
	void unlinkChildren(bool going);
	void forgetChildren();
	void leaveParent();
	core::ManagedLinks* links();
	bool isSelfOrAncestor(const Cmc* candidate) const;
	bool wouldContainItself(const Cmc* child) const;
	static void destroyBelow(core::ManagedWalk& walk, int del);
	bool coverNames();
	Cmc* childNamed(const char* name, std::size_t length, const char* type) const;
	Cmc* childNamedOr(const char* name, const char* alternative, int length, const char* type) const;
	void handleBuiltInMessage(unsigned long message, void* p, int depth);
	int fillSequence(eqorMC_SEQHDR* header, int* verdict);
	Cmc* findForUpdate(const char* name, const char* type) const;
	int onXML(tinyxml2::XMLNode* node, int depth, int flag);
	int doXMLNodes(tinyxml2::XMLNode* node, int depth, int flag);
	int createFromXML(tinyxml2::XMLElement* element, const char* name, int depth, int flag);
	int loadFromXMLText(char* text, std::size_t length, int flag);
	int writeXML(CstMemFile* memfile, int depth, int nesting);
	int writeChildrenXML(CstMemFile* memfile, int depth, int nesting);

	char* mName; // shared_block_internal.h
	Cmc* mParent;
	Cmc** mChildren; // managed_object_list.cpp; null without children
	std::int32_t mChildCount;
	std::uint32_t mFlags;
	core::WalkFrame* mWalks;    // the innermost walk that is inside of this object
	core::ManagedLinks* mLinks; // null as long as nothing needs it
	Cmc* mFirstLoose;           // objects that have this parent and are not listed by it, in a chain
	Cmc* mNextLoose;
	Cmc** mChainLink;       // what leads to this object in its parent's chain; null outside
	std::int32_t mFront;    // places at the start of the children's block that are left
	std::int32_t mRoom;     // places of the block
	std::int32_t mPlace;    // about where the parent's block has this object
	std::int32_t mBranches; // children listed here as their parent that have children
	bool mListed;           // whether mParent has this object among its children; a copy is not
	bool mHasAttached;      // whether others' children are or were in the list
	bool mHasCopiedList;    // whether the list came from another object
	bool mHasOwnNames;      // whether a child makes its name up itself
	std::uint64_t mBirth;   // counts objects; an address may be that of another one later
	std::uint64_t mReserved[2];
};

namespace managed {

/// The body of a class function: answers the commands 1 and 256 for `Object`, a class below `Cmc` with a
/// default constructor.
template <class Object>
int classFunction(const char* type, unsigned long command, void* out) {
	if (!out) return kQorFailure;
	if (command == Cmc::kClassCommandType) {
		*static_cast<const char**>(out) = type;
		return kQorSuccess;
	}
	if (command != Cmc::kClassCommandNew) return kQorFailure;
	auto* object = new (std::nothrow) Object;
	if (!object) return kQorFailure;
	*static_cast<Cmc**>(out) = object;
	return kQorSuccess;
}

} // namespace managed
