#pragma once

#include "../platform/export.h"
#include "log_levels.h"

#include <cstdarg>
#include <cstdint>

class CstMemFile;
class qor;

namespace tinyxml2 {
class XMLNode;
class XMLElement;
class XMLText;
} // namespace tinyxml2

/// Characters of an object's texts, the terminator included.
inline constexpr int kQorTextSize = 32;
/// Levels of a tree that can be saved and loaded, the root included.
inline constexpr int kQorMaximumTreeDepth = 512;
/// Levels of a tree that a message reaches: each costs stack.
inline constexpr int kQorMaximumDispatchDepth = 2048;

/// One object of a saved tree; its class data follows. Little-endian.
struct eqorTREE_NODE {
	char mID[kQorTextSize];
	char mBaseContext[kQorTextSize];
	char mType[kQorTextSize];
	char mSubType[kQorTextSize];
	int32_t mChildCount;
	uint32_t mValues[4];
	uint32_t mDataLength; // bytes of class data behind the record
};
static_assert(sizeof(eqorTREE_NODE) == 152);

/// Makes the object of a node while a tree is loaded, or null to leave it out together with
/// everything below it. The record's texts are terminated. The new object belongs to the
/// host; the loader fills in its texts and values and makes it a child of `parent`.
using qorCreateFunction = qor* (*)(const eqorTREE_NODE* node, qor* parent, void* context);

/// The base of the object-tree model: identity, parent and children, dispatch, log.
///
/// Objects belong to whoever made them; parents do not own their children. As there is no
/// virtual destructor, an object is destroyed as what it is. Destroying one takes it out of
/// every child list and clears the parent of its children, so no link is left dangling.
///
/// A tree belongs to one thread; only `log` may be called from any.
class QOR_API qor {
public:
	qor();
	~qor();
	qor(const qor&) = delete;
	qor& operator=(const qor&) = delete;

	/// Each formats its arguments into a text of at most 31 characters (longer ones are
	/// cut); a null format empties the text. The base context starts as "qor".
	void setid(const char* format, ...);
	void setbasecontext(const char* format, ...);
	void settype(const char* format, ...);
	void setsubtype(const char* format, ...);

	const char* getid() const { return mID; }
	const char* getbasecontext() const { return mBaseContext; }
	const char* gettype() const { return mType; }
	const char* getsubtype() const { return mSubType; }

	/// Exact comparison. @return 1 or 0 (also for null).
	int isid(const char* text) const;
	int isbasecontext(const char* text) const;
	int istype(const char* text) const;
	int issubtype(const char* text) const;

	/// The next value of a number sequence shared by all objects of the process: 0, 1, 2 ...
	static uint32_t qorNextIDNumber();
	/// Lets the sequence go on at `next` unless it is there already, so that identifiers made
	/// after a tree was loaded do not repeat loaded ones.
	static void qorReserveIDNumbers(uint32_t next);
	/// Makes the identifier "<prefix>_<number>" from the sequence; a prefix too long for both
	/// is cut, never the number. @return the number.
	uint32_t setidsequence(const char* prefix);

	/// Leaves the old parent's child list and goes to the end of the new one's (null: none).
	/// @return 1; 0, changing nothing, without memory or when `parent` is this object or
	/// stands below it.
	int setparent(qor* parent);
	/// `attach` appends to the child list and `detach` takes off; neither touches the child's
	/// parent. @return 1; 0 when nothing changed: null, already (or not) in the list, no
	/// memory, or a child that would stand below itself.
	int attach(qor* child);
	int detach(qor* child);

	qor* getparent() const { return mParent; }
	int32_t getchildcount() const { return mChildCount; }
	/// @return null for an index out of range.
	qor* getchild(int32_t index) const;

	/// Writes a log line "[type:subtype] > text" ("[type] > text" without a subtype), texts
	/// padded to 20 columns. Level (log_levels.h) 1 begin, 2 end, 3 error, 4 warning, any other none.
	/// No lock is held while the line is made; it is delivered as `appmsg` delivers.
	///
	/// The finished line is formatted once more without arguments: "%%" in type, subtype or
	/// formatted text becomes "%". Any other "%" stays as it is.
	void log(int level, const char* format, ...) const;
	void log(const char* format, ...) const;

	// The slots of the virtual operations are fixed: derived classes of other modules rely
	// on their order.

