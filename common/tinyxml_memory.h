#pragma once

#include "common/tinyxml.h"

#include <cstddef>
#include <forward_list>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// Where the nodes, attributes and texts of one tree live. What is made here goes when the memory
// goes, all at once and without a walk: no destructor runs for it, so nothing made here may own
// anything outside. Allocating throws std::bad_alloc.
class NTiXmlMemory {
public:
    NTiXmlMemory() = default;
    NTiXmlMemory(const NTiXmlMemory&) = delete;
    NTiXmlMemory& operator=(const NTiXmlMemory&) = delete;
    ~NTiXmlMemory();

    // An empty node that uses this memory for what is added to it.
    template <class Node>
    Node* MakeNode() {
        Node* node = ::new (Allocate(sizeof(Node))) Node;
        node->memory_ = this;
        return node;
    }
    NTiXmlAttribute* MakeAttribute() {
        return ::new (Allocate(sizeof(NTiXmlAttribute))) NTiXmlAttribute;
    }

    // A copy of the characters.
    std::string_view Copy(std::string_view text);
    // Makes `text` a copy of the characters.
    void SetCopy(NTiXmlText& text, std::string_view characters);
    // Makes `text` what was printed, without a copy.
    void SetTaken(NTiXmlText& text, NTiXmlOutBuffer&& printed);
    // A string that stays where it is.
    std::string& Keep(std::string text);

    // Takes over a node that stands by itself.
    void Adopt(std::unique_ptr<NTiXmlNode> node);
    // What was adopted of `node`, which belongs to this tree, and of all below it.
    std::vector<const NTiXmlNode*> AdoptedOf(const NTiXmlNode& node) const;
    void Delete(const std::vector<const NTiXmlNode*>& adopted);

private:
    using Adopted = std::unordered_map<const NTiXmlNode*, std::unique_ptr<NTiXmlNode>>;

    struct Freer {
        void operator()(std::byte* block) const;
    };
    using Block = std::unique_ptr<std::byte[], Freer>;

    void* Allocate(std::size_t size) {
        const std::size_t rounded = (size + alignof(void*) - 1) & ~(alignof(void*) - 1);
        if (rounded > left_) {
            Grow(rounded);
        }
        std::byte* at = next_;
        next_ += rounded;
        left_ -= rounded;
        return at;
    }
    void Grow(std::size_t size);
    // Deletes the adopted nodes; their own memories join those that wait.
    void DeleteAdopted(NTiXmlMemory*& waiting);

    std::byte* next_ = nullptr;  // in the last block
    std::size_t left_ = 0;
    std::vector<Block> blocks_;
    std::size_t next_block_size_ = 512;
    std::forward_list<std::string> strings_;
    Adopted adopted_;
    NTiXmlMemory* waiting_behind_ = nullptr;  // while it waits to be deleted
};
