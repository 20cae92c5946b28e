#include "main/dispatch.h"

#include "common/result_codes.h"
#include "connections/conn.h"

#include <strings.h>

#include <cstring>

namespace {

constexpr std::int32_t kHandlerCount = 2;
constexpr HandlerEntry kHandlers[kHandlerCount] = {
    {"NULL", nullptr, nullptr},
    {"*", get_conn, set_conn},
};

// The first row that takes the type, or null.
const HandlerEntry* find_handler(const std::string& type) {
    for (const HandlerEntry& entry : kHandlers) {
        if (std::strcmp(entry.name, "*") == 0 || strcasecmp(entry.name, type.c_str()) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

int dispatch_get(const std::string& type, const std::string& file, const std::string& user,
                 const std::string& password) {
    const HandlerEntry* entry = find_handler(type);
    if (entry == nullptr || entry->get == nullptr) {
        return kNoHandler;
    }
    return entry->get(type, file, user, password);
}

int dispatch_set(const std::string& type, const std::string& file, const std::string& user,
                 const std::string& password, bool remove) {
    const HandlerEntry* entry = find_handler(type);
    if (entry == nullptr || entry->set == nullptr) {
        return kNoHandler;
    }
    return entry->set(type, file, user, password, remove);
}
