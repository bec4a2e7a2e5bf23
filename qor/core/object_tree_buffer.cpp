#include "object.h"

#include "../base/host_call_internal.h"
#include "../base/mem_file.h"
#include "../base/status.h"
#include "object_internal.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <functional>

// A tree in a buffer: header, user data, then the records of the objects in pre-order, each
// followed by its class data. Records are copied as they are, little-endian.
static_assert(std::endian::native == std::endian::little);
static_assert(offsetof(eqorTREE_NODE, mChildCount) == 128);
static_assert(offsetof(eqorTREE_NODE, mDataLength) == 148);

namespace {

struct TreeHeader {
	char magic[4];
	uint32_t version;
	uint32_t tag;
	uint32_t userLength;
};
static_assert(sizeof(TreeHeader) == 16);

constexpr char kTreeMagic[4] = {'q', 'o', 'r', '_'};
constexpr uint32_t kTreeVersion = 1;

/// What stands at a file's position.
struct Remaining {
	const unsigned char* data;
	size_t size;
};

Remaining remainingOf(const CstMemFile* file) {
	const auto position = file->GetCurrentPos();
	const auto* data = static_cast<const unsigned char*>(file->GetPtrAtAbsolutePos(position));
	return {data, data ? file->GetSize() - position : 0};
}

/// The header with all of its user data behind it. @return false when that is not what stands there.
bool readHeader(const CstMemFile* file, TreeHeader* header) {
	const Remaining there = remainingOf(file);
	if (there.size < sizeof *header) return false;
	std::memcpy(header, there.data, sizeof *header);
	return std::memcmp(header->magic, kTreeMagic, sizeof kTreeMagic) == 0 && header->version == kTreeVersion &&
	       header->userLength <= there.size - sizeof *header;
}

/// Walks the records of one tree and checks every length, count and level.
/// @return its bytes; 0 when the tree is not whole or too deep.
size_t sizeOfNodes(Remaining there) {
	int32_t toCome[kQorMaximumTreeDepth] = {1}; // records of each level not met yet
	int level = 0;
	size_t position = 0;
	while (level >= 0) {
		if (toCome[level] == 0) {
			--level;
			continue;
		}
		--toCome[level];
		eqorTREE_NODE node;
		if (there.size - position < sizeof node) return 0;
		std::memcpy(&node, there.data + position, sizeof node);
		position += sizeof node;
		if (node.mDataLength > there.size - position) return 0;
		position += node.mDataLength;
		if (node.mChildCount == 0) continue;
		const size_t possible = (there.size - position) / sizeof node;
		if (node.mChildCount < 0 || static_cast<size_t>(node.mChildCount) > possible) return 0;
		if (++level == kQorMaximumTreeDepth) return 0;
		toCome[level] = node.mChildCount;
	}
	return position;
}

/// Ends a text of a record and zeroes what stands behind it, as in records we write.
void terminate(char (&text)[kQorTextSize]) {
	char* end = std::find(text, text + kQorTextSize - 1, '\0');
	std::fill(end, text + kQorTextSize, '\0');
}

void terminateTexts(eqorTREE_NODE* node) {
	terminate(node->mID);
	terminate(node->mBaseContext);
	terminate(node->mType);
	terminate(node->mSubType);
}

void seekTo(CstMemFile* file, unsigned long position) { file->Seek(static_cast<long>(position), 0); }

/// Writes bytes that may lie in the file itself, `offset` bytes from the start of its old block.
bool writeUserData(CstMemFile* file, const void* data, bool inFile, size_t offset, uint32_t length) {
	if (inFile) data = static_cast<const unsigned char*>(file->GetBuffer()) + offset;
	return length == 0 || file->Write(data, length) == length;
}

} // namespace

int qor::qorSaveTreeToBuffer(CstMemFile* file, uint32_t tag, uint32_t userLength, const void* userData) {
	if (!file || !canBeSaved()) return kQorFailure;
	unsigned long oldSize = 0;
	const auto* block = static_cast<const unsigned char*>(file->GetBuffer(&oldSize));
	const auto* bytes = static_cast<const unsigned char*>(userData);
	const std::less<const unsigned char*> less;
	const bool inFile = bytes && block && !less(bytes, block) && less(bytes, block + oldSize);
	const size_t offset = inFile ? static_cast<size_t>(bytes - block) : 0;

	const unsigned long start = file->GetCurrentPos();
	TreeHeader header{{}, kTreeVersion, tag, userLength};
	std::copy(std::begin(kTreeMagic), std::end(kTreeMagic), header.magic);
	bool written = file->Write(&header, sizeof header) == sizeof header;
	if (written && !writeUserData(file, bytes, inFile, offset, userLength)) {
		// The objects are worth more than the user data: they are saved all the same.
		header.userLength = 0;
		written = file->WriteAt(&header, sizeof header, start) == sizeof header;
		log(3, "%u bytes of user data are not saved: no memory", userLength);
	}
	if (written && saveNodes(file)) return kQorSuccess;
	seekTo(file, start);
	return kQorFailure;
}

int qor::qorSaveToBuffer(CstMemFile* file) {
	if (!file || !canBeSaved()) return kQorFailure;
	const unsigned long start = file->GetCurrentPos();
	if (saveNodes(file)) return kQorSuccess;
	seekTo(file, start);
	return kQorFailure;
}

bool qor::canBeSaved() const {
	if (standsWithin(kQorMaximumTreeDepth)) return true;
	log(3, "not saved: the tree has more than %d levels, which could not be read back", kQorMaximumTreeDepth);
	return false;
}

