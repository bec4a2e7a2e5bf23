#pragma once

#include "parameter_section.h"

class CstFile;

/// A parameter file: a text of nested sections with parameters, read and never written.
///
/// The text looks like XML and is not: there are no entities, comments or declarations, quotes stay
/// in the values, and a parameter may stand without a value. `docs/parameter_files.md` has the
/// rules. A zero byte ends the text for the parser; `mTextLength` counts what is behind it, too.
///
/// A text that cannot be parsed to its end gives the sections in front of the fault, and the content
/// length of the root is 0. It is 0 for one other text as well, which is correct: one that begins with "</>".
/// Memory is the only limit of depth and number; a section takes about 450 bytes and twice its opening tag, and
/// a variable about 50 bytes more.
///
/// What a path costs is said at `CqorBXML_Section`. One thread at a time, or any number of threads
/// that only look up.
class QOR_API CqorBXML {
public:
	CqorBXML();
	~CqorBXML();
	CqorBXML(const CqorBXML&) = delete;
	CqorBXML& operator=(const CqorBXML&) = delete;

	char* mText = nullptr;                        ///< the whole text, terminated; null when empty
	int mTextLength = 0;                          ///< characters, after conversion
	CqorBXML_Section mRoot;                       ///< without type and parameters; holds the sections of the file
	CqorBXML_SectionCallBack mCallBack = nullptr; ///< for `Open` and `OpenFromBuffer` without one

	/// Reads a file, parses it and calls `callback` for every section, as `CallBackTree` does.
	///
	/// Twelve letters in UTF-8 (A, E, I, O and U with an acute accent and N with a tilde, in both
	/// cases) become their single Latin-1 byte. Before any other byte, and at the end, the byte
	/// 195 is dropped; all else stays as it is.
	/// @return 0, also when parsing ended early or the walk was stopped; 0x10000000, with an
	///         empty document, when the file cannot be opened or read to its end, is empty or is
	///         larger than 2147483646 bytes, and without memory.
	int Open(const char* path, CqorBXML_SectionCallBack callback = nullptr);
	/// As `Open`, for a copy of `length` bytes, without conversion. `text` may be part of this document's own.
	/// @return 0; 0x10000000, with an empty document, for a null text that is not of length 0, a
	///         negative length and without memory.
	int OpenFromBuffer(const void* text, int length, CqorBXML_SectionCallBack callback = nullptr);
	/// Destroys all sections and the text.
	void Close();

	/// Calls `callback` for every section but the root, in the order of the opening tags; the sections
	/// in the root have depth 0. The results of the callbacks do not stop the walk.
	///
	/// A callback may do anything on its thread: look up, walk, add sections and variables, destroy any of them,
	/// close, reopen and destroy the document. Sections added behind the place of the walk are visited. The walk
	/// stops when a callback destroys a section that the visited one lies in, at any depth, and with it when it
	/// closes, reopens or destroys the document; nothing behind the callback is touched then. Nothing else stops
	/// it; the visited section itself and sections beside it may be destroyed. An exception that leaves a
	/// callback ends the process with a last log line.
	/// @return 0, also without a callback; 0x10000000 when the walk was stopped.
	int CallBackTree(CqorBXML_SectionCallBack callback);
	/// The same for all sections below `section`, those directly in it with the given depth.
	/// @param document handed to the callback
	/// @return as `CallBackTree`; 0x10000000 without a section.
	int CallBackSection(CqorBXML* document, CqorBXML_Section* section, int depth, CqorBXML_SectionCallBack callback);

	/// The operations of `CqorBXML_Section`, from the root.
	CqorBXML_Section* FindSection(const char* path, int index = 0) const;
	eqorBXML_VAR* FindVar(const char* path, int index = 0, CqorBXML_Section** foundIn = nullptr) const;
	int GetIntVar(const char* path, int defaultValue, int index = 0, CqorBXML_Section** foundIn = nullptr) const;
	double GetDoubleVar(
	    const char* path, double defaultValue, int index = 0, CqorBXML_Section** foundIn = nullptr) const;
	int GetStringVar(const char* path, char* out, const char* defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;
	int GetStringVar_Char(const char* path, char* out, const char* defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;
	int CopyStringVar(const char* path, char* out, std::size_t size, const char* defaultValue, int index = 0,
	    CqorBXML_Section** foundIn = nullptr) const;

private:
	int readFile(CstFile& file);
	int parseAndWalk(CqorBXML_SectionCallBack callback);
};
