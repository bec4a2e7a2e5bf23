#pragma once

#include "../platform/export.h"

namespace tinyxml2 {
class XMLElement;
class XMLNode;
} // namespace tinyxml2

class CstMemFile;

/// What a managed class needs to keep its own values in the XML text of its tree, without
/// linking an XML library.
namespace managed {

/// The value of an attribute, with entities resolved; null when there is none. Valid while the
/// handler it is called from runs.
QOR_API const char* xmlAttribute(const tinyxml2::XMLElement* element, const char* name);

/// The text of a text node, as `_mcOnXMLText` receives it; null for another kind of node.
QOR_API const char* xmlText(const tinyxml2::XMLNode* node);

/// Writes `name="value" `. In the value the five XML characters and control characters become
/// entities, so that every text reads back as it was. Null is written as the empty text.
/// @return 0; 0x10000000 without memory.
QOR_API int writeXmlAttribute(CstMemFile* memfile, const char* name, const char* value);

} // namespace managed
