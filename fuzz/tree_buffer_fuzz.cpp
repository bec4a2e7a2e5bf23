#include "qor/base/mem_file.h"
#include "qor/core/object.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

// Any bytes as a tree buffer: they are refused whole, or loaded; what was loaded is saved
// again to the same records when no child was left out.

namespace {

class Node final : public qor {
public:
	int qorOnSaveToBuffer(CstMemFile* file) override {
		return data.empty() || file->Write(data.data(), static_cast<unsigned long>(data.size())) ? 0 : 1;
	}
	int qorOnLoadFromBuffer(CstMemFile* file, uint32_t length) override {
		data.resize(length);
		if (file->Read(data.data(), length) != length) std::abort();
		file->Write("past the end", 12); // goes nowhere
		return 0;
	}
	std::string data;
};

struct Nodes {
	~Nodes() { // children first
		while (!made.empty()) made.pop_back();
	}
	static qor* make(const eqorTREE_NODE* node, qor*, void* context) {
		if (std::memchr(node->mID, 0, sizeof node->mID) == nullptr) std::abort();
		auto* nodes = static_cast<Nodes*>(context);
		if (node->mID[0] == '-') return nodes->leftOut = true, nullptr;
		return nodes->made.emplace_back(std::make_unique<Node>()).get();
	}
	bool leftOut = false;
	std::vector<std::unique_ptr<Node>> made;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	CstMemFile file;
	file.Write(data, static_cast<unsigned long>(size));
	file.Seek(0, 0);
	uint32_t length = 0, tag = 0;
	const void* user = qor::qorGetUserSavePtr(&file, &length, &tag);
	const std::string userData(static_cast<const char*>(user), user ? length : 0);
	Node root;
	Nodes nodes;
	if (root.qorLoadTreeFromBuffer(&file, Nodes::make, &nodes, &tag) != 0) {
		if (!nodes.made.empty() || file.GetCurrentPos() != 0) std::abort();
		return 0;
	}
	const unsigned long end = file.GetCurrentPos();
	CstMemFile saved;
	if (root.qorSaveTreeToBuffer(&saved, tag, length, userData.data()) != 0) std::abort();
	if (nodes.leftOut) return 0;
	if (saved.GetSize() != end) std::abort();
	// Texts are terminated while loading; what was saved once loads and saves to the same bytes.
	saved.Seek(0, 0);
	Node again;
	Nodes others;
	if (again.qorLoadTreeFromBuffer(&saved, Nodes::make, &others, &tag) != 0) std::abort();
	CstMemFile third;
	if (again.qorSaveTreeToBuffer(&third, tag, length, userData.data()) != 0) std::abort();
	if (third.GetSize() != end || std::memcmp(third.GetBuffer(), saved.GetBuffer(), end) != 0) std::abort();
	return 0;
}
