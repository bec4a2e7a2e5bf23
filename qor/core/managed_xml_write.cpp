#include "../base/mem_file.h"
#include "../platform/draft.h"
#include "../platform/format.h"
#include "managed_object_internal.h"
#include "managed_xml.h"
#include "managed_xml_internal.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kMaximumIndent = 255; // tabs

bool put(CstMemFile* memfile, const char* text, std::size_t length) {
	// Longer than any memory file, and a write of nothing would make the file grow.
	if (length > INT32_MAX) return false;
	return length == 0 || memfile->Write(text, static_cast<unsigned long>(length)) == length;
}

bool put(CstMemFile* memfile, const char* text) { return put(memfile, text, std::strlen(text)); }

bool putIndent(CstMemFile* memfile, int depth) {
	char tabs[kMaximumIndent];
	const int count = std::clamp(depth, 0, kMaximumIndent);
	std::memset(tabs, '\t', count);
	return put(memfile, tabs, count);
}

/// The entity of a character that cannot stand for itself in an attribute; null for others.
/// Control characters are among them: a reader may turn them into blanks or line feeds.
const char* entityOf(char c, char (&number)[8]) {
	switch (c) {
	case '"': return "&quot;";
	case '&': return "&amp;";
	case '\'': return "&apos;";
	case '<': return "&lt;";
	case '>': return "&gt;";
	default: break;
	}
	if (static_cast<unsigned char>(c) >= ' ') return nullptr;
	platform::formatText(number, sizeof number, "&#%d;", c);
	return number;
}

bool putEscaped(CstMemFile* memfile, const char* text) {
	const char* plain = text;
	for (; *text; ++text) {
		char number[8];
		const char* entity = entityOf(*text, number);
		if (!entity) continue;
		if (!put(memfile, plain, text - plain) || !put(memfile, entity)) return false;
		plain = text + 1;
	}
	return put(memfile, plain, text - plain);
}

/// Whether the reader takes the text for the name of an element.
bool isXmlName(const char* text) {
	const auto isStart = [](unsigned char c) {
		return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ':' || c == '_' || c > 127;
	};
	if (!text || !isStart(*text)) return false;
	return std::all_of(text, text + std::strlen(text),
	    [&](char c) { return isStart(c) || (c >= '0' && c <= '9') || c == '.' || c == '-'; });
}

int statusOf(bool done) { return done ? kQorSuccess : kQorFailure; }

} // namespace

int managed::writeXmlAttribute(CstMemFile* memfile, const char* name, const char* value) {
	return statusOf(memfile && name && put(memfile, name) && put(memfile, "=\"") &&
	                putEscaped(memfile, value ? value : "") && put(memfile, "\" "));
}

int Cmc::_mcOnXMLWritePars(CstMemFile*) { return kQorSuccess; }

int Cmc::_mcSaveToXML(CstMemFile* memfile, int depth) { return memfile ? writeXML(memfile, depth, 1) : kQorFailure; }

int Cmc::_mcSaveChildsToXML(CstMemFile* memfile, int depth) {
	return memfile ? writeChildrenXML(memfile, depth, 1) : kQorFailure;
}

/// `nesting` counts the levels written, whatever depth the first one is indented for.
int Cmc::writeXML(CstMemFile* memfile, int depth, int nesting) {
	const char* type = core::typeOf(*this);
	const char* name = core::nameOf(*this);
	if (nesting > core::kMaximumXmlNesting) {
		_mclog(3, "XML text not written: the tree has more than %d levels, which could not be read back",
		    core::kMaximumXmlNesting);
		return kQorFailure;
	}
	if (!isXmlName(type)) return kQorFailure;
	if (!putIndent(memfile, depth) || !put(memfile, "<") || !put(memfile, type) || !put(memfile, " "))
		return kQorFailure;
	if (*name && managed::writeXmlAttribute(memfile, core::kXmlNameAttribute, name) != kQorSuccess) return kQorFailure;
	if (base::callHost("Cmc::_mcOnXMLWritePars", [&] { return _mcOnXMLWritePars(memfile); }) == kQorFailure)
		return kQorFailure;
	if (!_mcHasChilds()) return statusOf(put(memfile, " />\r\n"));
	if (!put(memfile, " >\r\n") || writeChildrenXML(memfile, std::max(depth, 0) + 1, nesting + 1) != kQorSuccess)
		return kQorFailure;
	return statusOf(putIndent(memfile, depth) && put(memfile, "</") && put(memfile, type) && put(memfile, ">\r\n"));
}

int Cmc::writeChildrenXML(CstMemFile* memfile, int depth, int nesting) {
	core::ManagedWalk walk;
	walk.enter(this);
	walk.open();
	while (Cmc* child = walk.next())
		if (child->writeXML(memfile, depth, nesting) != kQorSuccess) return kQorFailure;
	return kQorSuccess;
}

int Cmc::_mcSaveToXMLFile(const char* path, int) {
	CstMemFile memfile;
	if (_mcSaveChildsToXML(&memfile, 0) != kQorSuccess) return kQorFailure;
	unsigned long size = 0;
	const void* text = memfile.GetBuffer(&size);
	platform::Draft draft; // a disk that is full keeps the old file
	return statusOf(draft.open(path) && draft.write(text, size) && draft.commit());
}
