#include "file_sequence.h"

#include "../base/status.h"
#include "../platform/folder.h"
#include "../platform/format.h"
#include "sequence_name_internal.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

using storage_parts::equalInSequence;
using storage_parts::splitSequenceName;

namespace {

/// The text of a field that a host may have filled to its last character.
template <size_t N>
std::string_view textOf(const char (&field)[N]) {
	const std::string_view all(field, N - 1);
	return all.substr(0, all.find('\0'));
}

/// @return false, with nothing written, for a text that does not fit.
template <size_t N>
bool put(char (&field)[N], std::string_view text) {
	if (text.size() >= N) return false;
	std::copy(text.begin(), text.end(), field);
	field[text.size()] = 0;
	return true;
}

int32_t valueOf(std::string_view digits) {
	int64_t value = 0;
	for (const char c : digits) value = std::min<int64_t>(value * 10 + (c - '0'), INT32_MAX);
	return static_cast<int32_t>(value);
}

/// The folder as it is written: one that is not named, and the root, get the library's texts.
std::string_view folderText(std::string_view folder) {
	const std::string_view current = platform::kPathSeparator == '/' ? "./" : ".\\";
	if (folder.empty()) return current;
	return folder.size() == 1 ? current.substr(1) : folder;
}

/// Lists as many files as are looked at; whether there are more shows in one file more.
bool listFiles(
    const char* folder, const char* extension, bool recursive, std::vector<platform::FoundFile>* files, int* hasMore) {
	constexpr size_t kMaximum = CqorFileSeq::kMaximumFiles;
	if (!platform::listFiles(folder, extension, recursive, kMaximum + 1, files)) return false;
	*hasMore = files->size() > kMaximum;
	if (*hasMore) files->pop_back();
	return true;
}

} // namespace

int CqorFileSeq::ParseByFilePath(eqorFILESEQ_FILEATTR* attributes, const char* path) {
	if (!attributes) return kQorFailure;
	*attributes = {};
	if (!path) return kQorFailure;
	const auto parts = splitSequenceName(path);
	if (!put(attributes->mFolder, folderText(parts.folder)) || !put(attributes->mBaseName, parts.baseName) ||
	    !put(attributes->mExtension, parts.extension) || !put(attributes->mNumberText, parts.digits)) {
		*attributes = {};
		return kQorFailure;
	}
	// A bare numeric name keeps number 0: callers tell by it that there is no base name to go by.
	const bool bareNumber = parts.digits.data() == path;
	attributes->mNumber = bareNumber ? 0 : valueOf(parts.digits);
	return kQorSuccess;
}

bool CqorFileSeq::namesOf(const eqorFILESEQ_FILEATTR& attributes, Names* names) {
	return put(names->mFolder, textOf(attributes.mFolder)) && put(names->mBaseName, textOf(attributes.mBaseName)) &&
	       put(names->mExtension, textOf(attributes.mExtension));
}

bool CqorFileSeq::isSequenceOf(const Names& names) const {
	return equalInSequence(names.mBaseName, mNames.mBaseName) && equalInSequence(names.mFolder, mNames.mFolder) &&
	       equalInSequence(names.mExtension, mNames.mExtension);
}

void CqorFileSeq::Reset() {
	mNames = {};
	mItems.Delete(0, mItems.Count());
	mSpellings.Delete(0, mSpellings.Count());
	mItemCount = 0;
	mAscending = true;
	mUnfitCount = 0;
	mHasMoreFiles = 0;
}

/// Divides a path and takes its names. @return false when a part does not fit.
bool CqorFileSeq::parse(const char* path, eqorFILESEQ_FILEATTR* attributes, Names* names) {
	return ParseByFilePath(attributes, path) == kQorSuccess && namesOf(*attributes, names);
}

int CqorFileSeq::CreateFromFilePath(const char* path) {
	eqorFILESEQ_FILEATTR attributes;
	Names names;
	const bool parsed = parse(path, &attributes, &names); // which may be a text of this sequence
	Reset();
	if (!parsed) return kQorFailure;
	std::vector<platform::FoundFile> files;
	if (!listFiles(names.mFolder, names.mExtension, false, &files, &mHasMoreFiles)) return kQorFailure;
	mNames = names;
	for (const auto& file : files) {
		if (!parse(file.path.c_str(), &attributes, &names)) {
			++mUnfitCount;
		} else if (isSequenceOf(names) && !add(attributes, names, file.size)) {
			Reset();
			return kQorFailure;
		}
	}
	return kQorSuccess;
}

int CqorFileSeq::BelongsToThis(const eqorFILESEQ_FILEATTR* attributes) const {
	return attributes && equalInSequence(textOf(attributes->mFolder), mNames.mFolder) &&
	       equalInSequence(textOf(attributes->mBaseName), mNames.mBaseName);
}

eqorFILESEQ_CITEM* CqorFileSeq::AddItem(const eqorFILESEQ_FILEATTR* attributes, uint64_t value) {
	Names names;
	return attributes && namesOf(*attributes, &names) ? add(*attributes, names, value) : nullptr;
}

eqorFILESEQ_CITEM* CqorFileSeq::add(const eqorFILESEQ_FILEATTR& attributes, const Names& names, uint64_t value) {
	if (mItemCount == INT_MAX) return nullptr;
	const bool full = mItemCount == mItems.Count();
	const int more = std::min(std::max(mItemCount / 2, 16), INT_MAX - mItemCount);
	if (full && !mItems.AddPosition(more, 0)) return nullptr;
	const bool first = mItemCount == 0 && !mNames.mFolder[0];
	bool failed = false;
	const uint32_t spelling = first ? 0 : spellingOf(names, &failed);
	if (failed) return nullptr;
	if (first) mNames = names;

	auto& item = mItems[mItemCount];
	item = {static_cast<uint32_t>(attributes.mNumber), spelling, value, {}};
	put(item.mNumberText, textOf(attributes.mNumberText));
	if (mItemCount > 0 && item.mNumber < mItems[mItemCount - 1].mNumber) mAscending = false;
	++mItemCount;
	return &item;
}

