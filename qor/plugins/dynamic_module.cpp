#include "dynamic_module.h"

#include "../base/file.h"
#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../core/class_manager.h"
#include "../platform/file.h"
#include "../platform/folder.h"
#include "../platform/format.h"
#include "../platform/letter_case_internal.h"
#include "../platform/memory.h"
#include "../platform/module.h"
#include "module_record_internal.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

using platform::equalWithoutCase;
using platform::lowerCase;

namespace {

constexpr const char* kType = "CqorDynamicModule";
constexpr const char* kEntryName = "qorDMFUNC";
constexpr int kLogError = 3;
constexpr size_t kScanWindow = 0x40000; // bytes of a file that are searched at a time
constexpr size_t kExtraPadding = 4096;

[[maybe_unused]] const bool kRegistered = [] {
	auto* manager = qorMCGetManager();
	return manager && manager->classAdd(kType, CqorDynamicModule::qorMC__CLASSFUNC, "Cmc");
}();

/// The latest product version of the process; under `versionLock`.
constinit char latestVersion[kQorProductVersionSize] = {};

/// Not held while a file is read, and never freed: objects may be asked while the process ends.
platform::WaitHandle versionLock() {
	static const platform::WaitHandle lock = platform::createMutex(false);
	return lock;
}

/// Whether the first tag in `text` that begins as `tag` does, up to its parenthesis, is that
/// tag. Later tags of the kind do not count. Letters of any case match in the search as in the
/// comparison, so that "cs(unicode)" is found at all.
int hasTag(const eqorDM_INFO* information, std::u16string_view tag) {
	if (!information) return 0;
	std::u16string_view text(information->mText, std::size(information->mText));
	text = text.substr(0, text.find(u'\0'));
	const auto same = [](char16_t a, char16_t b) { return lowerCase(a) == lowerCase(b); };
	const auto prefix = tag.substr(0, tag.find(u'(') + 1);
	const auto found = std::search(text.begin(), text.end(), prefix.begin(), prefix.end(), same);
	const auto rest = text.substr(static_cast<size_t>(found - text.begin()), tag.size());
	return std::equal(rest.begin(), rest.end(), tag.begin(), tag.end(), same);
}

enum class Scan { found, none, unreadable };

/// Searches the first `bytes` bytes of a file for a record, window by window. What a window
/// ends with stands in front of the next, so that a key across the two is met whole.
Scan scanFile(CstFile& file, size_t bytes, unsigned char* window, size_t* offset) {
	size_t kept = 0;
	for (size_t start = 0; start + kept < bytes;) {
		const size_t fresh = std::min(kScanWindow - kept, bytes - start - kept);
		if (file.Read(window + kept, static_cast<unsigned long>(fresh)) != fresh) return Scan::unreadable;
		const size_t size = kept + fresh;
		const size_t at = plugins::findModuleRecord(window, size, start);
		*offset = start + at;
		if (at < size) return Scan::found;
		kept = std::min(size, plugins::kModuleRecordKey - 1);
		std::memmove(window, window + size - kept, kept);
		start += size - kept;
	}
	return Scan::none;
}

bool readAt(CstFile& file, size_t offset, void* buffer, size_t count) {
	if (file.Seek64(static_cast<long long>(offset), 0) != static_cast<long long>(offset)) return false;
	return file.Read(buffer, static_cast<unsigned long>(count)) == count;
}

/// A size for "%d".
int printable(long long bytes) { return static_cast<int>(std::min<long long>(bytes, INT32_MAX)); }

} // namespace

/// The full path stands behind the record.
struct CqorDynamicModule::File {
	uint32_t pathHash; // of the path as it was given
	char* fullPath() { return reinterpret_cast<char*>(this + 1); }
};

CqorDynamicModule::CqorDynamicModule() = default;

CqorDynamicModule::~CqorDynamicModule() {
	Destroy();
	platform::release(mFile);
}

int CqorDynamicModule::SetFilePath(const char* path) {
	const size_t length = path ? std::strlen(path) : SIZE_MAX;
	if (length > kQorModulePathLength) return kQorFailure;
	const std::string found = platform::fullPath(path);
	const char* full = found.empty() ? path : found.c_str(); // a text that is no path fails where it is used
	const size_t size = std::strlen(full) + 1;
	auto* file = static_cast<File*>(platform::allocate(sizeof(File) + size));
	if (!file) return kQorFailure;
	file->pathHash = pathHash(path);
	std::memcpy(file->fullPath(), full, size);
	platform::release(std::exchange(mFile, file));
	std::memmove(mPath, path, length + 1); // `path` may be this module's own
	return kQorSuccess;
}

const char* CqorDynamicModule::file() const { return mFile ? mFile->fullPath() : ""; }
const char* CqorDynamicModule::GetFilePath() const { return mPath; }
bool CqorDynamicModule::IsLoaded() const { return mModule != nullptr; }
const eqorDM_INFO* CqorDynamicModule::GetInformation() const { return mInformation; }

/// FNV-1a.
uint32_t CqorDynamicModule::pathHash(const char* path) {
	uint32_t hash = 0x811C9DC5;
	for (; *path; ++path) hash = (hash ^ static_cast<unsigned char>(lowerCase(*path))) * 0x01000193;
	return hash;
}

bool CqorDynamicModule::hasPath(const char* path, uint32_t hash) const {
	return mFile && mFile->pathHash == hash && equalWithoutCase(mPath, path);
}

