#include "../base/file.h"
#include "../base/mem_file.h"
#include "../platform/memory.h"
#include "class_manager.h"
#include "managed_object_internal.h"
#include "managed_xml.h"
#include "managed_xml_internal.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cstring>
#include <memory>

// One level is the document, one the text inside the deepest element.
static_assert(core::kMaximumXmlNesting + 2 <= TINYXML2_MAX_ELEMENT_DEPTH);

namespace {

constexpr std::size_t kMaximumNameLength = 254;
constexpr long long kReadPiece = 16 * 1024 * 1024;

/// Stands behind every text that is read. The XML library stops at a zero byte and at a closing tag
/// without its opening one, and calls what stands in front of it the whole document; then the
/// mark is missing.
constexpr char kEndMark[] = "<_mcEnd/>";
constexpr char kEndMarkName[] = "_mcEnd";

struct Release {
	void operator()(char* block) const { platform::release(block); }
};
using Buffer = std::unique_ptr<char, Release>;

char* allocateText(std::size_t size) { return static_cast<char*>(platform::allocate(size + sizeof kEndMark)); }

bool readWhole(CstFile& file, char* out, long long size) {
	while (size > 0) {
		const auto read = file.Read(out, static_cast<unsigned long>(std::min(size, kReadPiece)));
		if (read == 0) return false;
		out += read;
		size -= read;
	}
	return true;
}

} // namespace

const char* managed::xmlAttribute(const tinyxml2::XMLElement* element, const char* name) {
	return element && name ? element->Attribute(name) : nullptr;
}

const char* managed::xmlText(const tinyxml2::XMLNode* node) { return node && node->ToText() ? node->Value() : nullptr; }

int Cmc::_mcOnXMLText(tinyxml2::XMLNode*, int, int) { return 0; }

int Cmc::_mcOnCreateFromXML(tinyxml2::XMLElement* element) {
	base::callHost("Cmc::_mcOnUpdateFromXML", [&] { _mcOnUpdateFromXML(element); });
	return 0;
}

int Cmc::_mcOnUpdateFromXML(tinyxml2::XMLElement*) { return 0; }

int Cmc::_mcOnXML(tinyxml2::XMLNode* node, int depth, int flag) {
	if (!node) return kQorSuccess;
	if (auto* element = node->ToElement()) {
		const int handled =
		    base::callHost("Cmc::_mcOnXMLElement", [&] { return _mcOnXMLElement(element, depth, flag); });
		if (handled) return handled == kQorFailure ? kQorFailure : kQorSuccess;
	} else if (node->ToText() && base::callHost("Cmc::_mcOnXMLText", [&] { return _mcOnXMLText(node, depth, flag); })) {
		return kQorSuccess;
	}
	return doXMLNodes(node, depth + 1, flag);
}

int Cmc::onXML(tinyxml2::XMLNode* node, int depth, int flag) {
	return base::callHost("Cmc::_mcOnXML", [&] { return _mcOnXML(node, depth, flag); });
}

int Cmc::doXMLNodes(tinyxml2::XMLNode* node, int depth, int flag) {
	return base::callHost("Cmc::_mcDoXMLNodes", [&] { return _mcDoXMLNodes(node, depth, flag); });
}

int Cmc::_mcDoXMLNodes(tinyxml2::XMLNode* node, int depth, int flag) {
	int result = kQorSuccess;
	for (auto* child = node ? node->FirstChild() : nullptr; child; child = child->NextSibling())
		if (onXML(child, depth, flag) == kQorFailure) result = kQorFailure;
	return result;
}

