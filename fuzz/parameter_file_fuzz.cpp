#include "qor/data/parameter_file.h"

#include <cstdlib>
#include <cstring>
#include <string>

/// What was read lies in the text and can be found.
static int check(CqorBXML* document, CqorBXML_Section* section, int depth) {
	const auto path = std::string(section->mParent->mType) + "." + section->mType + ".";
	if (section->mDepth != depth + 1 || section->mParent->FindSectionCountByType(section->mType) < 1) std::abort();
	const auto start = section->mContent ? section->mContent - document->mText : 0;
	if (start < 0 || section->mContentLength < 0 || start + section->mContentLength > document->mTextLength)
		std::abort();
	for (int i = 0; i < section->mVarCount; ++i) {
		const char* name = section->mVars[i]->mName;
		double items[3] = {section->GetDoubleVar(name, section->GetIntVar(name, 0))};
		section->GetDoubleArray(name, items, 3, items[0]);
		document->FindVar((path + name).c_str(), i);
		const auto* found = section->FindVar(name); // a name with a point leads to another section
		std::string out(found ? std::strlen(found->mValue) + 1 : 1, '\0');
		if (section->GetStringVar(name, out.data(), "") != 0 && *name && !std::strchr(name, '.')) std::abort();
	}
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
	const std::string text(reinterpret_cast<const char*>(data), size);
	CqorBXML document;
	CqorBXML_Section section;
	document.OpenFromBuffer(data, static_cast<int>(size), check);
	section.ProcessHeader(text.c_str());
	section.ProcessContent(text.c_str());
	section.GetParametersFromString(text.c_str());
	return 0;
}
