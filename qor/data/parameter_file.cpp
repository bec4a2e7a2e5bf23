#include "parameter_file.h"

#include "../base/file.h"
#include "../base/status.h"
#include "../platform/memory.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

constexpr int kReadPiece = 16 * 1024 * 1024;

/// The first byte of the letters that become one byte, and what their second byte is smaller by.
constexpr char kLetterMark = static_cast<char>(195);
constexpr int kLetterDistance = 64;

bool isLetterByte(char c) {
	static constexpr unsigned char letters[] = {129, 137, 141, 145, 147, 154, 161, 169, 173, 177, 179, 186};
	return std::binary_search(std::begin(letters), std::end(letters), static_cast<unsigned char>(c));
}

/// In place: the text never grows. @return the new length.
int convertLetters(char* text, int length) {
	char* out = text;
	const char* end = text + length;
	for (const char* at = text; at < end;) {
		const auto* mark = static_cast<const char*>(std::memchr(at, kLetterMark, static_cast<std::size_t>(end - at)));
		const char* stop = mark ? mark : end;
		if (out != at) std::memmove(out, at, static_cast<std::size_t>(stop - at));
		out += stop - at;
		at = mark ? mark + 1 : end;
		if (at == end) break;
		*out++ = isLetterByte(*at) ? static_cast<char>(*at + kLetterDistance) : *at;
		++at;
	}
	return static_cast<int>(out - text);
}

bool readWhole(CstFile& file, char* out, int size) {
	while (size > 0) {
		const auto read = file.Read(out, static_cast<unsigned long>(std::min(size, kReadPiece)));
		if (read == 0) return false;
		out += read;
		size -= static_cast<int>(read);
	}
	return true;
}

} // namespace

CqorBXML::CqorBXML() { mRoot.mDocument = this; }

CqorBXML::~CqorBXML() { Close(); }

void CqorBXML::Close() {
	mRoot.Destroy();
	platform::release(mText);
	mText = nullptr;
	mTextLength = 0;
}

int CqorBXML::Open(const char* path, CqorBXML_SectionCallBack callback) {
	CstFile file;
	const bool opened = path && file.OpenReadOnly(path) == 0; // before closing: the path may be one of our values
	Close();
	if (!opened || readFile(file) != kQorSuccess) return kQorFailure;
	file.Close(); // a callback may replace it
	return parseAndWalk(callback);
}

int CqorBXML::readFile(CstFile& file) {
	const auto size = file.GetSize64();
	if (size <= 0 || size >= INT_MAX) return kQorFailure;
	const int length = static_cast<int>(size);
	auto* text = static_cast<char*>(platform::allocate(static_cast<std::size_t>(length) + 1));
	if (!text || !readWhole(file, text, length)) {
		platform::release(text);
		return kQorFailure;
	}
	mText = text;
	mTextLength = convertLetters(text, length);
	return kQorSuccess;
}

int CqorBXML::OpenFromBuffer(const void* text, int length, CqorBXML_SectionCallBack callback) {
	char* copy = nullptr;
	if (text && length > 0) copy = static_cast<char*>(platform::allocate(static_cast<std::size_t>(length) + 1));
	if (copy) std::memcpy(copy, text, static_cast<std::size_t>(length)); // before closing: it may be our own text
	Close();
	if (!copy) return length == 0 ? kQorSuccess : kQorFailure;
	mText = copy;
	mTextLength = length;
	return parseAndWalk(callback);
}

int CqorBXML::parseAndWalk(CqorBXML_SectionCallBack callback) {
	mText[mTextLength] = '\0';
	mRoot.ProcessContent(mText);
	CallBackTree(callback ? callback : mCallBack);
	return kQorSuccess;
}

int CqorBXML::CallBackTree(CqorBXML_SectionCallBack callback) { return CallBackSection(this, &mRoot, 0, callback); }

int CqorBXML::CallBackSection(
    CqorBXML* document, CqorBXML_Section* section, int depth, CqorBXML_SectionCallBack callback) {
	if (!section) return kQorFailure;
	if (!callback) return kQorSuccess;
	return section->walk(document, depth, callback);
}

CqorBXML_Section* CqorBXML::FindSection(const char* path, int index) const { return mRoot.FindSection(path, index); }

eqorBXML_VAR* CqorBXML::FindVar(const char* path, int index, CqorBXML_Section** foundIn) const {
	return mRoot.FindVar(path, index, foundIn);
}

int CqorBXML::GetIntVar(const char* path, int defaultValue, int index, CqorBXML_Section** foundIn) const {
	return mRoot.GetIntVar(path, defaultValue, index, foundIn);
}

double CqorBXML::GetDoubleVar(const char* path, double defaultValue, int index, CqorBXML_Section** foundIn) const {
	return mRoot.GetDoubleVar(path, defaultValue, index, foundIn);
}

int CqorBXML::GetStringVar(
    const char* path, char* out, const char* defaultValue, int index, CqorBXML_Section** foundIn) const {
	return mRoot.GetStringVar(path, out, defaultValue, index, foundIn);
}

int CqorBXML::GetStringVar_Char(
    const char* path, char* out, const char* defaultValue, int index, CqorBXML_Section** foundIn) const {
	return mRoot.GetStringVar_Char(path, out, defaultValue, index, foundIn);
}

int CqorBXML::CopyStringVar(const char* path, char* out, std::size_t size, const char* defaultValue, int index,
    CqorBXML_Section** foundIn) const {
	return mRoot.CopyStringVar(path, out, size, defaultValue, index, foundIn);
}