/// The number that an item has for these names. Files come in the order of their names, so
/// those of one spelling mostly follow one another.
uint32_t CqorFileSeq::spellingOf(const Names& names, bool* failed) {
	const auto same = [&names](const Names& other) {
		return std::strcmp(names.mFolder, other.mFolder) == 0 && std::strcmp(names.mBaseName, other.mBaseName) == 0 &&
		       std::strcmp(names.mExtension, other.mExtension) == 0;
	};
	if (same(mNames) || !isSequenceOf(names)) return 0;
	constexpr int kRecent = 16; // of the latest spellings a few alternate, if any
	const int count = mSpellings.Count();
	for (int i = count; i > std::max(count - kRecent, 0); --i)
		if (same(mSpellings[i - 1])) return static_cast<uint32_t>(i);
	*failed = !mSpellings.Add(names);
	return static_cast<uint32_t>(mSpellings.Count());
}

int CqorFileSeq::Copy(const CqorFileSeq& other) {
	if (this == &other) return kQorSuccess;
	// Room first, behind what is there; nothing can fail after that.
	const int items = other.mItemCount, spellings = other.mSpellings.Count(), before = mSpellings.Count();
	if (items > mItems.Count() && !mItems.AddPosition(items - mItems.Count(), 0)) return kQorFailure;
	if (spellings > before && !mSpellings.AddPosition(spellings - before, 0)) return kQorFailure;
	mSpellings.Delete(spellings, mSpellings.Count());
	std::copy_n(other.mItems.begin(), items, mItems.begin());
	std::copy_n(other.mSpellings.begin(), spellings, mSpellings.begin());
	mNames = other.mNames;
	mItemCount = items;
	mAscending = other.mAscending;
	mUnfitCount = other.mUnfitCount;
	mHasMoreFiles = other.mHasMoreFiles;
	return kQorSuccess;
}

eqorFILESEQ_CITEM* CqorFileSeq::GetItem(int index) const { return index < mItemCount ? mItems.Get(index) : nullptr; }

eqorFILESEQ_CITEM* CqorFileSeq::GetItemByIndexNum(uint32_t number) const {
	auto *const begin = mItems.begin(), *const end = begin + mItemCount;
	const auto below = [number](const eqorFILESEQ_CITEM& item) { return item.mNumber < number; };
	const auto equal = [number](const eqorFILESEQ_CITEM& item) { return item.mNumber == number; };
	auto* const found = mAscending ? std::partition_point(begin, end, below) : std::find_if(begin, end, equal);
	return found != end && found->mNumber == number ? found : nullptr;
}

int CqorFileSeq::FillNameByIndexNum(char* out, size_t size, uint32_t number) const {
	if (!out || size == 0) return kQorFailure;
	out[0] = 0;
	const auto* item = GetItemByIndexNum(number);
	if (!item) return kQorFailure;
	const Names* other = mSpellings.Get(static_cast<int>(item->mSpelling - 1));
	const Names& names = other ? *other : mNames;
	char name[kNameSize];
	const size_t length = platform::formatText(
	    name, sizeof name, "%s%s%.31s.%s", names.mFolder, names.mBaseName, item->mNumberText, names.mExtension);
	if (length >= size) return kQorFailure;
	std::memcpy(out, name, length + 1);
	return kQorSuccess;
}

CqorFileSeq* CqorFileSeqList::Get(int index) const {
	auto** item = mItems.Get(index);
	return item ? *item : nullptr;
}

void CqorFileSeqList::Destroy() {
	for (auto* sequence : mItems) delete sequence;
	mItems.Delete(0, mItems.Count());
	mUnfitCount = 0;
	mHasMoreFiles = 0;
}

CqorFileSeq* CqorFileSeqList::append() {
	auto* sequence = new (std::nothrow) CqorFileSeq;
	if (sequence && mItems.Add(sequence)) return sequence;
	delete sequence;
	return nullptr;
}

bool CqorFileSeqList::addAll(const std::vector<platform::FoundFile>& files) {
	std::unordered_map<std::string, CqorFileSeq*> sequences; // by what is equal in one
	for (const auto& file : files) {
		eqorFILESEQ_FILEATTR attributes;
		CqorFileSeq::Names names;
		if (!CqorFileSeq::parse(file.path.c_str(), &attributes, &names)) {
			++mUnfitCount;
			continue;
		}
		auto& sequence = sequences[storage_parts::sequenceKey(names.mFolder, names.mBaseName, names.mExtension)];
		if (!sequence) sequence = append();
		if (!sequence || !sequence->add(attributes, names, file.size)) return false;
	}
	return true;
}

int CqorFileSeqList::CreateFromFolder(const char* folder, const char* extension, int recursive) {
	std::vector<platform::FoundFile> files;
	int hasMore = 0;
	// Listed first, as the folder may be a text of a sequence in the list.
	const bool listed = folder && extension && listFiles(folder, extension, recursive != 0, &files, &hasMore);
	Destroy();
	if (!listed) return kQorFailure;
	mHasMoreFiles = hasMore;
	try {
		if (addAll(files)) return kQorSuccess;
	} catch (const std::exception&) { // out of memory, as above
	}
	Destroy();
	return kQorFailure;
}
