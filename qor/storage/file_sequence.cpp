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

/// What the names of the files of a sequence have in common, as one of them spells it.
struct CqorFileSeq::Names {
	char mFolder[256];
	char mBaseName[128];
	char mExtension[64];

	/// @return false when a part does not fit.
	bool take(const eqorFILESEQ_FILEATTR& attributes) {
		return put(mFolder, textOf(attributes.mFolder)) && put(mBaseName, textOf(attributes.mBaseName)) &&
		       put(mExtension, textOf(attributes.mExtension));
	}
	/// Divides a path and takes its names. @return false when a part does not fit.
	bool parse(const char* path, eqorFILESEQ_FILEATTR* attributes) {
		return ParseByFilePath(attributes, path) == kQorSuccess && take(*attributes);
	}
};

struct CqorFileSeq::State {
	CstmArray<Names> spellings; // other than the sequence's; the n-th has the number n + 1 in an item
	bool ascending = true;      // no item has a smaller number than the one before it
	int unfitCount = 0;
	int hasMoreFiles = 0;
};

/// What the two classes do with the fields of a sequence.
struct CqorFileSeq::Access {
	/// @return false without memory.
	static bool ready(CqorFileSeq& sequence) {
		if (!sequence.mState) sequence.mState = new (std::nothrow) State;
		return sequence.mState != nullptr;
	}
	static void setNames(CqorFileSeq& sequence, const Names& names) {
		put(sequence.mFolder, names.mFolder);
		put(sequence.mBaseName, names.mBaseName);
		put(sequence.mExtension, names.mExtension);
	}
	static bool isSequenceOf(const CqorFileSeq& sequence, const Names& names) {
		return equalInSequence(names.mBaseName, sequence.mBaseName) &&
		       equalInSequence(names.mFolder, sequence.mFolder) &&
		       equalInSequence(names.mExtension, sequence.mExtension);
	}
	static eqorFILESEQ_CITEM* add(
	    CqorFileSeq& sequence, const eqorFILESEQ_FILEATTR& attributes, const Names& names, uint64_t value);
	static uint32_t spellingOf(CqorFileSeq& sequence, const Names& names, bool* failed);
	static int fill(CqorFileSeq& sequence, const Names& names);
	static int fillName(const CqorFileSeq& sequence, const eqorFILESEQ_CITEM* item, char* out, size_t size);
};

CqorFileSeq::CqorFileSeq() = default;

CqorFileSeq::~CqorFileSeq() { delete mState; }

void CqorFileSeq::Reset() {
	Access::setNames(*this, {});
	mItems.Delete(0, mItems.Count());
	mItemCount = 0;
	delete mState;
	mState = nullptr;
}

int CqorFileSeq::CreateFromFilePath(const char* path) {
	eqorFILESEQ_FILEATTR attributes;
	Names names;
	const bool parsed = names.parse(path, &attributes); // which may be a text of this sequence
	Reset();
	if (!parsed || !Access::ready(*this)) return kQorFailure;
	if (Access::fill(*this, names) == kQorSuccess) return kQorSuccess;
	Reset();
	return kQorFailure;
}

int CqorFileSeq::Access::fill(CqorFileSeq& sequence, const Names& names) {
	std::vector<platform::FoundFile> files;
	if (!listFiles(names.mFolder, names.mExtension, false, &files, &sequence.mState->hasMoreFiles)) return kQorFailure;
	setNames(sequence, names);
	for (const auto& file : files) {
		eqorFILESEQ_FILEATTR attributes;
		Names found;
		if (!found.parse(file.path.c_str(), &attributes))
			++sequence.mState->unfitCount;
		else if (isSequenceOf(sequence, found) && !add(sequence, attributes, found, file.size))
			return kQorFailure;
	}
	return kQorSuccess;
}

int CqorFileSeq::BelongsToThis(const eqorFILESEQ_FILEATTR* attributes) const {
	return attributes && equalInSequence(textOf(attributes->mFolder), mFolder) &&
	       equalInSequence(textOf(attributes->mBaseName), mBaseName);
}

