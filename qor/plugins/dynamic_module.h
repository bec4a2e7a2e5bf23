#pragma once

#include "../core/managed_object.h"
#include "../platform/export.h"
#include "../platform/types.h"

#include <cstddef>
#include <cstdint>

class CstFile;

/// The longest path of a module, in characters.
inline constexpr int kQorModulePathLength = 259;

/// Characters of a product version, terminator included; a longer one is cut.
inline constexpr int kQorProductVersionSize = 256;

/// The entry function of a module, exported with C linkage as "qorDMFUNC". What the arguments
/// mean is agreed between a family of modules and its host. `unsigned long` has the width of
/// the platform's C compiler: 32 bits on Windows, 64 on Linux.
using qorDM_Func = int (*)(unsigned long a, unsigned long b, unsigned long c, void* p1, void* p2);

/// What `RetrieveDMInfo` found in a module's file (docs/formats/module_record.md). The record stays
/// as it is.
struct eqorDM_INFO {
	char16_t mText[512];   ///< UTF-16; ends at the first zero, or with the block
	uint32_t mExtraLength; ///< bytes; 0: none
	uint32_t mExtraOffset; ///< where they stand in the file
	unsigned char* mExtra; ///< a copy, followed by 4,096 zero bytes; null when there are none
};
static_assert(sizeof(eqorDM_INFO) == 1040 && offsetof(eqorDM_INFO, mExtraLength) == 1024);
static_assert(offsetof(eqorDM_INFO, mExtra) == 1032);

/// One loadable library: its file, its exports, the information embedded in the file and the
/// file's product version.
///
/// Failures of `RetrieveDMInfo` are logged on the object as errors; all others, and a file
/// without a record, are told by the result alone. An object belongs to one thread at a time.
class QOR_API CqorDynamicModule : public Cmc {
public:
	CqorDynamicModule();
	~CqorDynamicModule() override;
	CqorDynamicModule(const CqorDynamicModule&) = delete;
	CqorDynamicModule& operator=(const CqorDynamicModule&) = delete;

	/// Copies the path. What is loaded stays loaded. A relative path means the file that it names
	/// now: all operations go to that one file, also when the current folder changes.
	/// @return 0; 0x10000000, with the old path still in place, without memory, for null or more
	/// than `kQorModulePathLength` characters: a cut path would name another file.
	int SetFilePath(const char* path);
	/// As it was given.
	const char* GetFilePath() const;

	/// Drops the information and unloads the library, then loads the one at the path with all
	/// it depends on, on Windows from its own folder, the program's and the system's. Names are not
	/// looked for anywhere else. A library without entry function is loaded all the same.
	/// @return 0; 0x10000000 with nothing loaded and no information.
	int Load();
	bool IsLoaded() const;
	/// @return the library's own export of that name; null when there is none, nothing is
	/// loaded, or for null.
	void* GetFunc(const char* name) const;
	/// Calls the entry function. @return its answer; 0x10000000 when there is none.
	int Func(unsigned long a, unsigned long b, unsigned long c, void* p1, void* p2);

	/// Replaces the information by what the file holds; the module need not be loaded. Files
	/// up to 33,554,432 bytes are read.
	/// @return 0; 0x10000000, without information, when there is no record or no such file.
	int RetrieveDMInfo();
	/// Null without information; valid until the next `RetrieveDMInfo`, `Load` or `Destroy`.
	const eqorDM_INFO* GetInformation() const;

	/// What the first tag of its kind in the information text says: CS(Unicode), PL(x64),
	/// CFG(Debug), in any case of letters. @return 1 or 0; 0 without information.
	int IsUnicode() const;
	int Is64() const;
	int IsDebug() const;

	/// Writes the product version of the file: on Windows that of its version resource; on
	/// Linux the numbers behind ".so." in the name of the file that the path leads to
	/// ("libname.so" -> "libname.so.1.2.3": "1.2.3").
	///
	/// For a file without version information `out` receives the result of the latest call in
	/// this process for a file that has some (empty before). Callers that care serialise
	/// their calls; without that a text is still whole, but may be another file's.
	/// @param out room for `kQorProductVersionSize` characters
	/// @return 0; 0x10000000, `out` untouched, for null or when the file does not exist.
	int GetProductVersionString(char* out) const;
	/// The same for a buffer of `size` characters; a longer version is cut. Size 0 is refused.
	int GetProductVersionString(char* out, size_t size) const;

	/// Drops the information and unloads the library; the path stays.
	void Destroy();

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

private:
	friend class CqorDynamicModuleList;
	struct File;

	/// Of a path in lower case: tells nearly all paths apart by one word.
	static uint32_t pathHash(const char* path);
	/// Whether that is the module's path, but for the case of ASCII letters.
	bool hasPath(const char* path, uint32_t hash) const;
	const char* file() const;
	int readInformation(unsigned char* window);
	int readRecord(CstFile& file, size_t offset, size_t fileSize);
	int cannotRead(size_t fileSize) const;
	void freeInformation();

	platform::ModuleHandle mModule = nullptr;
	char mPath[264] = {};
	eqorDM_INFO* mInformation = nullptr; // null when there is none
	qorDM_Func mFunction = nullptr;      // null when the library has none
	File* mFile = nullptr;               // what the path named when it was set; null before
};