int CqorDynamicModule::Load() {
	Destroy();
	mModule = platform::loadModule(file());
	if (!mModule) return kQorFailure;
	mFunction = reinterpret_cast<qorDM_Func>(platform::findExport(mModule, kEntryName));
	return kQorSuccess;
}

void* CqorDynamicModule::GetFunc(const char* name) const {
	return mModule && name ? platform::findExport(mModule, name) : nullptr;
}

int CqorDynamicModule::Func(unsigned long a, unsigned long b, unsigned long c, void* p1, void* p2) {
	if (!mFunction) return kQorFailure;
	return base::callHost("module entry function", [&] { return mFunction(a, b, c, p1, p2); });
}

int CqorDynamicModule::RetrieveDMInfo() {
	freeInformation();
	if (!platform::fileSystem().exists(file())) {
		_mclog(kLogError, "FILE DOES NOT EXIST");
		return kQorFailure;
	}
	auto* window = static_cast<unsigned char*>(platform::allocate(kScanWindow));
	mInformation = static_cast<eqorDM_INFO*>(platform::allocateZeroed(sizeof *mInformation));
	int result = kQorFailure;
	if (window && mInformation)
		result = readInformation(window);
	else
		_mclog(kLogError, "CANNOT ALLOC MEMORY ON PASS1");
	platform::release(window);
	if (result != kQorSuccess) freeInformation();
	return result;
}

int CqorDynamicModule::readInformation(unsigned char* window) {
	CstFile file;
	if (file.OpenReadOnly(this->file()) != 0) {
		_mclog(kLogError, "CANNOT OPEN FILE");
		return kQorFailure;
	}
	const long long fileSize = file.GetSize64();
	if (fileSize <= static_cast<long long>(plugins::kModuleRecordTail)) {
		_mclog(kLogError, "INVALID SIZE (%d Bytes)", printable(fileSize));
		return kQorFailure;
	}
	if (fileSize > static_cast<long long>(plugins::kMaximumModuleSize)) {
		_mclog(kLogError, "FILE TOO BIG (%d Bytes)", printable(fileSize));
		return kQorFailure;
	}
	const auto size = static_cast<size_t>(fileSize);
	size_t offset = 0;
	switch (scanFile(file, plugins::moduleRecordReach(size), window, &offset)) {
	case Scan::found: return readRecord(file, offset, size);
	case Scan::none: return kQorFailure; // most modules have none, so nothing is logged
	default: return cannotRead(size);
	}
}

int CqorDynamicModule::readRecord(CstFile& file, size_t offset, size_t fileSize) {
	plugins::ModuleRecordHead head = {};
	if (!readAt(file, offset, &head, sizeof head)) return cannotRead(fileSize);
	if (!readAt(file, offset + sizeof head, mInformation->mText, sizeof mInformation->mText))
		return cannotRead(fileSize);
	if (head.extraLength == 0 || head.extraLength >= fileSize - plugins::kModuleRecordTail) return kQorSuccess;

	const size_t extraOffset = offset + plugins::kModuleRecordSize;
	mInformation->mExtra = static_cast<unsigned char*>(platform::allocateZeroed(head.extraLength + kExtraPadding));
	if (!mInformation->mExtra) {
		_mclog(kLogError, "CANNOT ALLOC MEMORY ON PASS2");
		return kQorFailure;
	}
	mInformation->mExtraLength = head.extraLength;
	mInformation->mExtraOffset = static_cast<uint32_t>(extraOffset);
	// A length that leads past the end of the file still counts; what is not there is zero.
	const size_t there = std::min<size_t>(head.extraLength, fileSize - extraOffset);
	return readAt(file, extraOffset, mInformation->mExtra, there) ? kQorSuccess : cannotRead(fileSize);
}

int CqorDynamicModule::cannotRead(size_t fileSize) const {
	_mclog(kLogError, "CANNOT READ DATA (%d Bytes)", printable(static_cast<long long>(fileSize)));
	return kQorFailure;
}

void CqorDynamicModule::freeInformation() {
	if (mInformation) platform::release(mInformation->mExtra);
	platform::release(mInformation);
	mInformation = nullptr;
}

int CqorDynamicModule::IsUnicode() const { return hasTag(mInformation, u"CS(Unicode)"); }
int CqorDynamicModule::Is64() const { return hasTag(mInformation, u"PL(x64)"); }
int CqorDynamicModule::IsDebug() const { return hasTag(mInformation, u"CFG(Debug)"); }

int CqorDynamicModule::GetProductVersionString(char* out) const {
	return GetProductVersionString(out, kQorProductVersionSize);
}

int CqorDynamicModule::GetProductVersionString(char* out, size_t size) const {
	if (!out || size == 0 || !platform::fileSystem().exists(file())) return kQorFailure;
	char version[kQorProductVersionSize];
	const bool known = platform::productVersion(file(), version, sizeof version);
	const base::MutexGuard guard(versionLock());
	if (!guard.owns()) return kQorFailure;
	if (known) std::memcpy(latestVersion, version, sizeof version);
	platform::formatText(out, size, "%s", latestVersion);
	return kQorSuccess;
}

void CqorDynamicModule::Destroy() {
	freeInformation();
	mFunction = nullptr;
	platform::unloadModule(mModule);
	mModule = nullptr;
}

const char* CqorDynamicModule::gettype() const { return kType; }
qorMCClassFunc CqorDynamicModule::getclassfunc() const { return qorMC__CLASSFUNC; }

int CqorDynamicModule::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorDynamicModule>(kType, command, out);
}