eqorFILESEQ_CITEM* CqorFileSeq::AddItem(const eqorFILESEQ_FILEATTR* attributes, uint64_t value) {
	Names names;
	return attributes && names.take(*attributes) ? Access::add(*this, *attributes, names, value) : nullptr;
}

eqorFILESEQ_CITEM* CqorFileSeq::Access::add(
    CqorFileSeq& sequence, const eqorFILESEQ_FILEATTR& attributes, const Names& names, uint64_t value) {
	auto& items = sequence.mItems;
	int& count = sequence.mItemCount;
	if (count == INT_MAX || !ready(sequence)) return nullptr;
	const int more = std::min(std::max(count / 2, 16), INT_MAX - count);
	if (count == items.Count() && !items.AddPosition(more, 0)) return nullptr;
	const bool first = count == 0 && !sequence.mFolder[0];
	bool failed = false;
	const uint32_t spelling = first ? 0 : spellingOf(sequence, names, &failed);
	if (failed) return nullptr;
	if (first) setNames(sequence, names);

	auto& item = items[count];
	item = {static_cast<uint32_t>(attributes.mNumber), spelling, value, {}};
	put(item.mNumberText, textOf(attributes.mNumberText));
	if (count > 0 && item.mNumber < items[count - 1].mNumber) sequence.mState->ascending = false;
	++count;
	return &item;
}

/// The number that an item has for these names. Files come in the order of their names, so
/// those of one spelling mostly follow one another.
uint32_t CqorFileSeq::Access::spellingOf(CqorFileSeq& sequence, const Names& names, bool* failed) {
	const auto same = [&names](const char* folder, const char* baseName, const char* extension) {
		return std::strcmp(names.mFolder, folder) == 0 && std::strcmp(names.mBaseName, baseName) == 0 &&
		       std::strcmp(names.mExtension, extension) == 0;
	};
	if (same(sequence.mFolder, sequence.mBaseName, sequence.mExtension) || !isSequenceOf(sequence, names)) return 0;
	constexpr int kRecent = 16; // of the latest spellings a few alternate, if any
	auto& spellings = sequence.mState->spellings;
	const int count = spellings.Count();
	for (int i = count; i > std::max(count - kRecent, 0); --i) {
		const Names& other = spellings[i - 1];
		if (same(other.mFolder, other.mBaseName, other.mExtension)) return static_cast<uint32_t>(i);
	}
	*failed = !spellings.Add(names);
	return static_cast<uint32_t>(spellings.Count());
}

int CqorFileSeq::Copy(const CqorFileSeq& other) {
	if (this == &other) return kQorSuccess;
	if (!other.mState) { // nothing was added or listed, so there are no names either
		Reset();
		return kQorSuccess;
	}
	// Room first, behind what is there; nothing can fail after that.
	if (!Access::ready(*this)) return kQorFailure;
	auto& spellings = mState->spellings;
	const auto& from = other.mState->spellings;
	const int items = other.mItemCount, count = from.Count(), before = spellings.Count();
	if (items > mItems.Count() && !mItems.AddPosition(items - mItems.Count(), 0)) return kQorFailure;
	if (count > before && !spellings.AddPosition(count - before, 0)) return kQorFailure;
	spellings.Delete(count, spellings.Count());
	std::copy_n(other.mItems.begin(), items, mItems.begin());
	std::copy_n(from.begin(), count, spellings.begin());
	put(mFolder, other.mFolder);
	put(mBaseName, other.mBaseName);
	put(mExtension, other.mExtension);
	mItemCount = items;
	mState->ascending = other.mState->ascending;
	mState->unfitCount = other.mState->unfitCount;
	mState->hasMoreFiles = other.mState->hasMoreFiles;
	return kQorSuccess;
}