/// Whether the tree below has at most `levels`, this object's included.
bool qor::standsWithin(int levels) const {
	return levels > 0 && std::all_of(mChildren, mChildren + mChildCount,
	                         [levels](const qor* child) { return child->standsWithin(levels - 1); });
}

void qor::fillNode(eqorTREE_NODE* node) const {
	std::memcpy(node->mID, mID, sizeof mID);
	std::memcpy(node->mBaseContext, mBaseContext, sizeof mBaseContext);
	std::memcpy(node->mType, mType, sizeof mType);
	std::memcpy(node->mSubType, mSubType, sizeof mSubType);
	node->mChildCount = mChildCount;
	std::memcpy(node->mValues, mValues, sizeof mValues);
	node->mDataLength = 0;
}

bool qor::saveNodes(CstMemFile* file) {
	const core::Dispatch running(this);
	eqorTREE_NODE node;
	fillNode(&node);
	const unsigned long start = file->GetCurrentPos();
	if (file->Write(&node, sizeof node) != sizeof node) return false;
	const unsigned long dataStart = file->GetCurrentPos();
	if (base::callHost("qor::qorOnSaveToBuffer", [&] { return qorOnSaveToBuffer(file); }) != 0) return false;
	if (!running.owner) return false;
	const unsigned long end = file->GetCurrentPos();
	if (end < dataStart || end > file->GetSize() || mChildCount != node.mChildCount) return false;
	if (end > dataStart) {
		const auto length = static_cast<uint32_t>(end - dataStart);
		if (!file->WriteAt(&length, sizeof length, start + offsetof(eqorTREE_NODE, mDataLength))) return false;
		seekTo(file, end);
	}
	for (int32_t i = 0; i < node.mChildCount; ++i) {
		if (!mChildren[i]->saveNodes(file)) return false;
		// A class that changes the tree meanwhile cannot be saved: the count is written already.
		if (!running.owner || mChildCount != node.mChildCount) return false;
	}
	return true;
}

int qor::qorLoadTreeFromBuffer(CstMemFile* file, qorCreateFunction create, void* context, uint32_t* tag) {
	TreeHeader header;
	if (!file || !readHeader(file, &header)) return kQorFailure;
	const unsigned long start = file->GetCurrentPos();
	seekTo(file, start + sizeof header + header.userLength);
	if (qorLoadFromBuffer(file, create, context) != kQorSuccess) {
		seekTo(file, start);
		return kQorFailure;
	}
	if (tag) *tag = header.tag;
	return kQorSuccess;
}

int qor::qorLoadFromBuffer(CstMemFile* file, qorCreateFunction create, void* context) {
	if (!file || sizeOfNodes(remainingOf(file)) == 0) return kQorFailure;
	const unsigned long start = file->GetCurrentPos();
	if (loadNodes(file, create, context, 1)) return kQorSuccess;
	seekTo(file, start);
	return kQorFailure;
}

/// Reads a record that was checked before. The checks made here once more only keep a callback
/// that changes the file meanwhile from doing harm.
bool qor::loadNodes(CstMemFile* file, qorCreateFunction create, void* context, int level) {
	const core::Dispatch running(this);
	eqorTREE_NODE node;
	if (level > kQorMaximumTreeDepth || file->Read(&node, sizeof node) != sizeof node) return false;
	takeNode(node);
	if (!loadData(file, node.mDataLength) || !running.owner) return false;
	for (int32_t i = 0; i < node.mChildCount; ++i) {
		eqorTREE_NODE next;
		const Remaining there = remainingOf(file);
		if (there.size < sizeof next) return false;
		std::memcpy(&next, there.data, sizeof next);
		terminateTexts(&next);
		qor* child =
		    create ? base::callHost("qorCreateFunction", [&] { return create(&next, this, context); }) : nullptr;
		if (!running.owner) return false;
		if (!child) { // left out, with everything below it
			const size_t skipped = sizeOfNodes(remainingOf(file));
			if (skipped == 0) return false;
			seekTo(file, file->GetCurrentPos() + static_cast<unsigned long>(skipped));
			continue;
		}
		if (!child->setparent(this) || !child->loadNodes(file, create, context, level + 1)) return false;
		if (!running.owner) return false;
	}
	return true;
}

void qor::takeNode(const eqorTREE_NODE& record) {
	eqorTREE_NODE node = record;
	terminateTexts(&node);
	std::memcpy(mID, node.mID, sizeof mID);
	std::memcpy(mBaseContext, node.mBaseContext, sizeof mBaseContext);
	std::memcpy(mType, node.mType, sizeof mType);
	std::memcpy(mSubType, node.mSubType, sizeof mSubType);
	std::memcpy(mValues, node.mValues, sizeof mValues);
	mLoaded = true;
	noteChange();
}

/// Hands the class data over in a file of their own, so a class reads nothing else, and what
/// it may write there goes nowhere.
bool qor::loadData(CstMemFile* file, uint32_t length) {
	CstMemFile data;
	void* bytes = nullptr;
	if (data.Create(length, &bytes) != kQorSuccess || file->Read(bytes, length) != length) return false;
	return base::callHost("qor::qorOnLoadFromBuffer", [&] { return qorOnLoadFromBuffer(&data, length); }) == 0;
}

const void* qor::qorGetUserSavePtr(CstMemFile* file, uint32_t* length, uint32_t* tag) {
	TreeHeader header;
	const bool found = file && readHeader(file, &header);
	if (length) *length = found ? header.userLength : 0;
	if (tag) *tag = found ? header.tag : 0;
	return found && header.userLength > 0 ? remainingOf(file).data + sizeof header : nullptr;
}
