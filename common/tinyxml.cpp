#include "common/tinyxml.h"

#include "common/file_handle.h"

#include <cstdio>
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

const NTiXmlAttribute* NTiXmlNode::FindAttribute(const char* name) const {
    if (name == nullptr) {
        return nullptr;
    }
    for (const NTiXmlAttribute& attribute : attributes_) {
        if (attribute.Name() == name) {
            return &attribute;
        }
    }
    return nullptr;
}

const std::string* NTiXmlNode::AttributeValue(const char* name) const {
    const NTiXmlAttribute* attribute = FindAttribute(name);
    return attribute == nullptr ? nullptr : &attribute->Value();
}

const std::string* NTiXmlNode::AttributeValue(const std::string& name) const {
    return AttributeValue(name.c_str());
}

const NTiXmlAttribute* NTiXmlNode::AttributeAt(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= attributes_.size()) {
        return nullptr;
    }
    return &attributes_.front();
}

NTiXmlAttribute* NTiXmlNode::AddAttribute(const std::string& name, const std::string& value) {
    return &attributes_.emplace_back(name, value);
}

void NTiXmlNode::CopyAttributesTo(NTiXmlNode* target) const {
    if (target == nullptr) {
        return;
    }
    // Counted first: the target may be this very node.
    std::size_t left = attributes_.size();
    for (auto at = attributes_.begin(); left > 0; ++at, --left) {
        target->AddAttribute(at->Name(), at->Value());
    }
}

NTiXmlElement::~NTiXmlElement() {
    // Each element below hands its children on before it goes, so that no depth costs stack.
    NTiXmlNodeList pending = std::move(children_);
    while (!pending.empty()) {
        if (pending.front()->Type() == NTiXmlNodeType::kElement) {
            auto& element = static_cast<NTiXmlElement&>(*pending.front());
            pending.splice(std::next(pending.begin()), element.children_);
        }
        pending.pop_front();
    }
}

NTiXmlElement* NTiXmlElement::ChildElement(const char* name, int index) const {
    if (name == nullptr || index < 0) {
        return nullptr;
    }
    NTiXmlElementCursor child(*this, name);
    for (; child && index > 0; --index) {
        child.Next();
    }
    return child.Get();
}

NTiXmlElement* NTiXmlElement::ChildElement(const std::string& name, int index) const {
    return ChildElement(name.c_str(), index);
}

NTiXmlElement* NTiXmlElement::ChildElementAt(int index) const {
    if (index < 0) {
        return nullptr;
    }
    for (const auto& child : children_) {
        if (child->Type() == NTiXmlNodeType::kElement && index-- == 0) {
            return static_cast<NTiXmlElement*>(child.get());
        }
    }
    return nullptr;
}

NTiXmlElement* NTiXmlElement::AddChildElement(const std::string& name, const std::string& text) {
    auto element = std::make_unique<NTiXmlElement>();
    element->Name() = name;
    element->Text() = text;
    children_.push_back(std::move(element));
    return static_cast<NTiXmlElement*>(children_.back().get());
}

void NTiXmlElement::AppendChild(NTiXmlNode* child) {
    children_.push_back(std::unique_ptr<NTiXmlNode>(child));
}

bool NTiXmlElement::RemoveChildElement(NTiXmlNode* child) {
    for (auto at = children_.begin(); at != children_.end(); ++at) {
        if (at->get() == child && (*at)->Type() == NTiXmlNodeType::kElement) {
            children_.erase(at);
            return true;
        }
    }
    return false;
}

void NTiXmlElement::RemoveChildElement(NTiXmlElementCursor& cursor) {
    cursor.at_ = children_.erase(cursor.at_);
    cursor.SkipOthers();
}

NTiXmlElementCursor::NTiXmlElementCursor(const NTiXmlElement& parent, const char* name)
    : children_(&parent.Children()), at_(children_->begin()), name_(name) {
    SkipOthers();
}

NTiXmlElement* NTiXmlElementCursor::Get() const {
    return *this ? static_cast<NTiXmlElement*>(at_->get()) : nullptr;
}

void NTiXmlElementCursor::Next() {
    ++at_;
    SkipOthers();
}

void NTiXmlElementCursor::SkipOthers() {
    while (*this && ((*at_)->Type() != NTiXmlNodeType::kElement || Get()->Name() != name_)) {
        ++at_;
    }
}

NTiXmlElement* NTiXmlDoc::RootElement() const {
    for (const auto& child : children_) {
        if (child->Type() == NTiXmlNodeType::kElement) {
            return static_cast<NTiXmlElement*>(child.get());
        }
    }
    return nullptr;
}