const char* CqorFileSeq::GetFolder() const { return mFolder; }
const char* CqorFileSeq::GetBaseName() const { return mBaseName; }
const char* CqorFileSeq::GetExtension() const { return mExtension; }
int CqorFileSeq::GetCount() const { return mItemCount; }
int CqorFileSeq::GetUnfitCount() const { return mState ? mState->unfitCount : 0; }
int CqorFileSeq::HasMoreFiles() const { return mState ? mState->hasMoreFiles : 0; }

eqorFILESEQ_CITEM* CqorFileSeq::GetItem(int index) const { return index < mItemCount ? mItems.Get(index) : nullptr; }

eqorFILESEQ_CITEM* CqorFileSeq::GetItemByIndexNum(uint32_t number) const {
	auto *const begin = mItems.begin(), *const end = begin + mItemCount;
	const auto below = [number](const eqorFILESEQ_CITEM& item) { return item.mNumber < number; };
	const auto equal = [number](const eqorFILESEQ_CITEM& item) { return item.mNumber == number; };
	const bool ascending = !mState || mState->ascending;
	auto* const found = ascending ? std::partition_point(begin, end, below) : std::find_if(begin, end, equal);
	return found != end && found->mNumber == number ? found : nullptr;
}

int CqorFileSeq::FillNameByIndexNum(char* out, uint32_t number) const {
	return FillNameByIndexNum(out, kNameSize, number);
}

int CqorFileSeq::FillNameByIndexNum(char* out, size_t size, uint32_t number) const {
	return Access::fillName(*this, GetItemByIndexNum(number), out, size);
}

int CqorFileSeq::FillNameByIndex(char* out, size_t size, int index) const {
	return Access::fillName(*this, GetItem(index), out, size);
}

int CqorFileSeq::Access::fillName(const CqorFileSeq& sequence, const eqorFILESEQ_CITEM* item, char* out, size_t size) {
	if (!out || size == 0) return kQorFailure;
	out[0] = 0;
	if (!item) return kQorFailure;
	const Names* other = sequence.mState->spellings.Get(static_cast<int>(item->mSpelling - 1));
	char name[kNameSize];
	const size_t length = platform::formatText(name, sizeof name, "%s%s%.31s.%s",
	    other ? other->mFolder : sequence.mFolder, other ? other->mBaseName : sequence.mBaseName, item->mNumberText,
	    other ? other->mExtension : sequence.mExtension);
	if (length >= size) return kQorFailure;
	std::memcpy(out, name, length + 1);
	return kQorSuccess;
}

struct CqorFileSeqList::Access {
	/// @return null without memory.
	static CqorFileSeq* append(CqorFileSeqList& list) {
		auto* sequence = new (std::nothrow) CqorFileSeq;
		if (sequence && list.mItems.Add(sequence)) return sequence;
		delete sequence;
		return nullptr;
	}
	static bool addAll(CqorFileSeqList& list, const std::vector<platform::FoundFile>& files);
};

CqorFileSeqList::CqorFileSeqList() = default;

CqorFileSeqList::~CqorFileSeqList() { Destroy(); }

int CqorFileSeqList::GetCount() const { return mItems.Count(); }
int CqorFileSeqList::GetUnfitCount() const { return mUnfitCount; }
int CqorFileSeqList::HasMoreFiles() const { return mHasMoreFiles; }

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

bool CqorFileSeqList::Access::addAll(CqorFileSeqList& list, const std::vector<platform::FoundFile>& files) {
	std::unordered_map<std::string, CqorFileSeq*> sequences; // by what is equal in one
	for (const auto& file : files) {
		eqorFILESEQ_FILEATTR attributes;
		CqorFileSeq::Names names;
		if (!names.parse(file.path.c_str(), &attributes)) {
			++list.mUnfitCount;
			continue;
		}
		auto& sequence = sequences[storage_parts::sequenceKey(names.mFolder, names.mBaseName, names.mExtension)];
		if (!sequence) sequence = append(list);
		if (!sequence || !CqorFileSeq::Access::add(*sequence, attributes, names, file.size)) return false;
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
		if (Access::addAll(*this, files)) return kQorSuccess;
	} catch (const std::exception&) { // out of memory, as above
	}
	Destroy();
	return kQorFailure;
}
