#pragma once

#include "../base/linear_array.h"
#include "../platform/export.h"
#include "dynamic_module.h"

/// The environment variable that names the folder above "Plug-Ins".
inline constexpr const char* kQorPlugInsVariable = "qorBin";

/// Modules in the order they were listed. The list owns them and only grows; what it hands out
/// stays valid until the list is destroyed, which unloads the libraries.
///
/// Paths are compared as texts, without regard to the case of ASCII letters, on both systems:
/// of two files whose names differ in case alone the first is listed. A list and its modules
/// belong to one thread, normally the one that starts the program.
class QOR_API CqorDynamicModuleList : public Cmc {
public:
	CqorDynamicModuleList();
	~CqorDynamicModuleList() override;
	CqorDynamicModuleList(const CqorDynamicModuleList&) = delete;
	CqorDynamicModuleList& operator=(const CqorDynamicModuleList&) = delete;

	/// Lists a module with that path; nothing is loaded.
	/// @return the module that already had the path; null when one was listed for it, which
	/// `GetByFilePath` gives. Null also for a path that `SetFilePath` refuses and without memory;
	/// the list is unchanged then, and the reason logged.
	CqorDynamicModule* AddByFilePath(const char* path);

	/// Lists the files with that extension (without the point) in a folder, by their full
	/// paths and in the order of their names; at most 1,024. Those already listed are left out, and
	/// so are paths of more than `kQorModulePathLength` characters, which is logged.
	/// @param recursive not 0: also from the folders below
	/// @return always 0; `GetCount` tells what was listed.
	int AddByFolder(const char* folder, const char* extension, int recursive);

	/// `AddByFolder` for the folder "Plug-Ins" below the one that the environment variable
	/// "qorBin" names, with or without a separator at its end.
	/// @return 0, also when the variable is missing, empty or longer than 4,096 characters.
	int AddByQORPlugInsFolder(const char* extension, int recursive);

	/// @return the first module with that path; null when there is none, and for null.
	CqorDynamicModule* GetByFilePath(const char* path) const;
	int GetCount() const;
	/// @return null outside the list.
	CqorDynamicModule* Get(int index) const;
	CqorDynamicModule* operator()(int index) const { return Get(index); }

	/// Loads every module, those already loaded anew. @return how many are loaded.
	int LoadAll();
	/// Unloads every loaded module and drops its information; all stay listed. One that is not
	/// loaded keeps its information.
	void DestroyAll();
	/// @return the first export of that name among the loaded modules, in list order; null
	/// when there is none.
	void* GetFunc(const char* name) const;

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

private:
	bool append(const char* path);

	CstmArray<CqorDynamicModule*> mModules;
};