	/// Asked before the children get a message; non-zero stops the dispatch here.
	virtual int _OnPreDispatchMessage(uint32_t message, void* first, void* second);
	virtual int _OnPostDispatchMessage(uint32_t message, void* first, void* second);
	/// Passes a message to the object and down its children, in order.
	/// Children may leave, join and be destroyed meanwhile: those that stay get it once, those that
	/// join do not.
	/// @return 0; 0x10000000 when `_OnPreDispatchMessage` stopped it, or when the tree has more than
	/// `kQorMaximumDispatchDepth` levels: those below did not get it, and the log says so. What the
	/// children answer else does not count.
	virtual int _DispatchMessage(uint32_t message, void* first, void* second);
	/// The same over a copy of this object's child list, so children may detach themselves
	/// meanwhile: each of the copy is still called, except those destroyed by then on this
	/// thread. The children get it by `_DispatchMessage`.
	/// @return as `_DispatchMessage`; also 0x10000000 without memory for the copy.
	virtual int _DispatchMessageSafe(uint32_t message, void* first, void* second);
	/// Free for derived classes; nothing of this class calls it.
	virtual int qorCustomCB(uint32_t code, void* first, void* second);
	/// Writes the class data of the object at the file's position. @return 0; anything else
	/// fails the save.
	virtual int qorOnSaveToBuffer(CstMemFile* file);
	/// Reads the class data back. `file` holds these `length` bytes and nothing else, at
	/// position 0, and is gone after the call. @return 0; anything else fails the load.
	virtual int qorOnLoadFromBuffer(CstMemFile* file, uint32_t length);
	/// Handlers of an XML walk; non-zero: handled, do not visit what stands below.
	virtual int qorOnXMLText(tinyxml2::XMLText* text, int depth, int flag);
	virtual int qorOnXMLElement(tinyxml2::XMLElement* element, int depth, int flag);
	/// Gives elements and texts to their handlers, and visits what stands below unless that
	/// was handled. @return what the handler answered; 0 for nodes of other kinds.
	virtual int qorOnXML(tinyxml2::XMLNode* node, int depth, int flag);
	/// Calls `qorOnXML` for every node directly below. @return 0.
	virtual int qorDoXMLNodes(tinyxml2::XMLNode* node, int depth, int flag);

	/// Appends this object and everything below it, behind a header with `tag` and user data
	/// (null: zeros), at the file's position.
	///
	/// When the file cannot grow for the user data, the objects are still written, the header
	/// then says there is none, and the result stays 0; the loss is logged.
	/// @return 0; 0x10000000 without a file or for more than `kQorMaximumTreeDepth` levels
	/// (nothing written), or when the file cannot grow for the objects or a class fails to
	/// write (position back at the start).
	int qorSaveTreeToBuffer(CstMemFile* file, uint32_t tag, uint32_t userLength, const void* userData);
	/// The records of this object and everything below it, without the header.
	int qorSaveToBuffer(CstMemFile* file);

	/// Fills this object from the tree at the file's position and makes its children through
	/// `create` (null: children are left out). `tag` may be null.
	///
	/// The whole tree is checked before anything is made. @return 0, the position behind the
	/// tree; 0x10000000 (position unchanged) without a file, for anything that is not a whole
	/// tree, or when a class refuses its data or a child cannot be added: objects made until
	/// then are children of this one.
	int qorLoadTreeFromBuffer(CstMemFile* file, qorCreateFunction create, void* context, uint32_t* tag);
	/// The same for records without the header.
	int qorLoadFromBuffer(CstMemFile* file, qorCreateFunction create, void* context);
	/// The user data of the tree at the file's position, which stays where it is.
	/// @return a pointer into the file, valid until it grows or closes; null without user data
	/// or when there is no tree. `length` and `tag` may be null; they are 0 without a tree.
	static const void* qorGetUserSavePtr(CstMemFile* file, uint32_t* length, uint32_t* tag);

protected:
	char mID[kQorTextSize];
	char mBaseContext[kQorTextSize];
	char mType[kQorTextSize];
	char mSubType[kQorTextSize];
	qor* mParent;
	qor** mChildren;
	int32_t mChildCount;
	uint32_t mValues[4]; // free for the class; saved and loaded as they are

	/// For classes that keep an index of their children: moves whenever a child comes, goes, changes
	/// its place or its type, or says `noteChange`.
	uint32_t childChanges() const { return mChildChanges; }
	/// Tells every object that has this one among its children that something they may have noted
	/// about it is no longer so.
	void noteChange();
	/// Whether the object is among this one's children: looks through the shorter of the two lists.
	bool hasChild(const qor* child) const;
	/// Whether exactly one object has this one among its children.
	bool hasOneHolder() const { return mHolderCount == 1; }

private:
	// Slots for operations to come, so that the tables of host classes keep their shape.
	virtual int qorReserved1(void* p);
	virtual int qorReserved2(void* p);
	virtual int qorReserved3(void* p);
	virtual int qorReserved4(void* p);

	bool standsBelow(const qor* ancestor) const;
	bool addChild(qor* child);
	void removeChild(qor* child);
	void linkParent(qor* parent);
	void unlinkParent();
	bool canBeSaved() const;
	bool standsWithin(int levels) const;
	void writeLine(int level, const char* format, va_list arguments) const;
	const char* logged(const char* text, char (&visible)[4 * kQorTextSize]) const;
	void fillNode(eqorTREE_NODE* node) const;
	void takeNode(const eqorTREE_NODE& node);
	bool saveNodes(CstMemFile* file);
	bool loadNodes(CstMemFile* file, qorCreateFunction create, void* context, int level);
	bool loadData(CstMemFile* file, uint32_t length);

	// Links backwards, so that destruction finds every pointer to this object.
	qor** mHolders; // objects whose child list has this one
	int32_t mHolderCount;
	uint32_t mChildChanges; // see childChanges
	qor* mFirstDependent;   // objects whose parent is this one, in a chain
	qor* mNextDependent;
	qor* mPreviousDependent;
	mutable uint64_t mSearch; // of the search for ancestors that came by last, as the next two
	mutable const qor* mPending;
	mutable int32_t mNextHolder;
	bool mLoaded; // whether the texts came from a buffer
	uint64_t mReserved[2];
};
