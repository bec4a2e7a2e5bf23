#include "dynamic_module_list.h"

#include "../base/status.h"
#include "../core/class_manager.h"
#include "../core/visible_text_internal.h"
#include "../platform/folder.h"
#include "../platform/machine.h"

#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

namespace {

constexpr const char* kType = "CqorDynamicModuleList";
constexpr int kLogError = 3;
constexpr size_t kMaximumFiles = 1024;    // of one folder
constexpr size_t kMaximumVariable = 4096; // characters
constexpr const char* kPlugInsFolder = "Plug-Ins";

[[maybe_unused]] const bool kRegistered = [] {
	auto* manager = qorMCGetManager();
	return manager && manager->classAdd(kType, CqorDynamicModuleList::qorMC__CLASSFUNC, "Cmc");
}();

} // namespace

CqorDynamicModuleList::CqorDynamicModuleList() = default;

CqorDynamicModuleList::~CqorDynamicModuleList() {
	for (auto* module : mModules) delete module;
}

CqorDynamicModule* CqorDynamicModuleList::AddByFilePath(const char* path) {
	// Null for a new module: so callers that want it ask GetByFilePath, and learn here whether it was new.
	auto* listed = GetByFilePath(path);
	if (!listed) append(path);
	return listed;
}

bool CqorDynamicModuleList::append(const char* path) {
	auto* module = new (std::nothrow) CqorDynamicModule;
	const bool accepted = module && module->SetFilePath(path) == kQorSuccess;
	if (accepted && mModules.Add(module)) return true;
	if (module && !accepted)
		_mclog(kLogError, "No path, one of more than %d characters, or no memory (%s)", kQorModulePathLength,
		    core::VisibleText(path).get());
	else
		_mclog(kLogError, "No memory for a module (%s)", core::VisibleText(path).get());
	delete module;
	return false;
}

int CqorDynamicModuleList::AddByFolder(const char* folder, const char* extension, int recursive) {
	try {
		std::vector<platform::FoundFile> files;
		if (!platform::listFiles(folder, extension, recursive != 0, kMaximumFiles, &files))
			_mclog(kLogError, "AddByFolder(%s) - Cannot read (err=%d)", folder ? folder : "",
			    static_cast<int>(platform::lastError()));
		for (const auto& file : files) {
			const std::string path = platform::fullPath(file.path.c_str());
			if (path.empty() || path.size() > kQorModulePathLength)
				_mclog(kLogError, "AddByFolder - No full path of at most %d characters (%s)", kQorModulePathLength,
				    core::VisibleText(file.path.c_str()).get());
			else if (!GetByFilePath(path.c_str()))
				append(path.c_str());
		}
	} catch (const std::exception&) {
		_mclog(kLogError, "AddByFolder - No memory");
	}
	return kQorSuccess;
}

int CqorDynamicModuleList::AddByQORPlugInsFolder(const char* extension, int recursive) {
	try {
		std::string folder(kMaximumVariable + 1, '\0');
		folder.resize(platform::environment(kQorPlugInsVariable, folder.data(), folder.size()));
		if (folder.empty()) return kQorSuccess;
		if (!platform::isPathSeparator(folder.back())) folder += platform::kPathSeparator;
		folder.append(kPlugInsFolder) += platform::kPathSeparator;
		return AddByFolder(folder.c_str(), extension, recursive);
	} catch (const std::exception&) {
		_mclog(kLogError, "AddByQORPlugInsFolder - No memory");
		return kQorSuccess;
	}
}

CqorDynamicModule* CqorDynamicModuleList::GetByFilePath(const char* path) const {
	if (!path) return nullptr;
	const uint32_t hash = CqorDynamicModule::pathHash(path);
	for (auto* module : mModules)
		if (module->hasPath(path, hash)) return module;
	return nullptr;
}

int CqorDynamicModuleList::GetCount() const { return mModules.Count(); }

CqorDynamicModule* CqorDynamicModuleList::Get(int index) const {
	auto** module = mModules.Get(index);
	return module ? *module : nullptr;
}

int CqorDynamicModuleList::LoadAll() {
	int loaded = 0;
	for (auto* module : mModules) loaded += module->Load() == kQorSuccess;
	return loaded;
}

void CqorDynamicModuleList::DestroyAll() {
	for (auto* module : mModules)
		if (module->IsLoaded()) module->Destroy();
}

void* CqorDynamicModuleList::GetFunc(const char* name) const {
	for (const auto* module : mModules)
		if (void* function = module->GetFunc(name)) return function;
	return nullptr;
}

const char* CqorDynamicModuleList::gettype() const { return kType; }
qorMCClassFunc CqorDynamicModuleList::getclassfunc() const { return qorMC__CLASSFUNC; }

int CqorDynamicModuleList::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorDynamicModuleList>(kType, command, out);
}
