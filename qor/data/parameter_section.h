#pragma once

#include "../platform/export.h"

#include <cstddef>
#include <cstdint>

class CqorBXML;
class CqorBXML_Section;

namespace parameter_file {
class Arena;
struct PathName;
} // namespace parameter_file

/// One parameter of an opening tag. Both texts are terminated and begin with a character above
/// code 32; they live as long as the section. A value that was quoted keeps its quotes.
struct eqorBXML_VAR {
	char* mName;
	char* mValue;
};

/// What a walk calls for every section. Its result is ignored. See `CqorBXML::CallBackTree`.
using CqorBXML_SectionCallBack = int (*)(CqorBXML* document, CqorBXML_Section* section, int depth);

/// One section of a parameter file: its type, its parameters and the sections inside it.
///
/// **Paths.** A path is a sequence of names with "." between them. All but the last choose sections
/// inside the section before by type, the last names the section or variable wanted. Upper and
/// lower case (of the letters A to Z) are the same in paths and in everything else that looks up
/// by type or name; `IsType` and `IsID` alone are exact. A null or empty path and a negative index
/// find nothing.
///
/// **Cost of paths.** On each level a lookup compares the types of the first 16 inner sections in order. The
/// first one that has to look behind them sorts all inner sections by type, 8 to 16 bytes each, and from then on
/// the sections of any type and index are found in a few steps. Sections added later are sorted in; a
/// `Destroy` or `ProcessHeader` of an inner section lets the next such lookup sort again. Without memory to sort
/// in, and while another thread sorts in the same tree, the sections are compared one after the other.
///
/// Two things do take time in proportion: the variables of a section are compared in order, some nanoseconds
/// for each one passed, and `FindVar` visits all sections of a type in front of the first that has the
/// variable. `foundIn` and `FindSection` give the section that further short paths can start from. To
/// visit everything, read `mChildren` and `mVars`.
///
/// **Ownership.** A section that was not made by the parser is the root of its own tree until it is added to
/// another with `AddSection`. A root owns all memory of its tree; sections that the parser made live inside it and
/// cannot be added or deleted. Texts and arrays belong to the sections and are never freed by a host. Memory comes
/// back when the root is destroyed, not when something in the tree is replaced.
///
/// **Threads.** One thread at a time, or any number of threads that only look up.
class QOR_API CqorBXML_Section {
public:
	CqorBXML_Section();
	~CqorBXML_Section();
	CqorBXML_Section(const CqorBXML_Section&) = delete;
	CqorBXML_Section& operator=(const CqorBXML_Section&) = delete;

	/// On the library's heap, whichever module calls: an added section is deleted by the library.
	/// Null without memory.
	static void* operator new(std::size_t bytes) noexcept;
	static void operator delete(void* section) noexcept;

	CqorBXML* mDocument = nullptr;          ///< null outside a document
	char mID[256];                          ///< the parameter "ID", cut to 255 characters; empty without one
	char mType[32];                         ///< the name of the tag, cut to 31 characters; not to be written by hosts
	char* mHeaderBuff = nullptr;            ///< the text between "<" and ">"; null without an opening tag
	char* mContent = nullptr;               ///< in the text that was parsed, not terminated; null without content
	int mContentLength = 0;                 ///< up to the closing tag; 0 while parsing has not come that far
	CqorBXML_Section* mParent = nullptr;    ///< null for a root
	int mDepth = 0;                         ///< 0 for a root
	CqorBXML_Section** mChildren = nullptr; ///< in the order of the text; moves when a section is added
	int mChildCount = 0;
	eqorBXML_VAR** mVars = nullptr; ///< in the order of the text; moves when a variable is added
	int mVarCount = 0;

	/// Reads an opening tag: type, header text and variables, which are added to those there are.
	/// @param text begins with the "<" of the tag, terminated
	/// @return the ">" of the tag, as writable as `text` is; null without "<" or ">", for the
	///         tag "<>" and without memory.
	char* ProcessHeader(const char* text);

	/// Reads the sections in a text up to the closing tag of this section or the end of the text.
	/// They are added to those there are. Nesting is limited by memory alone. `mContent` will point
	/// into `text`, which must last as long as it is used, and is as writable as `text` is.
	/// @param text behind the opening tag, terminated
	/// @return the place behind the closing tag, or the terminator; null for null, for a text of
	///         2 GiB or more, at a tag that `ProcessHeader` refuses and without memory. The
	///         sections read before then are there.
	char* ProcessContent(const char* text);

	/// Adds the variables of a text such as `ID="left" fps=100 mirror`, and sets the ID. One
	/// that there is no memory for is left out.
	/// @return 0; 0x10000000 for null.
	int GetParametersFromString(const char* text);

	/// Appends a section that was made with `new` and belongs to no other, with all it holds;
	/// its document and the depths in it are set. From then on the tree owns it.
	/// @return 0; 0x10000000, with the owner unchanged, for null, a section that has a parent, is
	///         the root of a document or contains this one, and without memory.
	int AddSection(CqorBXML_Section* section);
	/// Appends copies of the texts without their leading characters up to code 32. The ID is
	/// not touched.
	/// @param value null: empty
	/// @return null for a null name or without memory.
	eqorBXML_VAR* AddVar(const char* name, const char* value);

