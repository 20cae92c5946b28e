#include "common/tinyxml.h"

#include "common/tinyxml_memory.h"

#include <cstdlib>
#include <utility>

std::string TException::last_class_ = "TException";

TException::TException(const char* file, int line, const std::string& message)
    : message_(message), line_(line) {
    if (file == nullptr) {
        std::exit(-1);
    }
    file_ = file;
}

NTiXmlException::NTiXmlException(const char* file, int line, const std::string& message,
                                 const std::string& remainder)
    : TException(file, line, message), remainder_(remainder) {
    last_class_ = "NTiXmlException";
}

NTiXmlAttribute::~NTiXmlAttribute() {
    delete name_.String();
    delete value_.String();
}

NTiXmlNode::~NTiXmlNode() {
    // Nodes in the memory of another are never destroyed: this one's is its own.
    delete memory_;
}

NTiXmlMemory& NTiXmlNode::Memory() {
    if (memory_ == nullptr) {
        memory_ = std::make_unique<NTiXmlMemory>().release();
    }
    return *memory_;
}

std::string& NTiXmlNode::StringOf(NTiXmlText& text) {
    if (text.String() == nullptr) {
        text.SetString(Memory().Keep(std::string(text.View())));
    }
    return *text.String();
}

NTiXmlAttribute* NTiXmlNode::Find(std::string_view name) const {
    for (NTiXmlAttribute* attribute : attributes_) {
        if (attribute->Name() == name) {
            return attribute;
        }
    }
    return nullptr;
}

const NTiXmlAttribute* NTiXmlNode::FindAttribute(const char* name) const {
    return name == nullptr ? nullptr : Find(name);
}

const std::string* NTiXmlNode::ValueOf(NTiXmlAttribute* attribute) const {
    if (attribute == nullptr) {
        return nullptr;
    }
    if (attribute->value_.String() == nullptr) {
        attribute->value_.SetString(memory_->Keep(std::string(attribute->Value())));
    }
    return attribute->value_.String();
}

const std::string* NTiXmlNode::AttributeValue(const char* name) const {
    return name == nullptr ? nullptr : ValueOf(Find(name));
}

const std::string* NTiXmlNode::AttributeValue(const std::string& name) const {
    return ValueOf(Find(name));
}

std::optional<std::string_view> NTiXmlNode::AttributeView(std::string_view name) const {
    const NTiXmlAttribute* attribute = Find(name);
    return attribute == nullptr ? std::nullopt : std::optional(attribute->Value());
}

const NTiXmlAttribute* NTiXmlNode::AttributeAt(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= attributes_.size()) {
        return nullptr;
    }
    return attributes_.front();
}

const NTiXmlAttribute* NTiXmlNode::AddAttribute(std::string_view name, std::string_view value) {
    NTiXmlAttribute* attribute = Memory().MakeAttribute();
    memory_->SetCopy(attribute->name_, name);
    memory_->SetCopy(attribute->value_, value);
    attributes_.Append(*attribute);
    return attribute;
}

void NTiXmlNode::CopyAttributesTo(NTiXmlNode* target) const {
    if (target == nullptr) {
        return;
    }
    // Counted first: the target may be this very node.
    std::size_t left = attributes_.size();
    for (auto at = attributes_.begin(); left > 0; ++at, --left) {
        target->AddAttribute((*at)->Name(), (*at)->Value());
    }
}

NTiXmlElement* NTiXmlElement::ChildElement(const char* name, int index) const {
    return name == nullptr ? nullptr : FindChild(name, index);
}

NTiXmlElement* NTiXmlElement::ChildElement(const std::string& name, int index) const {
    return FindChild(name, index);
}

NTiXmlElement* NTiXmlElement::FindChild(std::string_view name, int index) const {
    if (index < 0) {
        return nullptr;
    }
    NTiXmlElementCursor child(*this, name);
    for (; child && index > 0; --index) {
        child.Next();
    }
    return child.Get();
}

NTiXmlElement* NTiXmlElement::ChildElementAt(int index) const {
    if (index < 0) {
        return nullptr;
    }
    for (NTiXmlNode* child : children_) {
        if (child->Type() == NTiXmlNodeType::kElement && index-- == 0) {
            return static_cast<NTiXmlElement*>(child);
        }
    }
    return nullptr;
}

NTiXmlElement* NTiXmlElement::AddChildElement(std::string_view name, std::string_view text) {
    auto* element = Memory().MakeNode<NTiXmlElement>();
    Memory().SetCopy(element->name_, name);
    Memory().SetCopy(element->text_, text);
    children_.Append(*element);
    return element;
}

NTiXmlElement* NTiXmlElement::AddChildElement(std::string_view name, NTiXmlOutBuffer&& text) {
    NTiXmlElement* element = AddChildElement(name, "");
    Memory().SetTaken(element->text_, std::move(text));
    return element;
}

void NTiXmlElement::AppendChild(NTiXmlNode* child) {
    std::unique_ptr<NTiXmlNode> owner(child);
    Memory().Adopt(std::move(owner));
    children_.Append(*child);
}

bool NTiXmlElement::RemoveChildElement(NTiXmlNode* child) {
    NTiXmlNode* before = nullptr;
    for (NTiXmlNode* at : children_) {
        if (at == child && at->Type() == NTiXmlNodeType::kElement) {
            RemoveAfter(before);
            return true;
        }
        before = at;
    }
    return false;
}

void NTiXmlElement::RemoveChildElement(NTiXmlElementCursor& cursor) {
    NTiXmlNode* following = children_.After(*cursor.at_);
    RemoveAfter(cursor.before_);
    cursor.at_ = following;
    cursor.SkipOthers();
}

void NTiXmlElement::RemoveAfter(NTiXmlNode* before) {
    NTiXmlNode* removed = before == nullptr ? children_.front() : children_.After(*before);
    const auto adopted = Memory().AdoptedOf(*removed);
    children_.RemoveAfter(before);
    Memory().Delete(adopted);
}

NTiXmlElementCursor::NTiXmlElementCursor(const NTiXmlElement& parent, std::string_view name)
    : children_(&parent.Children()),
      at_(children_->empty() ? nullptr : children_->front()),
      name_(name) {
    SkipOthers();
}

void NTiXmlElementCursor::Next() {
    before_ = at_;
    at_ = children_->After(*at_);
    SkipOthers();
}

void NTiXmlElementCursor::SkipOthers() {
    while (at_ != nullptr &&
           (at_->Type() != NTiXmlNodeType::kElement || Get()->NameView() != name_)) {
        before_ = at_;
        at_ = children_->After(*at_);
    }
}

NTiXmlElement* NTiXmlDoc::RootElement() const {
    for (NTiXmlNode* child : children_) {
        if (child->Type() == NTiXmlNodeType::kElement) {
            return static_cast<NTiXmlElement*>(child);
        }
    }
    return nullptr;
}
