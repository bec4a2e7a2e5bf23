// Texts into sections. Nothing here calls itself: the way back from a nested section is its
// parent pointer, so that a file of a million nested tags needs no more stack than one of ten.
#include "../base/status.h"
#include "parameter_arena_internal.h"
#include "parameter_section.h"

#include <algorithm>
#include <climits>

namespace {

/// A longer name is cut here; what follows the cut is not part of it.
constexpr std::ptrdiff_t kLongestName = 511;

bool isBlank(char c) { return static_cast<unsigned char>(c) <= ' '; }

/// Types and names end at a blank and, other than values, at a character that is not ASCII.
bool isNameCharacter(char c) { return c > ' ' && static_cast<unsigned char>(c) < 128; }

bool isIdName(const char* name) { return (name[0] | 0x20) == 'i' && (name[1] | 0x20) == 'd' && name[2] == '\0'; }

char* findValueEnd(char* at) {
	for (bool quoted = false; *at && (quoted || !isBlank(*at)); ++at)
		if (*at == '"') quoted = !quoted;
	return at;
}

void copyCut(char* out, std::size_t size, const char* text, std::size_t length) {
	length = std::min(length, size - 1);
	std::memcpy(out, text, length);
	out[length] = '\0';
}

char* find(const char* text, char wanted, const char* end) {
	return static_cast<char*>(std::memchr(const_cast<char*>(text), wanted, static_cast<std::size_t>(end - text)));
}

} // namespace

char* CqorBXML_Section::ProcessContent(const char* text) {
	const std::size_t length = text ? std::strlen(text) : 0;
	if (!text || length > INT_MAX) return nullptr;
	const char* end = text + length;
	auto* section = this;
	mContent = const_cast<char*>(text);
	mContentLength = 0;
	for (const char* at = text;;) {
		char* tag = find(at, '<', end);
		if (!tag) {
			endAtTextEnd(section, end);
			return const_cast<char*>(end);
		}
		if (const char* behind = section->behindClosingTag(tag, end)) {
			section->mContentLength = static_cast<int>(tag - section->mContent);
			logmsg("<-- [%s]", section->mType);
			if (section == this) return const_cast<char*>(behind);
			section = section->mParent;
			at = behind;
			continue;
		}
		const char* close = find(tag, '>', end);
		auto* child = close ? section->makeChild() : nullptr;
		if (!child || !child->readHeader(tag, close) || !section->appendChild(child)) {
			logmsg("ERROR (HEADER)");
			if (section != this) logmsg("ERROR (CONTENT)");
			return nullptr;
		}
		at = close + 1;
		if (close[-1] == '/') {
			logmsg("<-- [%s] (%s)", child->mType, child->mHeaderBuff);
			continue;
		}
		logmsg("--> %s (%d)", child->mType, child->mDepth);
		child->mContent = const_cast<char*>(at);
		section = child;
	}
}

/// @return null when this is not the closing tag of this section. One of another type is none:
///         it opens a section whose type begins with "/".
const char* CqorBXML_Section::behindClosingTag(const char* tag, const char* end) const {
	if (tag + 2 >= end || tag[1] != '/') return nullptr;
	const std::size_t length = std::strlen(mType);
	const char* type = tag + 2;
	if (length >= static_cast<std::size_t>(end - type)) return nullptr;
	return std::memcmp(type, mType, length) == 0 && type[length] == '>' ? type + length + 1 : nullptr;
}

/// Ends this section, `last` inside it and those between them.
void CqorBXML_Section::endAtTextEnd(CqorBXML_Section* last, const char* end) {
	for (auto* section = last;; section = section->mParent) {
		section->mContentLength = static_cast<int>(end - section->mContent);
		logmsg("<-- [%s]", section->mType);
		if (section == this) return;
	}
}

char* CqorBXML_Section::ProcessHeader(const char* text) {
	const char* close = text && *text == '<' ? std::strchr(text, '>') : nullptr;
	if (!close || !readHeader(text, close)) return nullptr;
	typeChanges();
	return const_cast<char*>(close);
}

/// @param tag the "<", `close` the ">" of the tag
bool CqorBXML_Section::readHeader(const char* tag, const char* close) {
	const auto length = static_cast<std::size_t>(close - tag - 1);
	if (length == 0) {
		logmsg("WARNING @CqorBXML_Section::ProcessHeader mHeaderBuff is NULL");
		return false;
	}
	char* header = arena() ? mArena->copyText(tag + 1, length) : nullptr;
	if (!header) {
		logmsg("[ERROR] @CqorBXML_Section::ProcessHeader mHeaderBuff is NULL");
		return false;
	}
	mHeaderBuff = header;
	logmsg("Header=[%s]", header);
	const char* typeEnd = readType(header);
	if (*typeEnd == '\0' || static_cast<unsigned char>(*typeEnd) >= 128)
		logmsg("NO MORE PARAMETERS");
	else
		readParameters(typeEnd + 1, static_cast<std::size_t>(header + length - typeEnd - 1));
	return true;
}

/// @return where the type ends, which is behind the part that is kept when it is long.
const char* CqorBXML_Section::readType(const char* text) {
	while (*text == ' ') ++text;
	const char* end = text;
	while (end - text < kLongestName && isNameCharacter(*end)) ++end;
	copyCut(mType, sizeof mType, text, static_cast<std::size_t>(end - text));
	return end;
}

int CqorBXML_Section::GetParametersFromString(const char* text) {
	if (!text) return kQorFailure;
	readParameters(text, std::strlen(text));
	return kQorSuccess;
}

/// Names and values are cut out of one copy in place.
void CqorBXML_Section::readParameters(const char* text, std::size_t length) {
	char* at = arena() ? mArena->copyText(text, length) : nullptr;
	while (at) {
		while (*at && isBlank(*at)) ++at;
		if (!*at) break;
		at = readParameter(at);
	}
	logmsg("<GPS-end [%s]>", text);
}

/// @return behind the parameter and the character that ended it.
char* CqorBXML_Section::readParameter(char* text) {
	char* name = text;
	while (isNameCharacter(*text) && *text != '=') ++text;
	const bool hasValue = *text == '=';
	char* value = text + 1;
	char* end = hasValue ? findValueEnd(value) : text;
	char* next = *end ? end + 1 : end;
	*text = *end = '\0';
	logmsg("-> VAR= [%s]", name);
	if (hasValue) {
		appendVar(name, value);
		if (isIdName(name)) setID(value);
	} else if (*name) { // empty in front of a character that is not ASCII: nothing to add
		appendVar(name, mArena->copyText("1", 1));
	}
	return next;
}

void CqorBXML_Section::setID(const char* value) {
	std::size_t length = std::strlen(value);
	if (*value == '"') {
		++value;
		--length;
		if (length > 0 && value[length - 1] == '"') --length;
	}
	copyCut(mID, sizeof mID, value, length);
	logmsg("SET ID [%s] to %p", mID, this);
}
