#include "common/tinyxml_memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

void NTiXmlMemory::Freer::operator()(std::byte* block) const {
    std::free(block);
}

NTiXmlMemory::~NTiXmlMemory() {
    // The memory of each adopted node waits in a row until its turn, so that no depth costs stack.
    NTiXmlMemory* waiting = nullptr;
    DeleteAdopted(waiting);
    while (waiting != nullptr) {
        const std::unique_ptr<NTiXmlMemory> memory(waiting);
        waiting = memory->waiting_behind_;
        memory->DeleteAdopted(waiting);
    }
}

void NTiXmlMemory::DeleteAdopted(NTiXmlMemory*& waiting) {
    for (const auto& entry : adopted_) {
        NTiXmlMemory* memory = std::exchange(entry.second->memory_, nullptr);
        if (memory != nullptr) {
            memory->waiting_behind_ = std::exchange(waiting, memory);
        }
    }
    adopted_.clear();
}

std::string_view NTiXmlMemory::Copy(std::string_view text) {
    if (text.empty()) {
        return "";
    }
    char* copy = static_cast<char*>(Allocate(text.size()));
    std::memcpy(copy, text.data(), text.size());
    return {copy, text.size()};
}

void NTiXmlMemory::SetCopy(NTiXmlText& text, std::string_view characters) {
    if (NTiXmlText::IsViewable(characters)) {
        text.SetView(Copy(characters));
    } else {
        text.SetString(Keep(std::string(characters)));
    }
}

void NTiXmlMemory::SetTaken(NTiXmlText& text, NTiXmlOutBuffer&& printed) {
    Block& block = blocks_.emplace_back();
    const std::size_t size = printed.TextSize();
    char* characters = printed.Release();
    block.reset(reinterpret_cast<std::byte*>(characters));
    // It always fits: what is printed stays below 4 GiB.
    text.SetView({characters, size});
}

std::string& NTiXmlMemory::Keep(std::string text) {
    return strings_.emplace_front(std::move(text));
}

void NTiXmlMemory::Adopt(std::unique_ptr<NTiXmlNode> node) {
    const NTiXmlNode* key = node.get();
    adopted_.emplace(key, std::move(node));
}

std::vector<const NTiXmlNode*> NTiXmlMemory::AdoptedOf(const NTiXmlNode& node) const {
    // An adopted node has all below it in memory of its own, a made one in this.
    std::vector<const NTiXmlNode*> adopted;
    std::vector<const NTiXmlNode*> pending;
    if (!adopted_.empty()) {
        pending.push_back(&node);
    }
    while (!pending.empty()) {
        const NTiXmlNode* at = pending.back();
        pending.pop_back();
        if (at->memory_ != this) {
            adopted.push_back(at);
        } else if (at->Type() == NTiXmlNodeType::kElement) {
            for (const NTiXmlNode* child : static_cast<const NTiXmlElement*>(at)->Children()) {
                pending.push_back(child);
            }
        }
    }
    return adopted;
}

void NTiXmlMemory::Delete(const std::vector<const NTiXmlNode*>& adopted) {
    for (const NTiXmlNode* node : adopted) {
        adopted_.erase(node);
    }
}

void NTiXmlMemory::Grow(std::size_t size) {
    // Blocks double, so that few are needed, and end at a size that leaves little of the last one
    // unused.
    constexpr std::size_t kLargestBlock = std::size_t{4} << 20U;
    const std::size_t block_size = std::max(size, next_block_size_);
    Block& block = blocks_.emplace_back();
    block.reset(static_cast<std::byte*>(std::malloc(block_size)));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    next_ = block.get();
    left_ = block_size;
    next_block_size_ = std::min(next_block_size_ * 2, kLargestBlock);
}