	/// The sections directly inside this one.
	int FindSectionCountByType(const char* type) const;
	CqorBXML_Section* GetSectionByType(const char* type, int index = 0) const;

	/// Follows the first section of each name. @param index counts the sections of the last name, from 0.
	CqorBXML_Section* FindSection(const char* path, int index = 0) const;
	/// Tries all sections of each name, in order, until one has the variable.
	/// @param index counts the variables of that name in one section, from 0
	/// @param foundIn where to store the section that has it, null when there is none; may be null
	eqorBXML_VAR* FindVar(const char* path, int index = 0, CqorBXML_Section** foundIn = nullptr) const;

	/// The digits and signs of the value, read as one decimal number: "12.7" is 127, "3 m" is 3. Limited to the range
	/// of int. @return `defaultValue` when there is no such variable.
	int GetIntVar(const char* path, int defaultValue, int index = 0, CqorBXML_Section** foundIn = nullptr) const;
	/// The digits, signs and points of the value, read as one decimal number: "2,5" is 25. The
	/// decimal point is "." in every locale.
	double GetDoubleVar(
	    const char* path, double defaultValue, int index = 0, CqorBXML_Section** foundIn = nullptr) const;
	/// Copies the value; of one that begins with a quote all but its first and last characters.
	/// @param out must have room for the value (`std::strlen(var->mValue) + 1` is enough) and for the
	///        default; null: nothing is copied. For values of unknown length take `CopyStringVar`.
	/// @param defaultValue copied when there is no such variable; null: empty
	/// @return 0; 0x10000000 when there is no such variable.
	int GetStringVar(const char* path, char* out, const char* defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;
	/// As `GetStringVar`.
	int GetStringVar_Char(const char* path, char* out, const char* defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;
	/// As `GetStringVar`, cut to `size` - 1 characters. @return 0x10000000 also when it was cut.
	int CopyStringVar(const char* path, char* out, std::size_t size, const char* defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;

	/// Set all `count` elements to the default and then as many as the value has items. Items have
	/// "," between them, outside double quotes; of a value that begins with a quote the first and
	/// last characters do not count. There is one item more than there are such commas: "1,2," has three, and an
	/// empty value has one. An item is the number at its start, behind white space (codes 9 to 13 and 32),
	/// and 0 without one, so also when it is empty; nothing is left out as by `GetIntVar`. The real numbers
	/// may be hexadecimal: "0x1p3" is 8.
	/// @param out `count` elements; null, and a count below 1: nothing is written
	/// @return 0; 0x10000000 when there is no such variable.
	int GetIntArray(const char* path, int* out, int count, int defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;
	int GetFloatArray(const char* path, float* out, int count, float defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;
	int GetDoubleArray(const char* path, double* out, int count, double defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;

	/// Exact. @return 1 when equal, else 0.
	int IsType(const char* type) const;
	int IsID(const char* id) const;

	/// Empties the section: no type, ID, header, content, variables or inner sections. It stays where it is in
	/// its tree. A section that the parser made leaves its memory to the root until that is destroyed.
	void Destroy();

	/// Takes the parser's reports and drops them. Whoever looks into a file that does not parse as
	/// expected can route them to a log here; nothing else depends on them.
	template <class... Values>
	void logmsg(const char*, const Values&...) const {}

private:
	friend class CqorBXML;
	friend class parameter_file::Arena;

	CqorBXML_Section* makeChild();
	bool appendChild(CqorBXML_Section* child);
	bool readHeader(const char* tag, const char* close);
	const char* readType(const char* text);
	void readParameters(const char* text, std::size_t length);
	char* readParameter(char* text);
	void setID(const char* value);
	const char* behindClosingTag(const char* tag, const char* end) const;
	void endAtTextEnd(CqorBXML_Section* last, const char* end);
	eqorBXML_VAR* appendVar(char* name, char* value);
	parameter_file::Arena* arena();
	void typeChanges();
	int walk(CqorBXML* document, int depth, CqorBXML_SectionCallBack callback);
	bool contains(const CqorBXML_Section* section) const;
	CqorBXML_Section* nextBelow(const CqorBXML_Section* top);
	struct TypeOrder;
	struct Lookup;
	const Lookup* sortChildren() const;
	bool sortChildrenFrom(int sorted) const;
	CqorBXML_Section* childOfType(const parameter_file::PathName& type, int index) const;
	CqorBXML_Section* childOfTypeFrom(int position, const parameter_file::PathName& type) const;
	eqorBXML_VAR* varOfName(const parameter_file::PathName& name, int index) const;

	// Documents hold a section in the middle of their fields, so it keeps its size: what a tree needs goes into
	// its arena, and what a section needs into its record there.
	std::int32_t mIndex = 0;                 // place among the parent's children
	parameter_file::Arena* mArena = nullptr; // of the root that owns the memory; null until something is needed
	mutable Lookup* mLookup = nullptr;       // in the arena; null until a lookup needs it
};
