#pragma once

#include "common/tinyxml.h"

#include <string>

// All that a tree holds, as a text that is equal for equal trees only.
std::string describe(const NTiXmlDoc& document);

// Whether what is printed of the tree has to read back as the same tree. That is not so of a text
// beside child elements, which is refused in front of them, and of comments, declarations and other
// markup with characters that would have to be escaped: these are printed as they are.
bool prints_exactly(const NTiXmlDoc& document);

// False where the text is refused. Nodes that stood before that stay.
bool parses(NTiXmlDoc& document, const std::string& text);