int Cmc::_mcOnXMLElement(tinyxml2::XMLElement* element, int depth, int flag) {
	if (!element) return 0;
	char name[kMaximumNameLength + 1] = "";
	if (const char* given = element->Attribute(core::kXmlNameAttribute)) {
		const auto length = std::min(std::strlen(given), kMaximumNameLength);
		std::memcpy(name, given, length);
		name[length] = '\0';
	}
	Cmc* found = flag ? findForUpdate(name, element->Name()) : nullptr;
	if (!found) return createFromXML(element, name, depth, flag);
	found->_mcModifyFlag(kFlagFromXml, 0);
	if (base::callHost("Cmc::_mcOnUpdateFromXML", [&] { return found->_mcOnUpdateFromXML(element); })) return 1;
	return found->doXMLNodes(element, depth + 1, flag) == kQorFailure ? kQorFailure : 1;
}

Cmc* Cmc::findForUpdate(const char* name, const char* type) const {
	if (Cmc* child = _mcGetChildByNameAndType(name, type)) return child;
	if (mBranches == 0 && !mHasAttached && !mHasCopiedList) return nullptr; // nothing stands deeper
	for (int i = 0; i < mChildCount; ++i)
		if (Cmc* found = mChildren[i]->_mcFindByNameAndType(name, type, 0)) return found;
	return nullptr;
}

int Cmc::createFromXML(tinyxml2::XMLElement* element, const char* name, int depth, int flag) {
	auto* manager = qorMCGetManager();
	const auto* record = manager ? manager->classFindByType(element->Name()) : nullptr;
	if (!record) {
		_mclog(3, "class type (%s) NOT FOUND", element->Name());
		return 0;
	}
	Cmc* child = nullptr;
	const int made =
	    base::callHost("class function", [&] { return record->mFunction(kClassCommandNew, 0, 0, &child, nullptr); });
	if (made != kQorSuccess || !child) return kQorFailure;
	base::callHost("Cmc::setname", [&] { child->setname(name); });
	if (child->_mcSetParent(this) != kQorSuccess) {
		child->_mcDestroy();
		delete child;
		return kQorFailure;
	}
	child->_mcModifyFlag(kFlagFromXml, 0);
	if (base::callHost("Cmc::_mcOnCreateFromXML", [&] { return child->_mcOnCreateFromXML(element); })) return 1;
	return child->doXMLNodes(element, depth + 1, flag) == kQorFailure ? kQorFailure : 1;
}

/// `text` has room for the end mark behind its `length` characters.
int Cmc::loadFromXMLText(char* text, std::size_t length, int flag) {
	while (length > 0 && text[length - 1] == '\0') --length; // a text stored with its terminator
	std::memcpy(text + length, kEndMark, sizeof kEndMark);
	try {
		tinyxml2::XMLDocument document;
		if (document.Parse(text, length + sizeof kEndMark - 1) != tinyxml2::XML_SUCCESS) return kQorFailure;
		auto* mark = document.LastChildElement();
		if (!mark || mark != document.LastChild() || std::strcmp(mark->Name(), kEndMarkName) != 0) return kQorFailure;
		document.DeleteChild(mark);
		return onXML(&document, 0, flag);
	} catch (const std::bad_alloc&) { // the XML library's way to say so
		return kQorFailure;
	}
}

int Cmc::_mcLoadFromXMLMemFile(CstMemFile* memfile, int flag) {
	if (!memfile) return kQorFailure;
	unsigned long size = 0;
	const void* contents = memfile->GetBuffer(&size);
	const Buffer text(allocateText(size));
	if (!text) return kQorFailure;
	if (size > 0) std::memcpy(text.get(), contents, size);
	return loadFromXMLText(text.get(), size, flag);
}

int Cmc::_mcLoadFromXMLFile(const char* path, int flag) {
	CstFile file;
	if (file.OpenReadOnly(path) != 0) return kQorFailure;
	const auto size = file.GetSize64();
	if (size < 0 || size > INT32_MAX) return kQorFailure;
	const Buffer text(allocateText(static_cast<std::size_t>(size)));
	if (!text || !readWhole(file, text.get(), size)) return kQorFailure;
	file.Close();
	return loadFromXMLText(text.get(), static_cast<std::size_t>(size), flag);
}
