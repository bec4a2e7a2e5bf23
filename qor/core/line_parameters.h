#pragma once

#include "../platform/export.h"

#include <cstddef>
#include <cstdint>

/// What `Feed` is told in its last arguments.
inline constexpr int kQorLineRaw = 0;
inline constexpr int kQorLinePostProcess = 1; ///< the second argument
inline constexpr int kQorLineEscapes = 1;     ///< the third argument

/// One parameter of a line.
struct emcLPS_PAR {
	char* mText;          ///< in the set's line buffer, terminated
	std::int32_t mOffset; ///< of the parameter in the source text
};

/// Splits a line of parameters, by default at commas: `set,Gain,12` or `name=cam,gain=2`.
///
/// - Blanks (codes 1 to 32) in front of a parameter are skipped.
/// - Between double quotes a separator is an ordinary character; with escapes on, `\"` and `\\`
///   there do not end the quotes.
/// - An empty parameter counts (`a,,b` has three), except the one behind a last separator.
/// - Post-processing trims every parameter and takes off the quotes of those that start with one:
///   all their double quotes go, `\"` `\\` `\n` `\r` `\t` become the character meant, and a backslash
///   with another character goes with that character. The trimming also takes characters above
///   127 for blanks, which the skipping does not: texts from devices come padded with either.
///
/// Each `Feed` replaces the line; texts handed out before it are no longer valid. One thread at a time.
/// Texts are copied once and split in place, without an allocation a parameter.
class QOR_API CmcLineParSet {
public:
	CmcLineParSet();
	/// Feeds `text` with escapes on.
	CmcLineParSet(char separator, const char* text, int postProcessing);
	~CmcLineParSet();
	CmcLineParSet(const CmcLineParSet&) = delete;
	CmcLineParSet& operator=(const CmcLineParSet&) = delete;

	/// For the following lines; the current one stays as it was split.
	void SetSeparator(char separator) { mSeparator = separator; }

	/// Splits a line; `text` may be a parameter of the line before.
	/// @return the parameter count; 0x10000000 for null, for a text of 1 GiB or more, or without memory for
	/// the line; (int)0xFFFFFFFF without memory for the parameters. The set is empty after a failure.
	int Feed(const char* text, int postProcessing, int escapes);
	/// Forgets the line.
	void Reset();

	/// Copies the parameter, or `fallback` (null: the empty text) when there is no such index, with its
	/// terminator. `output` must have room for the whole fed line, or for `fallback`; the second form is
	/// for buffers of a known size: it cuts to `size` - 1 characters.
	/// @return `output`.
	char* GetPar(int index, char* output, const char* fallback) const;
	char* GetPar(int index, char* output, std::size_t size, const char* fallback) const;
	/// Decimal digits at the start of the parameter; 0 without any; limited to the range of `int`.
	int GetIntPar(int index, int fallback) const;
	double GetDoublePar(int index, double fallback) const;
	/// The first parameter equal to `name`; 0xFFFFFFFF when there is none.
	unsigned int GetParIdx(const char* name) const;
	/// The rest of the source line from a parameter on. @return null for a bad index or a source that
	/// is too short to be the line fed.
	const char* GetSrcText(int index, const char* source) const;

	/// The parameter `k` + 1 places behind the one equal to `name`: `par("set", 0)` of `set,Gain,12` is
	/// "Gain". Empty when there is none.
	const char* par(const char* name, int k) const;
	int parInt(const char* name, int k, int fallback) const;
	double parDouble(const char* name, int k, double fallback) const;
	/// Copies as `GetPar` does.
	char* parString(const char* name, int k, char* output, const char* fallback) const;
	char* parString(const char* name, int k, char* output, std::size_t size, const char* fallback) const;

	/// The text behind "=" of the first parameter `name=...`; the name is compared without regard to
	/// case. Quotes that stand behind the "=" stay. Null, or `fallback`, when there is none.
	const char* ePar(const char* name) const;
	const char* ePar(const char* name, const char* fallback) const;

	/// A parameter by index; empty when there is none.
	const char* operator()(int index) const;
	unsigned int operator()(const char* name) const { return GetParIdx(name); }
	/// The parameter at the cursor, and the one `offset` behind it; empty when there is none.
	const char* operator()() const;
	const char* operator[](int offset) const;
	/// Moves the cursor on. @return the new cursor.
	int operator++();
	/// Sets the cursor (negative: 0). @return the parameter there.
	const char* operator=(int index);
	/// The parameter count.
	operator int() const { return mCount; }
	/// 1 when the cursor is behind the last parameter.
	int eof() const { return mCursor >= mCount; }
	void idxReset() { mCursor = 0; }

private:
	int split(std::size_t length, bool postProcessing, bool escapes);
	bool append(char* start, char* end, bool postProcessing);
	const char* at(long long index) const;
	const char* behind(const char* name, int k) const;

	char* mLine = nullptr;
	char* mScratch = nullptr;       // as large as mLine; a parameter while its quotes are taken off
	std::int32_t mBufferLength = 0; // the longest line the buffers hold
	emcLPS_PAR* mParameters = nullptr;
	std::int32_t mCapacity = 0;
	std::int32_t mCount = 0;
	char mSeparator = ',';
	std::int32_t mCursor = 0;
};

/// The lean splitter. It differs from `CmcLineParSet` where existing lines rely on it:
///
/// - No blanks are skipped; post-processing trims them.
/// - Escapes between quotes are always honoured.
/// - A line that ends with a separator has its last parameter twice: `a,b,` is a, b, b.
/// - Its buffers are only as large as the longest line.
class QOR_API CstqLineParSet {
public:
	CstqLineParSet();
	~CstqLineParSet();
	CstqLineParSet(const CstqLineParSet&) = delete;
	CstqLineParSet& operator=(const CstqLineParSet&) = delete;

	void SetSeparator(char separator) { mSeparator = separator; }
	/// As `CmcLineParSet::Feed`.
	int Feed(const char* text, int postProcessing);
	void Reset();
	int GetCount() const { return mCount; }

	/// As those of `CmcLineParSet`.
	char* GetPar(int index, char* output, const char* fallback) const;
	char* GetPar(int index, char* output, std::size_t size, const char* fallback) const;
	char* GetCHARPar(int index, char* output, const char* fallback) const;
	char* GetCHARPar(int index, char* output, std::size_t size, const char* fallback) const;
	int GetIntPar(int index, int fallback) const;
	double GetDoublePar(int index, double fallback) const;

private:
	int split(std::size_t length, bool postProcessing);
	bool append(char* start, char* end, bool postProcessing);
	bool append(char* text);
	const char* at(int index) const;

	char* mLine = nullptr;
	char* mScratch = nullptr;
	std::int32_t mBufferLength = 0;
	char** mParameters = nullptr;
	std::int32_t mCapacity = 0;
	std::int32_t mCount = 0;
	char mSeparator = ',';
};
