#pragma once

#include <string_view>

// The five characters that stand as entities in the text and the attribute values of XML.
struct XmlEntity {
    std::string_view text;  // with "&" and ";"
    char character;
};
inline constexpr XmlEntity kXmlEntities[] = {
    {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''},
};
